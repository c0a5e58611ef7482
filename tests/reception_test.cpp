// The manager end to end through the simulator: discovery of the post's service and
// characteristics; answers cut into notifications in many ways against each end-of-answer
// rule, counting delegate calls and dispatches; and observers leaving the answer tap.
#include <gtest/gtest.h>

#include "support/LogCapture.h"
#include "support/SimSession.h"

namespace tqble {
namespace {

using namespace test;
using namespace std::chrono_literals;
using Sizes = std::vector<std::size_t>;

struct SplitCase {
  const char* name;
  void (*command)(TQBleManager&);
  Sizes chunkSizes;  // as the post cuts the answer; empty: the post's own cut
  std::set<std::size_t> lost;
  std::size_t delegateCalls;  // one per notification that arrives
  Sizes dispatched;           // lengths of the answers dispatched
  std::int64_t tagAfter;
  std::size_t bufferAfter;
};

class AnswerSplit : public testing::TestWithParam<SplitCase> {};

TEST_P(AnswerSplit, CompletesByItsRuleOrWaits) {
  const SplitCase& c = GetParam();
  SimSession s;
  s.connectAndSettle();
  s.post->model().addHistory({1001, 100, 0, 3600, 3600});
  s.post->model().addHistory({1002, 200, 7200, 10800, 3600});
  s.post->faults().chunkSizes = c.chunkSizes;
  s.post->faults().lostNotifications = c.lost;
  s.command(c.command);
  EXPECT_EQ(s.log.updates.size(), c.delegateCalls);
  EXPECT_EQ(std::set(s.log.updates.begin(), s.log.updates.end()).size(), c.delegateCalls)
      << "each notification hands the delegate a fresh record";
  EXPECT_EQ(s.log.tappedSizes(), c.dispatched);
  EXPECT_EQ(s.manager->cmdType(), c.tagAfter);
  EXPECT_EQ(s.manager->systemInfoData().size(), c.bufferAfter);
}

// Each answer whole, in the post's own cut, is the end-to-end suite's.
// clang-format off
INSTANTIATE_TEST_SUITE_P(Reception, AnswerSplit, testing::Values(
    SplitCase{"SystemInfoMissingAPiece",  systemInfo, {},              {1}, 3, {},   2, 47},
    SplitCase{"HistoryEndingShort",       history,    {20, 20, 5, 5},  {},  4, {45}, 0, 0},   // ends at 20+20+5
    SplitCase{"HistoryEndingFull",        history,    {20, 20, 10},    {2}, 2, {},   8, 40},
    SplitCase{"StateOfThirteenBytes",     state,      {13, 13},        {1}, 1, {},   6, 13},
    SplitCase{"EnergySplit",              energy,     {8, 5},          {},  2, {},   9, 5}),
    caseName);
// clang-format on

TEST(Reception, WithoutTheUpdateCallbackTheRecordIsKeptAndFilledByLaterAnswers) {
  SimSession s(/*withUpdates=*/false);
  s.connectAndSettle();
  const auto model = s.manager->dataModel();
  s.post->model().plugIn();
  s.command([](TQBleManager& m) { m.startChargingWithError(nullptr); });
  s.command(state);
  EXPECT_EQ(s.manager->dataModel(), model);
  EXPECT_EQ(model->result->resultType, 0);
  EXPECT_EQ(model->chargingData->gunStatus, "正在充电中");
}

TEST(Reception, ALinkLostMidAnswerLeavesItPendingUntilTheNextConnectionsQuery) {
  SimSession s;
  auto peripheral = s.connectAndSettle();
  s.post->faults().dropLinkAfterNotifications = 2;
  s.command(systemInfo);
  EXPECT_EQ(s.log.updates.size(), 2u);
  EXPECT_EQ(s.manager->cmdType(), 2);
  EXPECT_EQ(s.manager->systemInfoData().size(), 40u);
  s.manager->startConnectPeripheral(peripheral);
  s.run(4s);
  EXPECT_EQ(s.log.tappedSizes(), Sizes{67}) << "the automatic query starts over";
  EXPECT_EQ(s.manager->cmdType(), 0);
}

// Every suite's recorder taps each answer with its tag; here, observers leaving.
TEST(AnswerTap, AnObserverMayRemoveItselfFromWithinAndARemovedOneHearsNothing) {
  SimSession s;
  s.connectAndSettle();
  int selfRemoving = 0, other = 0;
  std::uint64_t self = 0;
  self = s.manager->addAnswerObserver(
      [&](std::int64_t, const Bytes&) { ++selfRemoving, s.manager->removeAnswerObserver(self); });
  const auto token = s.manager->addAnswerObserver([&](std::int64_t, const Bytes&) { ++other; });
  s.command(state), s.command(stopCharge);
  EXPECT_EQ(std::pair(selfRemoving, other), std::pair(1, 2)) << "the next observer is called all the same";
  s.manager->removeAnswerObserver(token);
  s.manager->removeAnswerObserver(token + 100);  // unknown: ignored
  s.command(state);
  EXPECT_EQ(other, 2);
  EXPECT_EQ(s.tapped.size(), 3u) << "the session's own tap stays";
}

using Lines = std::vector<std::string>;

struct FoundCase {
  const char* name;
  void (*prepare)(sim::Faults&);
  bool readKnown, writeKnown;
  test::Errors readErrors;  // what the initial read reports, once
};

constexpr auto none = std::nullopt;
const TQError kReadError{"Reading failed.", 14, {}};

class Characteristics : public testing::TestWithParam<FoundCase> {};

// The initial read reports to the delegate once. With either characteristic missing no
// answer is heard (without the write one, commands fail locally: the command table's test).
TEST_P(Characteristics, AreStoredInEitherOrderOnlyByUpperCaseIdentifier) {
  const FoundCase& c = GetParam();
  SimSession s;
  c.prepare(s.post->faults());
  s.connect();
  EXPECT_EQ(s.manager->readCharacteristic() != nullptr, c.readKnown);
  EXPECT_EQ(s.manager->writeCharacteristic() != nullptr, c.writeKnown);
  EXPECT_EQ(s.log.updateErrors, c.readErrors);
  EXPECT_EQ(s.manager->cmdType(), 0);
  s.manager->queryChargerStateWithError(nullptr);
  s.run(4s);
  EXPECT_EQ(s.tapped.size(), c.readKnown && c.writeKnown ? 2u : 0u) << "the query and the state";
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Discovery, Characteristics, testing::Values(
    FoundCase{"WriteFirst", [](sim::Faults&) {}, true, true, {none}},
    FoundCase{"ReadFirst", [](sim::Faults& f) { f.readCharacteristicFirst = true; }, true, true, {none}},
    FoundCase{"LowerCaseService", [](sim::Faults& f) { f.lowerCaseIdentifiers = {"FFF0"}; }, false, false, {}},
    FoundCase{"LowerCaseRead", [](sim::Faults& f) { f.lowerCaseIdentifiers = {"FFF4"}; }, false, true, {}},
    FoundCase{"LowerCaseWrite", [](sim::Faults& f) { f.lowerCaseIdentifiers = {"FFF3"}; }, true, false, {none}},
    FoundCase{"ReadFails", [](sim::Faults& f) { f.readError = kReadError; }, true, true, {kReadError}}),
    test::caseName);
// clang-format on

struct ErrorCase {
  const char* name;
  std::optional<TQError> sim::Faults::*fault;
  const char* line;
};

class DiscoveryError : public testing::TestWithParam<ErrorCase> {};

TEST_P(DiscoveryError, LogsOnceAndKeepsTheCharacteristicsOfTheEarlierLink) {
  SimSession s;
  auto peripheral = s.connectAndSettle();
  const auto read = s.manager->readCharacteristic();
  const auto write = s.manager->writeCharacteristic();
  s.manager->stopConnectPeripheral(peripheral, nullptr);
  s.run(100ms);
  s.post->faults().*GetParam().fault = TQError{"Discovery failed.", 3, {}};
  LogCapture log;
  s.manager->startConnectPeripheral(peripheral);
  s.run(4s);
  EXPECT_EQ(log.lines, Lines{GetParam().line});
  EXPECT_EQ(s.manager->readCharacteristic(), read);
  EXPECT_EQ(s.manager->writeCharacteristic(), write);
  EXPECT_EQ(s.log.connects, 1);
  EXPECT_TRUE(s.log.disconnects.size() == 1 && s.log.failures.empty()) << "nothing but the stop";
  EXPECT_TRUE(s.tapped.empty()) << "the query went to the earlier link's characteristic";
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Discovery, DiscoveryError, testing::Values(
    ErrorCase{"Services", &sim::Faults::serviceDiscoveryError, "发现服务失败"},
    ErrorCase{"Characteristics", &sim::Faults::characteristicDiscoveryError, "发现特征失败"}),
    test::caseName);
// clang-format on

}  // namespace
}  // namespace tqble
