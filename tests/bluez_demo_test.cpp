// `tqble scan --backend bluez` with no bluetoothd on the bus (the radio guest runs the demo
// against the real daemon): the tool says why nothing was heard, and fails.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include "support/PrivateBus.h"

namespace tqble::test {
namespace {

TEST(BluezDemo, ToolSaysTheRadioIsUnsupportedWithoutBluetoothd) {
  usePrivateSystemBus();
  const std::string command =
      std::string(TQBLE_CLI_PATH) + " scan --seconds 0.5 --backend bluez 2>&1";
  FILE* pipe = popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  std::string output;
  char buffer[512];
  while (fgets(buffer, sizeof buffer, pipe)) output += buffer;
  const int status = pclose(pipe);
  EXPECT_EQ(WEXITSTATUS(status), 3);
  EXPECT_EQ(output,
            "tqble scan: nothing heard (the radio is unsupported here: no Bluetooth daemon or "
            "adapter)\n");
}

}  // namespace
}  // namespace tqble::test
