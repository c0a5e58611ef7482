// Requests against the virtual post on virtual time: each answer reaches its own request
// around the manager's own query after connecting, and under every way the post cuts,
// delays or loses its answers.
#include <gtest/gtest.h>

#include "support/Commands.h"
#include "tqble/client/ChargerClient.h"
#include "tqble/platform/MainQueue.h"
#include "tqble/sim/SimRadio.h"

namespace tqble {
namespace {

using namespace std::chrono_literals;

// One request of each answer shape, from the command table.
const char* const kShapes[] = {"setVolumeWithVolumeSize", "queryChargerStateWithError",
                               "querySystemInfoWithError", "queryHistoryChargingListWithError",
                               "queryHistoryErrorLogListWithError", "runningDiagnosticInfoWithError"};
const test::CommandRow& shape(std::size_t i) { return test::commandRow(kShapes[i % std::size(kShapes)]); }

struct Session {
  explicit Session(ClientOptions options = {}) {
    MainQueue::main().useVirtualClock();
    TQBleManager::useBackend("sim");
    post = sim::SimRadio::shared().addPost();
    post->model().setClock(1'700'000'000);
    for (std::uint32_t i = 1; i <= 2; ++i)
      post->model().addHistory({i, 1200, 1'699'000'000, 1'699'003'600, 3600});
    client = std::make_unique<ChargerClient>(options);
    watcher->didConnectPeripheral = [this](auto&, const auto&) { connected = MainQueue::main().now(); };
    client->setDelegate(watcher);
    std::optional<Outcome<ChargerClient::PeripheralPtr>> link;
    client->connect("", [&](const auto& o) { link = o; });
    client->runUntil([&] { return link.has_value(); }, 5s);
    EXPECT_TRUE(link && link->ok());
  }
  test::ClientEnd ask(const test::CommandRow& row) { return test::askRow(*client, row); }
  /// Whether `end` holds, unchanged, an answer the post sent to a request like `row`'s.
  bool delivered(const test::CommandRow& row, const test::ClientEnd& end) const {
    const auto& sent = post->sentAnswers();
    return !end.error && end.frame.size() > 1 && end.frame[1] == row.code &&
           std::find(sent.begin(), sent.end(), end.frame) != sent.end();
  }
  std::shared_ptr<sim::VirtualPost> post;
  std::unique_ptr<ChargerClient> client;
  std::shared_ptr<TQBleManagerDelegate> watcher = std::make_shared<TQBleManagerDelegate>();
  MainQueue::Clock::time_point connected;
};

// ---- Around the manager's own query, 3 s after connecting ------------------------------

struct Moment {
  const char* name;
  std::chrono::milliseconds at;  // after connecting
  std::chrono::milliseconds late;  // the answer's first piece held back
};
const Moment kMoments[] = {
    {"At2900ms", 2900ms, 0ms}, {"At3000ms", 3000ms, 0ms}, {"At3100ms", 3100ms, 0ms},
    {"At2600msStillInFlightAt3s", 2600ms, 600ms}};

class AroundTheManagersQuery : public testing::TestWithParam<std::tuple<Moment, std::size_t>> {};

TEST_P(AroundTheManagersQuery, EachRequestGetsItsOwnAnswerAndTheQueryIsAbsorbed) {
  const auto& [moment, index] = GetParam();
  const auto& row = shape(index);
  Session s;
  auto& manager = s.client->manager();
  s.client->runUntil([] { return false; },
                     std::chrono::duration_cast<std::chrono::milliseconds>(
                         s.connected + moment.at - MainQueue::main().now()));
  s.post->faults().lateNotifications = {{0, moment.late}};
  EXPECT_TRUE(s.delivered(row, s.ask(row)));
  s.post->faults().lateNotifications.clear();
  s.client->runUntil([&] { return manager.systemInfoModelList().size() == 10; }, 10s);
  ASSERT_EQ(manager.systemInfoModelList().size(), 10u);
  EXPECT_EQ(manager.systemInfoModelList()[2]->content, "Velmora");
  EXPECT_EQ(manager.cmdType(), 0);
  EXPECT_TRUE(s.delivered(row, s.ask(row)));
  EXPECT_EQ(manager.systemInfoModelList().size(), 10u);
}

INSTANTIATE_TEST_SUITE_P(Client, AroundTheManagersQuery,
                         testing::Combine(testing::ValuesIn(kMoments), testing::Range<std::size_t>(0, 6)),
                         [](const auto& info) {
                           return std::get<0>(info.param).name + std::to_string(std::get<1>(info.param));
                         });

// ---- The post's faults ----------------------------------------------------------------

struct Fault {
  const char* name;
  void (*apply)(sim::Faults&);
  int lostFrom;  // the first piece that never arrives in time, -1: none
};
const Fault kFaults[] = {
    {"OneBytePieces", [](sim::Faults& f) { f.chunkSizes.assign(200, 1); }, -1},
    {"Pieces3And7And11", [](sim::Faults& f) { f.chunkSizes = {3, 7, 11}; }, -1},
    {"Pieces8And12", [](sim::Faults& f) { f.chunkSizes = {8, 12}; }, -1},
    {"Pieces19And1", [](sim::Faults& f) { f.chunkSizes = {19, 1}; }, -1},
    {"OnePieceOf512", [](sim::Faults& f) { f.chunkSizes = {512}; }, -1},
    {"TailAfterTheTimeOut", [](sim::Faults& f) { f.lateNotifications = {{1, 1500ms}}; }, 1},
    {"FirstPieceLost", [](sim::Faults& f) { f.lostNotifications = {0}; }, 0},
    {"SecondPieceLost", [](sim::Faults& f) { f.lostNotifications = {1}; }, 1},
};

class UnderFault : public testing::TestWithParam<std::tuple<Fault, std::size_t>> {};

TEST_P(UnderFault, GivesThePostsTrueAnswerOrATimeOutAndTheNextRequestItsOwn) {
  const auto& [fault, index] = GetParam();
  const auto& row = shape(index);
  Session s({.connectTimeout = 10s, .requestTimeout = 1s, .reconnect = {}});
  for (int i = 0; i < 3; ++i) s.post->model().addError({1'699'800'000 + i, 4});
  s.client->runUntil([] { return false; }, 4s);
  fault.apply(s.post->faults());
  const bool onePiece = row.resultType >= 0;  // an acknowledgement
  const auto end = s.ask(row);
  if (fault.lostFrom == 0 || (fault.lostFrom == 1 && !onePiece))
    EXPECT_EQ(end.error ? end.error->kind : ClientErrorKind::NotFound, ClientErrorKind::TimedOut);
  else
    EXPECT_TRUE(s.delivered(row, end)) << (end.error ? end.error->message : "");
  s.post->faults() = {};
  // What the fault left behind reaches no request.
  EXPECT_TRUE(s.delivered(shape(index + 1), s.ask(shape(index + 1))));
  EXPECT_TRUE(s.delivered(row, s.ask(row)));
}

INSTANTIATE_TEST_SUITE_P(Client, UnderFault,
                         testing::Combine(testing::ValuesIn(kFaults), testing::Range<std::size_t>(0, 6)),
                         [](const auto& info) {
                           return std::get<0>(info.param).name + std::to_string(std::get<1>(info.param));
                         });

TEST(ClientLink, AnAdapterPowerCycleMidRequestReadsLostAndTheLinkComesBack) {
  Session s({.connectTimeout = 10s, .requestTimeout = 5s, .reconnect = {3, 500ms}});
  s.post->faults().lateNotifications = {{0, 200ms}};
  std::optional<ClientErrorKind> cut;
  shape(1).ask(*s.client, [&](const auto& e, const Bytes&) { cut = e ? e->kind : ClientErrorKind::NotFound; });
  s.client->runUntil([] { return false; }, 100ms);
  sim::SimRadio::shared().setPowered(false);
  s.client->runUntil([&] { return cut.has_value(); }, 1s);
  EXPECT_EQ(cut, ClientErrorKind::LinkLost);
  EXPECT_FALSE(s.client->ready());
  s.client->runUntil([] { return false; }, 2s);  // no attempt while the adapter is off
  EXPECT_FALSE(s.client->ready());
  s.post->faults() = {};
  sim::SimRadio::shared().setPowered(true);
  ASSERT_TRUE(s.client->runUntil([&] { return s.client->ready(); }, 5s));
  EXPECT_TRUE(s.delivered(shape(1), s.ask(shape(1))));
}

TEST(ClientLink, APostNamingItsAttributesInLowerCaseSaysSo) {
  MainQueue::main().useVirtualClock();
  TQBleManager::useBackend("sim");
  sim::SimRadio::shared().addPost()->faults().lowerCaseIdentifiers = {"FFF0", "FFF4"};
  ChargerClient client({.connectTimeout = 2s, .requestTimeout = 5s, .reconnect = {}});
  std::optional<Outcome<ChargerClient::PeripheralPtr>> link;
  client.connect("", [&](const auto& o) { link = o; });
  client.runUntil([&] { return link.has_value(); }, 5s);
  ASSERT_TRUE(link && !link->ok());
  EXPECT_EQ(link->error().message,
            "the link did not become ready in time (the post names its attributes in lower "
            "case: fff0)");
}

}  // namespace
}  // namespace tqble
