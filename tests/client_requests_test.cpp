// Requests against the virtual post on virtual time: each answer reaches its own request
// around the manager's own query after connecting, and under every way the post cuts,
// delays or loses its answers.
#include <gtest/gtest.h>

#include "support/Hex.h"
#include "tqble/client/ChargerClient.h"
#include "tqble/platform/MainQueue.h"
#include "tqble/sim/SimRadio.h"

namespace tqble {
namespace {

using namespace std::chrono_literals;

// One request of each answer shape, and what of its answer tells it from another.
struct Ask {
  const char* name;
  void (*issue)(ChargerClient&, std::function<void(std::string)> done);
  bool onePiece = false;  // the answer fits one notification
};

template <typename T>
std::function<void(const Outcome<T>&)> summarise(std::function<void(std::string)> done,
                                                 std::string (*what)(const T&)) {
  return [done, what](const Outcome<T>& o) {
    done(o.ok() ? what(o.value()) : std::string("error: ") + describe(o.error().kind));
  };
}

const Ask kAsks[] = {
    {"Volume",
     [](ChargerClient& c, auto done) {
       c.setVolume(35, summarise<SettingResult>(done, [](const SettingResult& r) {
         return std::string(r.accepted() ? "accepted" : "refused");
       }));
     },
     true},
    {"State",
     [](ChargerClient& c, auto done) {
       c.queryChargerState(summarise<ChargerState>(done, [](const ChargerState& s) {
         return s.data.gunStatus.value_or("") + " " + std::to_string(s.data.voltage);
       }));
     }},
    {"SystemInfo",
     [](ChargerClient& c, auto done) {
       c.querySystemInfo(summarise<SystemInfo>(done, [](const SystemInfo& i) {
         return i[2].content + " " + i[5].content + " " + i[9].content;
       }));
     }},
    {"History",
     [](ChargerClient& c, auto done) {
       c.queryHistory(summarise<ChargingHistory>(done, [](const ChargingHistory& h) {
         std::string serials;
         for (const auto& e : h) serials += e.serialNumber.value_or("?") + ",";
         return serials;
       }));
     }},
    {"ErrorLog",
     [](ChargerClient& c, auto done) {
       c.queryErrorLog(summarise<ErrorLog>(done, [](const ErrorLog& l) {
         return std::to_string(l.size()) + " " + (l.empty() ? "" : *l[0].date);
       }));
     }},
    {"Diagnostics",
     [](ChargerClient& c, auto done) {
       c.queryDiagnostics(summarise<TQBleRunDiagnosticInfo>(
           done, [](const TQBleRunDiagnosticInfo& d) { return *d.versionNum + *d.chargeState; }));
     }},
};

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
  std::string ask(const Ask& a) {
    std::optional<std::string> outcome;
    a.issue(*client, [&](std::string s) { outcome = std::move(s); });
    client->runUntil([&] { return outcome.has_value(); }, 30s);
    return outcome.value_or("never ended");
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

class AroundTheManagersQuery : public testing::TestWithParam<std::tuple<Moment, Ask>> {};

TEST_P(AroundTheManagersQuery, EachRequestGetsItsOwnAnswerAndTheQueryIsAbsorbed) {
  const auto& [moment, ask] = GetParam();
  Session s;
  auto& manager = s.client->manager();
  s.client->runUntil([] { return false; },
                     std::chrono::duration_cast<std::chrono::milliseconds>(
                         s.connected + moment.at - MainQueue::main().now()));
  s.post->faults().lateNotifications = {{0, moment.late}};
  const std::string around = s.ask(ask);
  s.post->faults().lateNotifications.clear();
  s.client->runUntil([&] { return manager.systemInfoModelList().size() == 10; }, 10s);
  ASSERT_EQ(manager.systemInfoModelList().size(), 10u);
  EXPECT_EQ(manager.systemInfoModelList()[2]->content, "Velmora");
  EXPECT_EQ(manager.cmdType(), 0);
  const std::string later = s.ask(ask);
  EXPECT_EQ(later.find("error"), std::string::npos) << later;
  EXPECT_EQ(around, later);
  EXPECT_EQ(manager.systemInfoModelList().size(), 10u);
}

INSTANTIATE_TEST_SUITE_P(Client, AroundTheManagersQuery,
                         testing::Combine(testing::ValuesIn(kMoments), testing::ValuesIn(kAsks)),
                         [](const auto& info) {
                           return std::string(std::get<0>(info.param).name) +
                                  std::get<1>(info.param).name;
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

class UnderFault : public testing::TestWithParam<std::tuple<Fault, Ask>> {};

TEST_P(UnderFault, GivesThePostsTrueAnswerOrATimeOutAndTheNextRequestItsOwn) {
  const auto& [fault, ask] = GetParam();
  Session s({.connectTimeout = 10s, .requestTimeout = 1s});
  for (int i = 0; i < 3; ++i) s.post->model().addError({1'699'800'000 + i, 4});
  s.client->runUntil([] { return false; }, 4s);
  const std::string expected = s.ask(ask);
  ASSERT_EQ(expected.find("error"), std::string::npos) << expected;

  fault.apply(s.post->faults());
  const bool lost = fault.lostFrom == 0 || (fault.lostFrom == 1 && !ask.onePiece);
  EXPECT_EQ(s.ask(ask), lost ? "error: timed out" : expected);
  s.post->faults() = {};
  // What the fault left behind reaches no request.
  const Ask& other = kAsks[(&ask - kAsks + 1) % std::size(kAsks)];
  const std::string otherExpected = s.ask(other);
  EXPECT_EQ(otherExpected.find("error"), std::string::npos) << otherExpected;
  EXPECT_EQ(s.ask(ask), expected);
}

INSTANTIATE_TEST_SUITE_P(Client, UnderFault,
                         testing::Combine(testing::ValuesIn(kFaults), testing::ValuesIn(kAsks)),
                         [](const auto& info) {
                           return std::string(std::get<0>(info.param).name) +
                                  std::get<1>(info.param).name;
                         });

}  // namespace
}  // namespace tqble

namespace tqble {
namespace {

TEST(ClientLink, AnAdapterPowerCycleMidRequestReadsLostAndTheLinkComesBack) {
  Session s({.connectTimeout = 10s, .requestTimeout = 5s, .reconnect = {3, 500ms}});
  s.post->faults().lateNotifications = {{0, 200ms}};
  std::optional<std::string> cut;
  kAsks[1].issue(*s.client, [&](std::string o) { cut = std::move(o); });
  s.client->runUntil([] { return false; }, 100ms);
  sim::SimRadio::shared().setPowered(false);
  s.client->runUntil([&] { return cut.has_value(); }, 1s);
  EXPECT_EQ(cut, "error: link lost");
  EXPECT_FALSE(s.client->ready());
  s.client->runUntil([] { return false; }, 2s);  // no attempt while the adapter is off
  EXPECT_FALSE(s.client->ready());
  s.post->faults() = {};
  sim::SimRadio::shared().setPowered(true);
  ASSERT_TRUE(s.client->runUntil([&] { return s.client->ready(); }, 5s));
  EXPECT_EQ(s.ask(kAsks[1]).find("error"), std::string::npos);
}

TEST(ClientLink, APostNamingItsAttributesInLowerCaseSaysSo) {
  MainQueue::main().useVirtualClock();
  TQBleManager::useBackend("sim");
  sim::SimRadio::shared().addPost()->faults().lowerCaseIdentifiers = {"FFF0", "FFF4"};
  ChargerClient client({.connectTimeout = 2s});
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
