// Answer reception end to end: the post's answers cut into notifications in many ways,
// against each end-of-answer rule, counting delegate calls and dispatches.
#include <gtest/gtest.h>

#include "support/Hex.h"
#include "support/LogCapture.h"
#include "support/SimSession.h"

namespace tqble {
namespace {

using test::LogCapture;
using test::SimSession;
using namespace std::chrono_literals;

using Command = void (*)(TQBleManager&);

struct SplitCase {
  const char* name;
  Command command;
  void (*prepare)(sim::VirtualPost&);
  std::vector<std::size_t> chunkSizes;  // as the post cuts the answer
  std::set<std::size_t> lost;
  std::size_t delegateCalls;            // one per notification that arrives
  std::optional<std::size_t> dispatched;  // length of the one dispatched answer, if any
  std::int64_t tagAfter;
  std::size_t bufferAfter;
};

void PrintTo(const SplitCase& c, std::ostream* os) { *os << c.name; }

void systemInfo(TQBleManager& m) { m.querySystemInfoWithError(nullptr); }
void history(TQBleManager& m) { m.queryHistoryChargingListWithError(nullptr); }
void state(TQBleManager& m) { m.queryChargerStateWithError(nullptr); }
void energy(TQBleManager& m) { m.queryCumulationElecQuantityWithError(nullptr); }
void diagnosis(TQBleManager& m) { m.runningDiagnosticInfoWithError(nullptr); }
void errorLog(TQBleManager& m) { m.queryHistoryErrorLogListWithError(nullptr); }

void nothing(sim::VirtualPost&) {}
void oneSession(sim::VirtualPost& p) {
  p.model().addHistory({1001, 100, 0, 3600, 3600});
}
void twoSessions(sim::VirtualPost& p) {
  oneSession(p);
  p.model().addHistory({1002, 200, 7200, 10800, 3600});
}
void twelveSessions(sim::VirtualPost& p) {
  for (std::uint32_t i = 0; i < 12; ++i) p.model().addHistory({1001 + i, 100, 0, 60, 60});
}
void twoErrors(sim::VirtualPost& p) {
  p.model().addError({0, 1});
  p.model().addError({60, 8});
}
void inFault(sim::VirtualPost& p) { p.model().raiseFault(sim::FaultOverVoltage); }

class AnswerSplit : public testing::TestWithParam<SplitCase> {};

TEST_P(AnswerSplit, CompletesByItsRuleOrWaits) {
  const SplitCase& c = GetParam();
  SimSession s;
  s.connectAndSettle();
  c.prepare(*s.post);
  s.post->faults().chunkSizes = c.chunkSizes;
  s.post->faults().lostNotifications = c.lost;
  c.command(*s.manager);
  s.settle();
  EXPECT_EQ(s.log.updates.size(), c.delegateCalls);
  if (c.dispatched) {
    ASSERT_EQ(s.tapped.size(), 1u);
    EXPECT_EQ(s.tapped[0].answer.size(), *c.dispatched);
  } else {
    EXPECT_TRUE(s.tapped.empty());
  }
  EXPECT_EQ(s.manager->cmdType(), c.tagAfter);
  EXPECT_EQ(s.manager->systemInfoData().size(), c.bufferAfter);
}

INSTANTIATE_TEST_SUITE_P(
    Reception, AnswerSplit,
    testing::Values(
        SplitCase{"SystemInfoInFourPieces", systemInfo, nothing, {}, {}, 4, 67, 0, 0},
        SplitCase{"SystemInfoMissingAPiece", systemInfo, nothing, {}, {1}, 3, std::nullopt, 2, 47},
        SplitCase{"SystemInfoInSevenPieces", systemInfo, nothing, {10, 10, 10, 10, 10, 10, 7}, {}, 7, 67, 0, 0},
        SplitCase{"HistoryEndsOnAShortPiece", history, twoSessions, {20, 20, 5, 5}, {}, 4, 45, 0, 0},
        SplitCase{"HistoryOfOneSession", history, oneSession, {}, {}, 2, 31, 0, 0},
        SplitCase{"HistoryEndingOnAFullPieceWaits", history, twoSessions, {20, 20, 10}, {2}, 2, std::nullopt, 8, 40},
        SplitCase{"EmptyHistory", history, nothing, {}, {}, 1, 12, 0, 0},
        SplitCase{"TwelveSessionsGetATrailingByte", history, twelveSessions, {}, {}, 13, 241, 0, 0},
        SplitCase{"StateInTwoPieces", state, nothing, {}, {}, 2, 26, 0, 0},
        SplitCase{"StateOfThirteenBytesNeverEnds", state, nothing, {13, 13}, {1}, 1, std::nullopt, 6, 13},
        SplitCase{"FaultAnswerAtOnce", state, inFault, {}, {}, 1, 12, 0, 0},
        SplitCase{"EnergyInOnePiece", energy, nothing, {}, {}, 1, 13, 0, 0},
        SplitCase{"EnergySplitNeverEnds", energy, nothing, {8, 5}, {}, 2, std::nullopt, 9, 5},
        SplitCase{"DiagnosticsAtSixtySixBytes", diagnosis, nothing, {}, {}, 4, 66, 0, 0},
        SplitCase{"ErrorLogOfTwoEntries", errorLog, twoErrors, {}, {}, 2, 27, 0, 0},
        SplitCase{"EmptyErrorLog", errorLog, nothing, {}, {}, 1, 11, 0, 0}),
    [](const auto& info) { return info.param.name; });

TEST(Reception, AHistoryEndingOnAFullPieceWaitsForTheNextNotification) {
  SimSession s;
  s.connectAndSettle();
  twelveSessions(*s.post);
  s.post->faults().allowTwentyByteTail = true;
  s.manager->queryHistoryChargingListWithError(nullptr);
  s.settle();
  EXPECT_EQ(s.log.updates.size(), 12u);
  EXPECT_TRUE(s.tapped.empty());
  EXPECT_EQ(s.manager->systemInfoData().size(), 240u);
  // The next answer of any kind finishes it: here the cumulative energy's 13 bytes.
  s.manager->queryCumulationElecQuantityWithError(nullptr);
  s.manager->setCmdType(8);
  s.settle();
  ASSERT_EQ(s.tapped.size(), 1u);
  EXPECT_EQ(s.tapped[0].answer.size(), 253u);
  EXPECT_EQ(s.manager->cmdType(), 0);
}

TEST(Reception, AnErrorLogCutShortBeforeItsEntriesMakesTheDecoderThrowOutOfTheCallback) {
  SimSession s;
  s.connectAndSettle();
  twoErrors(*s.post);
  s.post->faults().chunkSizes = {20, 3, 4};  // the 3-byte piece ends the list at 23 bytes
  s.manager->queryHistoryErrorLogListWithError(nullptr);
  EXPECT_THROW(s.settle(), std::out_of_range) << "the count says two entries, one and a half came";
}

TEST(Reception, TheEnergyRuleCountsOnlyTheLatestPieceAndLogsEachLength) {
  SimSession s;
  s.connectAndSettle();
  s.post->faults().chunkSizes = {8, 5};
  LogCapture log;
  s.manager->queryCumulationElecQuantityWithError(nullptr);
  s.settle();
  EXPECT_EQ(log.lines, (std::vector<std::string>{"获取的累计电量的长度: 8", "获取的累计电量的长度: 5"}));
}

TEST(Reception, DiagnosticsClearTheTagAndGiveTheDelegateAnEmptyRecord) {
  SimSession s;
  s.connectAndSettle();
  s.manager->runningDiagnosticInfoWithError(nullptr);
  s.settle();
  ASSERT_EQ(s.log.updates.size(), 4u);
  for (const auto& model : s.log.updates) {
    EXPECT_EQ(model->result, nullptr);
    EXPECT_EQ(model->chargingData, nullptr);
  }
  EXPECT_EQ(s.manager->cmdType(), 0);
}

TEST(Reception, EachUpdateHandsOverAFreshRecordWhenTheDelegateListens) {
  SimSession s;
  s.connectAndSettle();
  s.manager->queryChargerStateWithError(nullptr);
  s.settle();
  ASSERT_EQ(s.log.updates.size(), 2u);
  EXPECT_NE(s.log.updates[0], s.log.updates[1]);
  EXPECT_EQ(s.log.updates[0]->chargingData, nullptr) << "the first piece completes nothing";
  ASSERT_NE(s.log.updates[1]->chargingData, nullptr);
  EXPECT_EQ(s.log.updates[1]->chargingData->gunStatus, "未知");
}

TEST(Reception, WithoutTheUpdateCallbackTheRecordIsKeptAndFilledByLaterAnswers) {
  SimSession s(/*withUpdates=*/false);
  s.connectAndSettle();
  const auto model = s.manager->dataModel();
  s.post->model().plugIn();
  s.manager->startChargingWithError(nullptr);
  s.settle();
  s.manager->queryChargerStateWithError(nullptr);
  s.settle();
  EXPECT_EQ(s.manager->dataModel(), model);
  ASSERT_NE(model->result, nullptr);
  EXPECT_EQ(model->result->resultType, 0);
  ASSERT_NE(model->chargingData, nullptr);
  EXPECT_EQ(model->chargingData->gunStatus, "正在充电中");
}

TEST(Reception, ACommandIssuedWhileGatheringTakesOverTheBytesAlreadyGathered) {
  SimSession s;
  s.connectAndSettle();
  twoErrors(*s.post);
  s.post->faults().lateNotifications = {{1, 1s}};
  s.manager->queryHistoryErrorLogListWithError(nullptr);
  s.run(100ms);  // the first 20 bytes are in
  EXPECT_EQ(s.manager->systemInfoData().size(), 20u);
  s.post->faults().lateNotifications.clear();
  s.manager->setVolumeWithVolumeSize(35, nullptr);
  s.run(2s);
  // The volume acknowledgement is dispatched at once, with the error log's first piece
  // in front; the error log's late tail then arrives with nothing pending.
  ASSERT_EQ(s.tapped.size(), 1u);
  EXPECT_EQ(s.tapped[0].cmdType, 3);
  EXPECT_EQ(s.tapped[0].answer.size(), 29u);
  EXPECT_EQ(test::spaced(Bytes(s.tapped[0].answer.begin(), s.tapped[0].answer.begin() + 2)), "68 34");
  EXPECT_EQ(s.log.updates.size(), 3u);
  EXPECT_EQ(s.manager->cmdType(), 0);
  EXPECT_TRUE(s.manager->systemInfoData().empty());
}

TEST(Reception, ALateNotificationStillCompletesItsAnswerInOrder) {
  SimSession s;
  s.connectAndSettle();
  s.post->faults().lateNotifications = {{1, 2s}};
  s.manager->querySystemInfoWithError(nullptr);
  s.run(1s);
  EXPECT_EQ(s.log.updates.size(), 1u);
  s.run(2s);
  ASSERT_EQ(s.tapped.size(), 1u);
  EXPECT_EQ(s.tapped[0].answer, s.post->sentAnswers().back());
}

TEST(Reception, ALinkLostMidAnswerLeavesItPendingUntilTheNextConnectionsQuery) {
  SimSession s;
  auto peripheral = s.connectAndSettle();
  s.post->faults().dropLinkAfterNotifications = 2;
  s.manager->querySystemInfoWithError(nullptr);
  s.settle();
  EXPECT_EQ(s.log.updates.size(), 2u);
  EXPECT_EQ(s.log.disconnects.size(), 1u);
  EXPECT_EQ(s.manager->cmdType(), 2);
  EXPECT_EQ(s.manager->systemInfoData().size(), 40u);

  s.manager->startConnectPeripheral(peripheral);
  s.run(4s);
  ASSERT_EQ(s.tapped.size(), 1u) << "the automatic query clears the buffer and starts over";
  EXPECT_EQ(s.tapped[0].answer.size(), 67u);
  EXPECT_EQ(s.manager->cmdType(), 0);
}

TEST(Reception, AMutePostLeavesTheCommandPendingAndTheNextAnswerIsTakenForIt) {
  SimSession s;
  s.connectAndSettle();
  s.post->faults().mute = true;
  s.manager->setVolumeWithVolumeSize(35, nullptr);
  s.settle();
  EXPECT_TRUE(s.log.updates.empty());
  EXPECT_EQ(s.manager->cmdType(), 3);
  EXPECT_EQ(s.post->model().volume(), 35) << "the post applied it, it just did not answer";
}

}  // namespace
}  // namespace tqble
