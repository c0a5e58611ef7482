// The main queue and the client hosted by the application's own loop: a plain poll() and,
// where GLib is installed, a GLib main loop watching the queue's descriptor.
#include <gtest/gtest.h>
#include <poll.h>

#include <stdexcept>
#include <thread>

#ifdef TQBLE_HAVE_GLIB
#include <glib-unix.h>
#endif

#ifdef TQBLE_TEST_BLUEZ
#include "support/FakeBluez.h"
#include "support/PrivateBus.h"
#endif
#include "tqble/client/ChargerClient.h"
#include "tqble/platform/MainQueue.h"
#include "tqble/sim/SimRadio.h"

namespace tqble {
namespace {

using namespace std::chrono_literals;

bool readable(int fd, int timeoutMs) {
  pollfd p{fd, POLLIN, 0};
  return ::poll(&p, 1, timeoutMs) == 1 && (p.revents & POLLIN);
}

TEST(MainQueue, DescriptorIsReadableExactlyWhileATaskIsDue) {
  auto& queue = MainQueue::main();
  const int fd = queue.eventFd();
  EXPECT_FALSE(readable(fd, 0));

  std::vector<std::string> ran;
  std::thread([&] { queue.async([&] { ran.push_back("handed over"); }); }).join();
  ASSERT_TRUE(readable(fd, 0));
  EXPECT_EQ(queue.dispatch(), 1u);
  EXPECT_FALSE(readable(fd, 0));

  // A delayed task wakes the loop at its time, not before.
  const auto due = queue.now() + 30ms;
  queue.asyncAfter(30ms, [&] { ran.push_back("delayed"); });
  queue.async([] { throw std::runtime_error("task failed"); });
  queue.async([&] { ran.push_back("after the failure"); });
  EXPECT_THROW(queue.dispatch(), std::runtime_error);
  ASSERT_TRUE(readable(fd, 0)) << "re-armed for the task left behind the failure";
  EXPECT_EQ(queue.dispatch(), 1u);
  ASSERT_TRUE(readable(fd, 5000));
  EXPECT_GE(queue.now(), due);
  EXPECT_EQ(queue.dispatch(), 1u);
  EXPECT_FALSE(readable(fd, 0));
  EXPECT_EQ(ran, (std::vector<std::string>{"handed over", "after the failure", "delayed"}));
}

// Runs the application's loop until `done()` holds; false if the loop went idle first.
using HostLoop = bool (*)(ChargerClient&, const std::function<bool()>& done);

bool pollLoop(ChargerClient& client, const std::function<bool()>& done) {
  while (!done()) {
    if (!readable(client.eventFd(), 0)) return false;  // virtual clock: due at once or never
    client.dispatch();
  }
  return true;
}

#ifdef TQBLE_HAVE_GLIB
bool glibLoop(ChargerClient& client, const std::function<bool()>& done) {
  const guint watch = g_unix_fd_add(
      client.eventFd(), G_IO_IN,
      [](gint, GIOCondition, gpointer c) -> gboolean {
        static_cast<ChargerClient*>(c)->dispatch();
        return G_SOURCE_CONTINUE;
      },
      &client);
  // Virtual clock: the descriptor is readable while anything is queued, so an iteration
  // that dispatches nothing means the queue went idle.
  while (!done() && g_main_context_iteration(nullptr, FALSE)) {
  }
  g_source_remove(watch);
  return done();
}
#endif

class HostedClient : public testing::TestWithParam<HostLoop> {};

TEST_P(HostedClient, DeliversEveryAnswerAndContainsAShortAnswersRangeError) {
  MainQueue::main().useVirtualClock();
  TQBleManager::useBackend("sim");
  auto post = sim::SimRadio::shared().addPost();
  for (int i = 0; i < 3; ++i) post->model().addError({1'699'800'000 + i, 1});
  ChargerClient client;
  const HostLoop host = GetParam();

  std::optional<Outcome<ChargerClient::PeripheralPtr>> link;
  client.connect("", [&](const auto& o) { link = o; });
  ASSERT_TRUE(host(client, [&] { return link.has_value(); }));
  ASSERT_TRUE(link->ok()) << link->error().message;

  // The first piece of the error log is short: the manager's decoder finds three entries
  // counted and none present, and throws inside dispatch(); the client still gathers it.
  std::optional<Outcome<ErrorLog>> cut, whole;
  std::optional<Outcome<ChargerState>> state;
  client.queryChargerState([&](const auto& o) {
    state = o;
    post->faults().chunkSizes = {11};
  });
  client.queryErrorLog([&](const auto& o) {
    cut = o;
    post->faults().chunkSizes.clear();
  });
  client.queryErrorLog([&](const auto& o) { whole = o; });
  ASSERT_TRUE(host(client, [&] { return whole.has_value(); }));
  ASSERT_TRUE(cut->ok()) << cut->error().message;
  EXPECT_EQ(cut->value().size(), 3u);
  ASSERT_TRUE(state->ok()) << state->error().message;
  EXPECT_EQ(state->value().record.gunStatus, "未知");
  ASSERT_TRUE(whole->ok()) << whole->error().message;
  EXPECT_EQ(whole->value().size(), 3u);
  // The same cut answer to a command the application wrote itself belongs to no request.
  std::vector<std::string> unowned;
  client.setErrorHandler([&](const ClientError& e) { unowned.push_back(e.message); });
  post->faults().chunkSizes = {11};
  client.manager().queryHistoryErrorLogListWithError(nullptr);
  ASSERT_TRUE(host(client, [&] { return !unowned.empty(); }));
  ASSERT_EQ(unowned.size(), 1u);
  EXPECT_TRUE(unowned[0].starts_with("the answer could not be decoded: ")) << unowned[0];
}

#ifdef TQBLE_HAVE_GLIB
INSTANTIATE_TEST_SUITE_P(Loops, HostedClient, testing::Values(&pollLoop, &glibLoop),
                         [](const auto& info) { return info.index == 0 ? "Poll" : "Glib"; });
#else
INSTANTIATE_TEST_SUITE_P(Loops, HostedClient, testing::Values(&pollLoop),
                         [](const auto&) { return "Poll"; });
#endif

#ifdef TQBLE_TEST_BLUEZ
// On the bluez backend the queue reads the bus connection itself: the application's loop
// hears it through the same descriptor, on the real clock.
TEST(HostedClient, HearsTheBluezBackendThroughTheQueuesDescriptor) {
  test::usePrivateSystemBus();
  test::FakeBluez fake;
  sim::PostSetup setup;
  setup.identifier = "C0:FF:EE:00:00:01";
  fake.addPost(setup);
  TQBleManager::useBackend("bluez");
  ChargerClient client;
  std::optional<Outcome<ChargerState>> state;
  client.connect("", [&](const auto& o) {
    if (!o.ok()) return void(state = o.error());
    client.queryChargerState([&](const auto& s) { state = s; });
  });
  const auto end = std::chrono::steady_clock::now() + 20s;
  while (!state && std::chrono::steady_clock::now() < end)
    if (readable(client.eventFd(), 100)) client.dispatch();
  ASSERT_TRUE(state.has_value());
  EXPECT_TRUE(state->ok()) << state->error().message;
}
#endif

}  // namespace
}  // namespace tqble
