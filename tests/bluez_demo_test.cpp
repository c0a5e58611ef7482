// `tqble demo --backend bluez` as its user runs it: a separate process on the private bus,
// talking to the stand-in bluetoothd this test hosts.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/FakeBluez.h"
#include "support/PrivateBus.h"
#include "tqble/platform/MainQueue.h"

namespace tqble::test {
namespace {

using namespace std::chrono_literals;

TEST(BluezDemo, RunsTheScriptedSessionAgainstThePostTheRadioHears) {
  usePrivateSystemBus();
  FakeBluez fake;
  sim::PostSetup setup;
  setup.identifier = "C0:FF:EE:00:00:01";
  setup.name = "TQ-AC7-0077";
  auto post = fake.addPost(setup);

  int out[2];
  ASSERT_EQ(pipe(out), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    dup2(out[1], STDOUT_FILENO);
    close(out[0]);
    execl(TQBLE_CLI_PATH, "tqble", "demo", "--quiet", "--backend", "bluez", static_cast<char*>(nullptr));
    _exit(127);
  }
  close(out[1]);
  fcntl(out[0], F_SETFL, O_NONBLOCK);
  // The fake lives on this process's main queue: keep it running while the demo does.
  std::string output;
  int status = 0;
  bool exited = false;
  for (auto waited = 0ms; !exited && waited < 20s; waited += 20ms) {
    MainQueue::main().runFor(20ms);
    char buffer[4096];
    for (ssize_t n; (n = read(out[0], buffer, sizeof buffer)) > 0;) output.append(buffer, static_cast<std::size_t>(n));
    exited = waitpid(child, &status, WNOHANG) == child;
  }
  close(out[0]);
  if (!exited) kill(child, SIGKILL), waitpid(child, &status, 0);
  ASSERT_TRUE(exited) << output;
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << output;
  EXPECT_NE(output.find("heard TQ-AC7-0077 (C0:FF:EE:00:00:01), RSSI -58 dBm"), std::string::npos) << output;
  EXPECT_NE(output.find("connected; write characteristic FFF3, read characteristic FFF4"), std::string::npos);
  EXPECT_NE(output.find("== Volume 35\n  answer   68 B2 00 00 01 00 00 DB 00\n  result   accepted\n"), std::string::npos) << "no sent line: the post is not ours to read";
  EXPECT_NE(output.find("\ndone.\n"), std::string::npos);
  EXPECT_EQ(post->model().volume(), 35);
  EXPECT_EQ(post->receivedWrites().size(), post->sentAnswers().size());
  EXPECT_FALSE(fake.connected(post));
}

}  // namespace
}  // namespace tqble::test

namespace tqble::test {
namespace {

// With no bluetoothd on the bus the tool says why nothing was heard, and fails.
TEST(BluezDemo, ToolSaysTheRadioIsUnsupportedWithoutBluetoothd) {
  usePrivateSystemBus();
  const std::string command = std::string(TQBLE_CLI_PATH) + " scan --seconds 0.5 --backend bluez 2>&1";
  FILE* pipe = popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  std::string output;
  char buffer[512];
  while (fgets(buffer, sizeof buffer, pipe)) output += buffer;
  const int status = pclose(pipe);
  EXPECT_EQ(WEXITSTATUS(status), 3);
  EXPECT_EQ(output, "tqble scan: nothing heard (the radio is unsupported here: no Bluetooth daemon or adapter)\n");
}

}  // namespace
}  // namespace tqble::test
