// The client against the virtual post on virtual time: the ready moment, the queue, every
// command's answer, every way a request or a link fails, what the application's handles
// and link observer see, and what the manager still does.
#include <gtest/gtest.h>

#include "support/ClientSession.h"
#include "support/Hex.h"

namespace tqble {
namespace {

using namespace std::chrono_literals;
using test::ClientSession;

TEST(ChargerClient, IsReadyAfterTheFirstReadAndNoRequestTakesThatReadForItsAnswer) {
  // The post's first read holds a refused start-charging acknowledgement.
  sim::PostSetup setup;
  setup.initialReadValue = test::hex("68 b4 00 00 01 00 00 dc 01");
  ClientSession s({}, setup);
  s.post->model().plugIn();
  std::optional<Outcome<SettingResult>> started;
  bool readyAtConnect = false;
  s.client->connect("TQ-AC7-0042", [&](const auto& o) {
    readyAtConnect = o.ok() && s.client->ready() && s.client->manager().readCharacteristic();
    s.client->startCharging([&](const auto& r) { started = r; });
  });
  const auto begun = s.now();
  ASSERT_TRUE(s.client->runUntil([&] { return readyAtConnect; }, 5s));
  EXPECT_LT(s.now() - begun, 1s);
  ASSERT_TRUE(s.client->runUntil([&] { return started.has_value(); }, 10s));
  ASSERT_TRUE(started->ok());
  EXPECT_TRUE(started->value().accepted());
  EXPECT_EQ(s.post->model().gunState(), sim::GunState::Charging);
  // Written at once, well before the manager's own query 3 s after connecting.
  EXPECT_EQ(s.codesWritten(), (std::vector<std::uint8_t>{0xB4}));
  EXPECT_EQ(s.links, (std::vector<std::string>{"connecting", "ready"}));
}

TEST(ChargerClient, WritesRequestsOneAtATimeInTheOrderAsked) {
  ClientSession s;
  s.connectAndSettle();
  std::vector<std::string> ended;
  auto note = [&](const char* name) {
    return [&ended, name](const auto&) { ended.push_back(name); };
  };
  s.client->queryChargerState(note("state"));
  s.client->synchroTime(note("time"));
  s.client->setVolume(35, note("volume"));
  s.client->queryHistory(note("history"));
  EXPECT_EQ(s.client->queued(), 4u);
  s.client->runUntil([&] { return ended.size() == 4; }, 10s);
  EXPECT_EQ(ended, (std::vector<std::string>{"state", "time", "volume", "history"}));
  EXPECT_EQ(s.codesWritten(), (std::vector<std::uint8_t>{0xB1, 0xB5, 0xB0, 0xB2, 0xB7}));
  EXPECT_EQ(s.post->model().volume(), 35);
  // The manager reads every stop as success; the client reads the post's acknowledgement.
  s.post->faults().refuse = {0xB6};
  EXPECT_FALSE(s.client->wait(s.client->stopCharging()).value().accepted());
}

TEST(ChargerClient, ReportsEachFailureByItsKind) {
  ClientSession s;
  EXPECT_EQ(s.client->wait(s.client->queryChargerState()).error().kind, ClientErrorKind::NotConnected);
  const auto unheard = s.connect("no such post");
  EXPECT_EQ(unheard.error().kind, ClientErrorKind::NotFound);
  EXPECT_EQ(unheard.error().message, "no post named 'no such post' heard");
  s.post->faults().connectionError = TQError{"connection refused", 6, {}};
  const auto refusedLink = s.connect("SIM-POST-0001");
  EXPECT_EQ(refusedLink.error().kind, ClientErrorKind::ConnectFailed);
  EXPECT_EQ(refusedLink.error().message, "the connection failed (connection refused)");
  s.post->faults().connectionError.reset();
  s.connectAndSettle();
  s.client->manager().setWriteCharacteristic(nullptr);
  const auto refused = s.client->wait(s.client->synchroTime());
  EXPECT_EQ(refused.error().kind, ClientErrorKind::WriteFailed);
  EXPECT_EQ(refused.error().code, 1001);
  EXPECT_EQ(refused.error().message, "write failed (1001): 蓝牙写入特征为空，请检查蓝牙连接设备");
  EXPECT_TRUE(s.nothingPending());
  EXPECT_EQ(s.links, (std::vector<std::string>{
                         "connecting", "closed (no post named 'no such post' heard)", "connecting",
                         "closed (the connection failed (connection refused))", "connecting", "ready"}));
}

// BlueZ refuses connections for passing reasons (the controller's own abort, another
// attempt under way): the client asks again, up to connectRetries times, and says which
// refusal it met last.
struct Refusal {
  const char* name;
  const char* message;
  int attempts;  // until the link is up, or given up
  bool linked;
};
const Refusal kRefusals[] = {
    {"org.bluez.Error.Failed", "le-connection-abort-by-local", 3, true},
    {"org.bluez.Error.InProgress", "In Progress", 4, true},
    {"org.bluez.Error.InProgress", "In Progress", 4, false},  // the first and 3 more
    {"org.bluez.Error.Failed", "Page Timeout", 1, false},
};

class Refused : public testing::TestWithParam<Refusal> {};

TEST_P(Refused, ConnectsOnceBlueZStopsRefusingOrSaysWhichRefusalItMetLast) {
  const Refusal& refusal = GetParam();
  ClientSession s;
  s.post->faults().connectionError =
      TQError{"connection failed", 1, {{"name", Value{refusal.name}}, {"message", Value{refusal.message}}}};
  int attempts = 0;
  s.watcher->didFailToConnectPeripheral = [&](auto&, const auto&, const auto&) {
    if (++attempts + 1 == refusal.attempts && refusal.linked) s.post->faults().connectionError.reset();
  };
  const auto link = s.connect();
  EXPECT_EQ(link.ok(), refusal.linked);
  EXPECT_EQ(attempts + (refusal.linked ? 1 : 0), refusal.attempts);
  if (!refusal.linked) {
    EXPECT_EQ(link.error().stackError, refusal.name);
  }
  EXPECT_EQ(s.links.size(), 2u);  // connecting, then ready or closed
}

INSTANTIATE_TEST_SUITE_P(Client, Refused, testing::ValuesIn(kRefusals), [](const auto& info) {
  return std::to_string(info.index);
});

TEST(ChargerClient, LeavesTheApplicationDelegateEveryManagerCallAsTheManagerMakesIt) {
  std::vector<std::string> heard;
  auto app = std::make_shared<TQBleManagerDelegate>();
  app->didDiscoverPeripheral = [&](auto&, const auto& p, std::int64_t rssi) {
    heard.push_back("discover " + p->identifier() + " " + std::to_string(rssi));
  };
  app->didConnectPeripheral = [&](auto& m, const auto&) {
    heard.push_back(m.writeCharacteristic() ? "connect, write known" : "connect");
  };
  app->didUpdateValueForCharacteristicValue = [&](auto& m, const auto& model, const auto&) {
    heard.push_back(model->chargingData ? "update: " + model->chargingData->gunStatus.value_or("")
                                        : "update, tag " + std::to_string(m.cmdType()));
  };
  app->didDisconnectPeripheral = [&](auto&, const auto&, const auto& e) {
    heard.push_back(e ? "disconnect with error" : "disconnect");
  };
  {
    MainQueue::main().useVirtualClock();
    TQBleManager::shareManager()->setDelegate(app);
    ChargerClient client;
    ASSERT_TRUE(client.wait(client.connect("")).ok());
    client.wait(client.queryChargerState());
    client.disconnect();
    client.runUntil([] { return false; }, 1s);
  }
  EXPECT_EQ(TQBleManager::shareManager()->delegate().lock(), app);
  EXPECT_EQ(heard, (std::vector<std::string>{
                       "discover SIM-POST-0001 -58", "connect", "update, tag 0",  // first read
                       "update, tag 6", "update: 未知", "disconnect"}));
}

// ---- Handles ---------------------------------------------------------------------------

// What happens to a request after it is asked; each case ends the first of three requests
// and must leave the other two their answers.
struct HandleCase {
  const char* name;
  void (*act)(RequestHandle& first);
  ClientErrorKind expected;
};
const HandleCase kHandleCases[] = {
    {"CancelledWhileRunning", [](RequestHandle& h) { EXPECT_TRUE(h.cancel()); }, ClientErrorKind::Cancelled},
    {"CancelledTwice",
     [](RequestHandle& h) {
       EXPECT_TRUE(h.cancel());
       EXPECT_FALSE(h.cancel());
     },
     ClientErrorKind::Cancelled},
    {"OwnTimeOutWhileTheAnswerIsHeld", [](RequestHandle& h) { h.setTimeout(200ms); },  // not 5 s
     ClientErrorKind::TimedOut},
};

class Handle : public testing::TestWithParam<HandleCase> {};

TEST_P(Handle, EndsTheRequestExactlyOnceAndTheNextRequestsGetTheirOwnAnswers) {
  ClientSession s;
  s.connectAndSettle();
  s.post->faults().lateNotifications = {{0, 1s}};  // the answer comes after the request ended
  int firstEnded = 0;
  auto handle = s.client->queryChargerState([&](const auto&) { ++firstEnded; });
  s.runFor(10ms);  // written and running
  GetParam().act(handle);
  s.client->runUntil([&] { return firstEnded > 0; }, 900ms);
  EXPECT_EQ(firstEnded, 1);
  s.post->faults().lateNotifications.clear();
  const auto second = s.client->wait(s.client->queryChargerState());
  const auto third = s.client->wait(s.client->querySystemInfo());
  s.runFor(6s);  // past the client's own time-out
  EXPECT_EQ(firstEnded, 1);
  EXPECT_EQ(handle.outcome()->error().kind, GetParam().expected);
  EXPECT_TRUE(second.ok()) << second.error().message;
  EXPECT_TRUE(third.ok()) << third.error().message;
}

INSTANTIATE_TEST_SUITE_P(Requests, Handle, testing::ValuesIn(kHandleCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(Handle, CancelsAWaitingRequestWithoutWritingIt) {
  ClientSession s;
  s.connectAndSettle();
  auto running = s.client->queryChargerState();
  auto waiting = s.client->queryHistory();
  EXPECT_TRUE(waiting.cancel());
  EXPECT_EQ(s.client->wait(waiting).error().kind, ClientErrorKind::Cancelled);
  EXPECT_TRUE(s.client->wait(running).ok());
  s.runFor(1s);
  const auto codes = s.codesWritten();
  EXPECT_EQ(std::count(codes.begin(), codes.end(), 0xB2), 0);
}

// ---- The link --------------------------------------------------------------------------

TEST(ClientLink, FailsARequestCutByALinkLossAndServesTheNextOnTheReconnectedLink) {
  ClientSession s({.connectTimeout = 10s, .requestTimeout = 5s, .reconnect = {1, 500ms}});
  for (int i = 0; i < 5; ++i) s.post->model().addError({1'699'800'000 + i, 2});
  s.connectAndSettle();
  std::vector<std::string> unowned;
  s.client->setErrorHandler([&](const ClientError& e) { unowned.push_back(e.message); });
  // Lost after the first 20-byte piece; the reconnected link's first read then returns
  // that piece, which an error log left pending would take for its answer.
  s.post->faults().dropLinkAfterNotifications = 1;
  const auto cut = s.client->wait(s.client->queryErrorLog());
  ASSERT_FALSE(cut.ok());
  EXPECT_EQ(cut.error().kind, ClientErrorKind::LinkLost);
  ASSERT_TRUE(s.client->runUntil([&] { return s.client->ready(); }, 5s));
  EXPECT_TRUE(s.nothingPending());
  const auto again = s.client->wait(s.client->queryErrorLog());
  ASSERT_TRUE(again.ok()) << again.error().message;
  EXPECT_EQ(again.value().size(), 5u);
  EXPECT_EQ(unowned, std::vector<std::string>{});
}

TEST(ClientLink, ReconnectsAfterWaitsThatDoubleUpToTheCapThenCloses) {
  ClientSession s({.connectTimeout = 10s, .requestTimeout = 5s, .reconnect = {3, 400ms, 1000ms}});
  ASSERT_TRUE(s.connect().ok());
  s.links.clear();
  s.linkTimes.clear();
  std::vector<MainQueue::Clock::time_point> failed;
  s.watcher->didFailToConnectPeripheral = [&](auto&, const auto&, const auto&) { failed.push_back(s.now()); };
  s.post->faults().connectionError = TQError{"connection refused", 6, {}};
  s.post->dropLink();
  s.client->runUntil([&] { return s.links.size() == 5; }, 10s);
  EXPECT_EQ(s.links, (std::vector<std::string>{"lost (the link went down (The link to the charging post was lost.))",
                                               "reconnecting 1", "reconnecting 2", "reconnecting 3",
                                               "closed (the connection failed (connection refused))"}));
  ASSERT_EQ(failed.size(), 3u);
  EXPECT_EQ(s.linkTimes[1] - s.linkTimes[0], 400ms);
  EXPECT_EQ(s.linkTimes[2] - failed[0], 800ms);
  EXPECT_EQ(s.linkTimes[3] - failed[1], 1000ms);
  EXPECT_EQ(s.linkTimes[4], failed[2]);
  EXPECT_FALSE(s.client->ready());
}

}  // namespace
}  // namespace tqble
