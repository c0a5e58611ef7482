// Answer reception end to end: the post's answers cut into notifications in many ways,
// against each end-of-answer rule, counting delegate calls and dispatches.
#include <gtest/gtest.h>

#include "support/SimSession.h"

namespace tqble {
namespace {

using test::SimSession;
using namespace std::chrono_literals;
constexpr auto none = std::nullopt;

struct SplitCase {
  const char* name;
  void (*command)(TQBleManager&);
  void (*prepare)(sim::PostModel&);
  std::vector<std::size_t> chunkSizes;  // as the post cuts the answer
  std::set<std::size_t> lost;
  std::size_t delegateCalls;              // one per notification that arrives
  std::optional<std::size_t> dispatched;  // length of the one dispatched answer, if any
  std::int64_t tagAfter;
  std::size_t bufferAfter;
};

void systemInfo(TQBleManager& m) {
  m.querySystemInfoWithError(nullptr);
}
void history(TQBleManager& m) {
  m.queryHistoryChargingListWithError(nullptr);
}
void state(TQBleManager& m) {
  m.queryChargerStateWithError(nullptr);
}
void energy(TQBleManager& m) {
  m.queryCumulationElecQuantityWithError(nullptr);
}
void diagnosis(TQBleManager& m) {
  m.runningDiagnosticInfoWithError(nullptr);
}
void errorLog(TQBleManager& m) {
  m.queryHistoryErrorLogListWithError(nullptr);
}

void nothing(sim::PostModel&) {}
void twoSessions(sim::PostModel& p) {
  p.addHistory({1001, 100, 0, 3600, 3600});
  p.addHistory({1002, 200, 7200, 10800, 3600});
}
void twoErrors(sim::PostModel& p) {
  p.addError({0, 1});
  p.addError({60, 8});
}
void inFault(sim::PostModel& p) {
  p.raiseFault(sim::FaultOverVoltage);
}

class AnswerSplit : public testing::TestWithParam<SplitCase> {};

TEST_P(AnswerSplit, CompletesByItsRuleOrWaits) {
  const SplitCase& c = GetParam();
  SimSession s;
  s.connectAndSettle();
  c.prepare(s.post->model());
  s.post->faults().chunkSizes = c.chunkSizes;
  s.post->faults().lostNotifications = c.lost;
  s.command(c.command);
  EXPECT_EQ(s.log.updates.size(), c.delegateCalls);
  EXPECT_EQ(s.tappedSizes(),
            c.dispatched ? std::vector{*c.dispatched} : std::vector<std::size_t>{});
  EXPECT_EQ(s.manager->cmdType(), c.tagAfter);
  EXPECT_EQ(s.manager->systemInfoData().size(), c.bufferAfter);
}

INSTANTIATE_TEST_SUITE_P(
    Reception, AnswerSplit,
    testing::Values(
        SplitCase{"SystemInfoWhole", systemInfo, nothing, {}, {}, 4, 67, 0, 0},
        SplitCase{"SystemInfoMissingAPiece", systemInfo, nothing, {}, {1}, 3, none, 2, 47},
        SplitCase{"HistoryEndingShort", history, twoSessions, {20, 20, 5, 5}, {}, 4, 45, 0, 0},
        SplitCase{"HistoryEndingFull", history, twoSessions, {20, 20, 10}, {2}, 2, none, 8, 40},
        SplitCase{"StateInTwoPieces", state, nothing, {}, {}, 2, 26, 0, 0},
        SplitCase{"StateOfThirteenBytes", state, nothing, {13, 13}, {1}, 1, none, 6, 13},
        SplitCase{"StateOfAFault", state, inFault, {}, {}, 1, 12, 0, 0},
        SplitCase{"EnergyWhole", energy, nothing, {}, {}, 1, 13, 0, 0},
        SplitCase{"EnergySplit", energy, nothing, {8, 5}, {}, 2, none, 9, 5},
        SplitCase{"DiagnosticsAt66", diagnosis, nothing, {}, {}, 4, 66, 0, 0},
        SplitCase{"ErrorLogOfTwo", errorLog, twoErrors, {}, {}, 2, 27, 0, 0}),
    test::caseName);

TEST(Reception, AnErrorLogCutShortBeforeItsEntriesMakesTheDecoderThrowOutOfTheCallback) {
  SimSession s;
  s.connectAndSettle();
  twoErrors(s.post->model());
  s.post->faults().chunkSizes = {20, 3, 4};  // the 3-byte piece ends the list at 23 bytes
  s.manager->queryHistoryErrorLogListWithError(nullptr);
  EXPECT_THROW(s.settle(), std::out_of_range) << "the count says two entries, one and a half came";
}

TEST(Reception, EachNotificationHandsTheDelegateAFreshRecordThatOnlyTheCompletingOneFills) {
  SimSession s;
  s.connectAndSettle();
  s.command(state);
  ASSERT_EQ(s.log.updates.size(), 2u);
  EXPECT_NE(s.log.updates[0], s.log.updates[1]);
  EXPECT_EQ(s.log.updates[0]->chargingData, nullptr);
  EXPECT_EQ(s.log.updates[1]->chargingData->gunStatus, "未知");
}

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
  EXPECT_EQ(s.tappedSizes(), std::vector<std::size_t>{67}) << "the automatic query starts over";
  EXPECT_EQ(s.manager->cmdType(), 0);
}

}  // namespace
}  // namespace tqble
