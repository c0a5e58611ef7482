// Request handles: cancel and a request's own time-out end it exactly once, whatever
// comes after; the blocking form returns the outcome. On the simulated radio, virtual time.
#include <gtest/gtest.h>

#include "protocol/Frame.h"
#include "support/LogCapture.h"
#include "tqble/client/ChargerClient.h"
#include "tqble/platform/MainQueue.h"
#include "tqble/sim/SimRadio.h"

namespace tqble {
namespace {

using namespace std::chrono_literals;

struct Client {
  Client() {
    MainQueue::main().useVirtualClock();
    TQBleManager::useBackend("sim");
    post = sim::SimRadio::shared().addPost();
    client = std::make_unique<ChargerClient>();
  }
  test::LogCapture quiet;
  std::shared_ptr<sim::VirtualPost> post;
  std::unique_ptr<ChargerClient> client;
};

// What happens to a request after it is asked; each case ends the first of three state
// requests and must leave the other two their answers.
struct Case {
  const char* name;
  void (*act)(ChargerClient& c, RequestHandle& first);
  ClientErrorKind expected;
};
const Case kCases[] = {
    {"CancelledWhileRunning", [](ChargerClient&, RequestHandle& h) { EXPECT_TRUE(h.cancel()); },
     ClientErrorKind::Cancelled},
    {"CancelledTwice",
     [](ChargerClient&, RequestHandle& h) {
       EXPECT_TRUE(h.cancel());
       EXPECT_FALSE(h.cancel());
     },
     ClientErrorKind::Cancelled},
    {"OwnTimeOutWhileTheAnswerIsHeld",
     [](ChargerClient&, RequestHandle& h) { h.setTimeout(200ms); },  // not the client's 5 s
     ClientErrorKind::TimedOut},
};

class Handle : public testing::TestWithParam<Case> {};

TEST_P(Handle, EndsTheRequestExactlyOnceAndTheNextRequestsGetTheirOwnAnswers) {
  Client s;
  ASSERT_TRUE(s.client->wait(s.client->connect("")).ok());
  s.client->runUntil([] { return false; }, 4s);  // past the manager's own query
  s.post->faults().lateNotifications = {{0, 1s}};  // the answer comes after the request ended
  int firstEnded = 0;
  std::optional<Outcome<ChargerState>> first;
  auto handle = s.client->queryChargerState([&](const auto& o) { ++firstEnded, first = o; });
  s.client->runUntil([] { return false; }, 10ms);  // written and running
  GetParam().act(*s.client, handle);
  s.client->runUntil([&] { return firstEnded > 0; }, 900ms);
  EXPECT_EQ(firstEnded, 1);
  s.post->faults().lateNotifications.clear();
  const auto second = s.client->wait(s.client->queryChargerState());
  const auto third = s.client->wait(s.client->querySystemInfo());
  s.client->runUntil([] { return false; }, 6s);  // past the client's own time-out
  EXPECT_EQ(firstEnded, 1);
  ASSERT_TRUE(first && !first->ok());
  EXPECT_EQ(first->error().kind, GetParam().expected);
  EXPECT_TRUE(handle.ended());
  EXPECT_TRUE(second.ok()) << second.error().message;
  EXPECT_TRUE(third.ok()) << third.error().message;
}

INSTANTIATE_TEST_SUITE_P(Requests, Handle, testing::ValuesIn(kCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(Handle, CancelsAWaitingRequestWithoutWritingIt) {
  Client s;
  ASSERT_TRUE(s.client->wait(s.client->connect("")).ok());
  s.client->runUntil([] { return false; }, 4s);
  auto running = s.client->queryChargerState();
  auto waiting = s.client->queryHistory();
  EXPECT_TRUE(waiting.cancel());
  EXPECT_EQ(s.client->wait(waiting).error().kind, ClientErrorKind::Cancelled);
  EXPECT_TRUE(s.client->wait(running).ok());
  s.client->runUntil([] { return false; }, 1s);
  for (const Bytes& write : s.post->receivedWrites()) EXPECT_NE(write.at(1), protocol::kCmdHistory);
}

}  // namespace
}  // namespace tqble
