// Requests against the virtual post on virtual time: each answer reaches its own request
// around the manager's own query after connecting, and under every way the post cuts,
// delays or loses its answers.
#include <gtest/gtest.h>

#include "support/ClientSession.h"

namespace tqble {
namespace {

using namespace std::chrono_literals;
using test::ClientSession;

// One request of each answer shape, from the command table.
const char* const kShapes[] = {"setVolumeWithVolumeSize", "queryChargerStateWithError",
                               "querySystemInfoWithError", "queryHistoryChargingListWithError",
                               "queryHistoryErrorLogListWithError", "runningDiagnosticInfoWithError"};
const test::CommandRow& shape(std::size_t i) { return test::commandRow(kShapes[i % std::size(kShapes)]); }

struct Session : ClientSession {
  explicit Session(ClientOptions options = {}) : ClientSession(options) {
    for (std::uint32_t i = 1; i <= 2; ++i)
      post->model().addHistory({i, 1200, 1'699'000'000, 1'699'003'600, 3600});
    EXPECT_TRUE(connect().ok());
  }
};

// ---- Around the manager's own query, 3 s after each connection ---------------------------
// A link lost before it leaves that query to go out on the next link, beside that link's own.

struct Moment {
  const char* name;
  std::chrono::milliseconds at;  // after connecting
  std::chrono::milliseconds late;  // the answer's first piece held back
};
const Moment kMoments[] = {
    {"At2900ms", 2900ms, 0ms}, {"At3000ms", 3000ms, 0ms}, {"At3100ms", 3100ms, 0ms},
    {"At2600msStillInFlightAt3s", 2600ms, 600ms}};

class AroundTheManagersQuery : public testing::TestWithParam<std::tuple<Moment, std::size_t, bool>> {};

TEST_P(AroundTheManagersQuery, EachRequestGetsItsOwnAnswerAndTheQueryIsAbsorbed) {
  const auto& [moment, index, relinked] = GetParam();
  const auto& row = shape(index);
  Session s({.connectTimeout = 10s, .requestTimeout = 5s, .reconnect = {1, 300ms}});
  auto& manager = s.client->manager();
  const auto first = s.connected;
  if (relinked) {
    s.runUntil(first + 1s);
    s.post->dropLink();
    ASSERT_TRUE(s.client->runUntil([&] { return s.client->ready(); }, 2s));
  }
  s.runUntil(first + moment.at);
  s.post->faults().lateNotifications = {{0, moment.late}};
  EXPECT_TRUE(s.delivered(row, s.ask(row)));
  s.post->faults().lateNotifications.clear();
  // Past every query the manager sent by itself, and their answers.
  s.client->runUntil([&] { return s.now() > s.connected + 3100ms && s.nothingPending(); }, 10s);
  ASSERT_EQ(manager.systemInfoModelList().size(), 10u);
  EXPECT_EQ(manager.systemInfoModelList()[2]->content, "Velmora");
  EXPECT_TRUE(s.delivered(row, s.ask(row)));
  EXPECT_EQ(manager.systemInfoModelList().size(), 10u);
}

INSTANTIATE_TEST_SUITE_P(Client, AroundTheManagersQuery,
                         testing::Combine(testing::ValuesIn(kMoments), testing::Range<std::size_t>(0, 6),
                                          testing::Bool()),
                         [](const auto& info) {
                           return std::get<0>(info.param).name + std::to_string(std::get<1>(info.param)) +
                                  (std::get<2>(info.param) ? "Relinked" : "");
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
  s.runFor(4s);
  fault.apply(s.post->faults());
  const bool onePiece = row.resultType >= 0;  // an acknowledgement
  const auto end = s.ask(row);
  if (fault.lostFrom == 0 || (fault.lostFrom == 1 && !onePiece)) {
    EXPECT_EQ(end.error ? end.error->kind : ClientErrorKind::NotFound, ClientErrorKind::TimedOut);
    EXPECT_TRUE(s.nothingPending());
  } else {
    EXPECT_TRUE(s.delivered(row, end)) << (end.error ? end.error->message : "");
  }
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
  auto cut = s.client->queryChargerState();
  s.runFor(100ms);
  s.links.clear();
  sim::SimRadio::shared().setPowered(false);
  EXPECT_EQ(s.client->wait(cut).error().kind, ClientErrorKind::LinkLost);
  EXPECT_FALSE(s.client->ready());
  s.runFor(2s);  // no attempt while the adapter is off
  EXPECT_FALSE(s.client->ready());
  s.post->faults() = {};
  sim::SimRadio::shared().setPowered(true);
  ASSERT_TRUE(s.client->runUntil([&] { return s.client->ready(); }, 5s));
  EXPECT_TRUE(s.delivered(shape(1), s.ask(shape(1))));
  EXPECT_EQ(s.links, (std::vector<std::string>{
                         "lost (the link went down (the Bluetooth adapter is powered off))",
                         "reconnecting 1", "ready"}));
}

TEST(ClientLink, APostNamingItsAttributesInLowerCaseSaysSo) {
  ClientSession s({.connectTimeout = 2s, .requestTimeout = 5s, .reconnect = {}});
  s.post->faults().lowerCaseIdentifiers = {"FFF0", "FFF4"};
  const auto link = s.connect();
  ASSERT_FALSE(link.ok());
  EXPECT_EQ(link.error().message,
            "the link did not become ready in time (the post names its attributes in lower "
            "case: fff0)");
}

}  // namespace
}  // namespace tqble
