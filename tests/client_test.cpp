// The client against the virtual post on virtual time: the ready moment, the queue, every
// command's typed answer, every way a request fails, and what the manager still does.
#include <gtest/gtest.h>

#include "support/Commands.h"
#include "support/Hex.h"
#include "tqble/client/ChargerClient.h"
#include "tqble/platform/Log.h"
#include "tqble/platform/MainQueue.h"
#include "tqble/sim/SimRadio.h"

namespace tqble {
namespace {

using namespace std::chrono_literals;
using test::hex;

struct ClientSession {
  explicit ClientSession(ClientOptions options = {}, sim::PostSetup setup = {}) {
    MainQueue::main().useVirtualClock();
    TQBleManager::useBackend("sim");
    post = sim::SimRadio::shared().addPost(std::move(setup));
    post->model().setClock(1'700'000'000);
    client = std::make_unique<ChargerClient>(options);
  }
  /// Connects to the first post heard and lets the manager's own query after connecting end.
  void connect() {
    const auto outcome = tryConnect("");
    ASSERT_TRUE(outcome.ok()) << outcome.error().message;
    client->runUntil([] { return false; }, 4s);
  }
  Outcome<ChargerClient::PeripheralPtr> tryConnect(const std::string& name) {
    std::optional<Outcome<ChargerClient::PeripheralPtr>> outcome;
    client->connect(name, [&](const auto& o) { outcome = o; });
    client->runUntil([&] { return outcome.has_value(); }, 20s);
    return outcome.value_or(ClientError{ClientErrorKind::TimedOut, 0, "never ended"});
  }
  /// Runs one request to its end and returns its outcome.
  template <typename T>
  Outcome<T> ask(Pending<T> (ChargerClient::*request)(Completion<T>)) {
    std::optional<Outcome<T>> outcome;
    (client.get()->*request)([&](const Outcome<T>& o) { outcome = o; });
    client->runUntil([&] { return outcome.has_value(); }, 30s);
    return outcome.value_or(Outcome<T>(ClientError{ClientErrorKind::NotFound, 0, "never ended"}));
  }
  bool nothingPending() {
    return client->manager().cmdType() == 0 && client->manager().systemInfoData().empty();
  }

  std::shared_ptr<sim::VirtualPost> post;
  std::unique_ptr<ChargerClient> client;
};

std::vector<std::uint8_t> codesWritten(const sim::VirtualPost& post) {
  std::vector<std::uint8_t> codes;
  for (const Bytes& write : post.receivedWrites()) codes.push_back(write.at(1));
  return codes;
}

TEST(ChargerClient, IsReadyAfterTheFirstReadAndNoRequestTakesThatReadForItsAnswer) {
  // The post's first read holds a refused start-charging acknowledgement.
  sim::PostSetup setup;
  setup.initialReadValue = hex("68 b4 00 00 01 00 00 dc 01");
  ClientSession s({}, setup);
  s.post->model().plugIn();
  std::optional<Outcome<SettingResult>> started;
  bool readyAtConnect = false;
  s.client->connect("TQ-AC7-0042", [&](const auto& o) {
    readyAtConnect = o.ok() && s.client->ready() && s.client->manager().readCharacteristic();
    s.client->startCharging([&](const auto& r) { started = r; });
  });
  const auto begun = MainQueue::main().now();
  ASSERT_TRUE(s.client->runUntil([&] { return readyAtConnect; }, 5s));
  EXPECT_LT(MainQueue::main().now() - begun, 1s);
  ASSERT_TRUE(s.client->runUntil([&] { return started.has_value(); }, 10s));
  ASSERT_TRUE(started->ok());
  EXPECT_TRUE(started->value().accepted());
  EXPECT_EQ(s.post->model().gunState(), sim::GunState::Charging);
  // Written at once, well before the manager's own query 3 s after connecting.
  EXPECT_EQ(codesWritten(*s.post), (std::vector<std::uint8_t>{0xB4}));
}

TEST(ChargerClient, WritesRequestsOneAtATimeInTheOrderAsked) {
  ClientSession s;
  s.connect();
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
  EXPECT_EQ(codesWritten(*s.post), (std::vector<std::uint8_t>{0xB1, 0xB5, 0xB0, 0xB2, 0xB7}));
  EXPECT_EQ(s.post->model().volume(), 35);
}

TEST(ChargerClient, AnswersEveryCommandOfTheTableWithThePostsOwnAnswerFrame) {
  ClientSession s;
  s.connect();
  for (const auto& row : test::kCommandRows) {
    if (row.prepare) row.prepare(s.post->model());
    const auto ended = test::askRow(*s.client, row);
    EXPECT_FALSE(ended.error) << row.name << ": " << ended.error->message;
    EXPECT_EQ(test::spaced(ended.frame), test::spaced(s.post->sentAnswers().back())) << row.name;
    EXPECT_EQ(s.post->receivedWrites().back().at(1), row.code) << row.name;
    EXPECT_TRUE(s.nothingPending()) << row.name;
  }
  EXPECT_EQ(s.post->model().volume(), 35);
  // The manager reads every stop as success; the client reads the post's acknowledgement.
  s.post->faults().refuse = {0xB6};
  EXPECT_FALSE(s.ask<SettingResult>(&ChargerClient::stopCharging).value().accepted());
}

TEST(ChargerClient, EndsEveryRequestWhoseAnswerNeverComesWithATimeOutAndNothingPending) {
  ClientSession s({.connectTimeout = 10s, .requestTimeout = 2s, .reconnect = {}});
  s.connect();
  s.post->faults().mute = true;
  for (const auto& row : test::kCommandRows) {
    const auto error = test::askRow(*s.client, row).error;
    EXPECT_EQ(error ? error->kind : ClientErrorKind::NotFound, ClientErrorKind::TimedOut) << row.name;
    EXPECT_TRUE(s.nothingPending()) << row.name;
  }
}

TEST(ChargerClient, GathersAnAnswerTheManagerCutShortAndReportsOnlyUnownedRangeErrors) {
  ClientSession s;
  for (int i = 0; i < 3; ++i) s.post->model().addError({1'699'800'000 + i, 1});
  s.connect();
  std::vector<std::string> unowned;
  s.client->setErrorHandler([&](const ClientError& e) { unowned.push_back(e.message); });
  // The first piece of the error log is short: the manager dispatches it and its decoder
  // finds three entries counted and none present; the client gathers the whole frame.
  s.post->faults().chunkSizes = {11};
  const auto log = s.ask<ErrorLog>(&ChargerClient::queryErrorLog);
  ASSERT_TRUE(log.ok()) << log.error().message;
  EXPECT_EQ(log.value().size(), 3u);
  EXPECT_TRUE(s.nothingPending());
  // The same answer to a command the application wrote itself belongs to no request.
  s.client->manager().queryHistoryErrorLogListWithError(nullptr);
  s.client->runUntil([&] { return !unowned.empty(); }, 2s);
  ASSERT_EQ(unowned.size(), 1u);
  EXPECT_TRUE(unowned[0].starts_with("the answer could not be decoded")) << unowned[0];
  s.post->faults().chunkSizes.clear();
  EXPECT_EQ(s.ask<ErrorLog>(&ChargerClient::queryErrorLog).value().size(), 3u);
}

TEST(ChargerClient, FailsARequestCutByALinkLossAndServesTheNextOnTheReconnectedLink) {
  ClientSession s({.connectTimeout = 10s, .requestTimeout = 5s, .reconnect = {1, 500ms}});
  for (int i = 0; i < 5; ++i) s.post->model().addError({1'699'800'000 + i, 2});
  s.connect();
  std::vector<std::string> unowned;
  s.client->setErrorHandler([&](const ClientError& e) { unowned.push_back(e.message); });
  // Lost after the first 20-byte piece; the reconnected link's first read then returns
  // that piece, which an error log left pending would take for its answer.
  s.post->faults().dropLinkAfterNotifications = 1;
  const auto cut = s.ask<ErrorLog>(&ChargerClient::queryErrorLog);
  ASSERT_FALSE(cut.ok());
  EXPECT_EQ(cut.error().kind, ClientErrorKind::LinkLost);
  ASSERT_TRUE(s.client->runUntil([&] { return s.client->ready(); }, 5s));
  EXPECT_TRUE(s.nothingPending());
  const auto again = s.ask<ErrorLog>(&ChargerClient::queryErrorLog);
  ASSERT_TRUE(again.ok()) << again.error().message;
  EXPECT_EQ(again.value().size(), 5u);
  EXPECT_EQ(unowned, std::vector<std::string>{});
}

TEST(ChargerClient, ReportsEachFailureByItsKind) {
  ClientSession s;
  EXPECT_EQ(s.ask<ChargerState>(&ChargerClient::queryChargerState).error().kind,
            ClientErrorKind::NotConnected);
  const auto unheard = s.tryConnect("no such post");
  EXPECT_EQ(unheard.error().kind, ClientErrorKind::NotFound);
  EXPECT_EQ(unheard.error().message, "no post named 'no such post' heard");
  s.post->faults().connectionError = TQError{"connection refused", 6, {}};
  const auto refusedLink = s.tryConnect("SIM-POST-0001");
  EXPECT_EQ(refusedLink.error().kind, ClientErrorKind::ConnectFailed);
  EXPECT_EQ(refusedLink.error().message, "the connection failed (connection refused)");
  s.post->faults().connectionError.reset();
  s.connect();
  s.client->manager().setWriteCharacteristic(nullptr);
  const auto refused = s.ask<SettingResult>(&ChargerClient::synchroTime);
  EXPECT_EQ(refused.error().kind, ClientErrorKind::WriteFailed);
  EXPECT_EQ(refused.error().code, 1001);
  EXPECT_EQ(refused.error().message, "write failed (1001): 蓝牙写入特征为空，请检查蓝牙连接设备");
  EXPECT_TRUE(s.nothingPending());
}

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
    std::optional<Outcome<ChargerClient::PeripheralPtr>> linked;
    client.connect("", [&](const auto& o) { linked = o; });
    client.runUntil([&] { return linked.has_value(); }, 5s);
    std::optional<Outcome<ChargerState>> state;
    client.queryChargerState([&](const auto& o) { state = o; });
    client.runUntil([&] { return state.has_value(); }, 10s);
    client.disconnect();
    client.runUntil([] { return false; }, 1s);
  }
  EXPECT_EQ(TQBleManager::shareManager()->delegate().lock(), app);
  EXPECT_EQ(heard, (std::vector<std::string>{
                       "discover SIM-POST-0001 -58", "connect", "update, tag 0",  // first read
                       "update, tag 6", "update: 未知", "disconnect"}));
}

}  // namespace
}  // namespace tqble
