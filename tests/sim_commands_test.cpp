// Every command from the call to the delegate call, against the virtual post: the exact
// request on the wire, the exact answer, and what the delegate receives.
#include <gtest/gtest.h>

#include "support/Hex.h"
#include "support/SimSession.h"
#include "tqble/AnswerDecoding.h"

namespace tqble {
namespace {

using test::SimSession;
using test::spaced;
using namespace std::chrono_literals;

constexpr std::int64_t kPostTime = 1'700'000'000;  // 2023-11-14 22:13:20 UTC

struct AckCase {
  const char* name;
  void (*call)(TQBleManager&);
  void (*prepare)(sim::PostModel&);
  const char* request;
  const char* answer;
  std::int64_t resultType;
  bool (*applied)(const sim::PostModel&);
};

void PrintTo(const AckCase& c, std::ostream* os) { *os << c.name; }

class Acknowledged : public testing::TestWithParam<AckCase> {};

TEST_P(Acknowledged, CarriesExactBytesBothWaysAndReportsTheResultOnce) {
  const AckCase& c = GetParam();
  SimSession s;
  s.connectAndSettle();
  c.prepare(s.post->model());
  c.call(*s.manager);
  s.settle();
  ASSERT_FALSE(s.post->receivedWrites().empty());
  EXPECT_EQ(spaced(s.post->receivedWrites().back()), c.request);
  ASSERT_EQ(s.tapped.size(), 1u);
  EXPECT_EQ(spaced(s.tapped[0].answer), c.answer);
  ASSERT_EQ(s.log.updates.size(), 1u);
  ASSERT_NE(s.log.updates[0]->result, nullptr);
  EXPECT_EQ(s.log.updates[0]->result->resultType, c.resultType);
  EXPECT_EQ(s.log.updates[0]->chargingData, nullptr);
  EXPECT_TRUE(c.applied(s.post->model()));
  EXPECT_EQ(s.manager->cmdType(), 0);
}

void idle(sim::PostModel&) {}
void plugged(sim::PostModel& m) { m.plugIn(); }
void charging(sim::PostModel& m) {
  m.plugIn();
  m.startCharging();
}

INSTANTIATE_TEST_SUITE_P(
    Commands, Acknowledged,
    testing::Values(
        AckCase{"Volume", [](TQBleManager& m) { m.setVolumeWithVolumeSize(35, nullptr); }, idle,
                "68 B2 00 00 01 00 00 EE 35", "68 B2 00 00 01 00 00 DB 00", 0,
                [](const sim::PostModel& m) { return m.volume() == 35; }},
        AckCase{"VolumeOfOneDigitIsRefused", [](TQBleManager& m) { m.setVolumeWithVolumeSize(7, nullptr); },
                idle, "68 B2 00 00 00 00 00 DA", "68 B2 00 00 01 00 00 DA 01", 1,
                [](const sim::PostModel& m) { return m.volume() == 5; }},
        AckCase{"VolumeHundredArrivesAsTen",
                [](TQBleManager& m) { m.setVolumeWithVolumeSize(100, nullptr); }, idle,
                "68 B2 00 00 01 00 00 CB 10", "68 B2 00 00 01 00 00 DB 00", 0,
                [](const sim::PostModel& m) { return m.volume() == 10; }},
        AckCase{"Reservation",
                [](TQBleManager& m) { m.orderChargerWithStartHour(22, 30, 6, 0, nullptr); }, idle,
                "68 B3 00 00 05 00 00 D1 01 16 1E 06 00", "68 B3 00 00 01 00 00 DA 00", 0,
                [](const sim::PostModel& m) {
                  return m.reservation() && m.reservation()->startHour == 22 &&
                         m.reservation()->startMinute == 30 && m.reservation()->endHour == 6;
                }},
        AckCase{"ReservationOutOfRangeIsRefused",
                [](TQBleManager& m) { m.orderChargerWithStartHour(25, 0, 6, 0, nullptr); }, idle,
                "68 B3 00 00 05 00 00 C0 01 19 00 06 00", "68 B3 00 00 01 00 00 DB 01", 1,
                [](const sim::PostModel& m) { return !m.reservation(); }},
        AckCase{"StartWhenPlugged", [](TQBleManager& m) { m.startChargingWithError(nullptr); }, plugged,
                "68 B4 00 00 02 00 00 DE 00 00", "68 B4 00 00 01 00 00 DD 00", 0,
                [](const sim::PostModel& m) { return m.gunState() == sim::GunState::Charging; }},
        AckCase{"StartWithoutACarIsRefused", [](TQBleManager& m) { m.startChargingWithError(nullptr); },
                idle, "68 B4 00 00 02 00 00 DE 00 00", "68 B4 00 00 01 00 00 DC 01", 1,
                [](const sim::PostModel& m) { return m.gunState() == sim::GunState::Idle; }},
        AckCase{"Stop", [](TQBleManager& m) { m.stopChargeWithError(nullptr); }, charging,
                "68 B6 00 00 01 00 00 DF 00", "68 B6 00 00 01 00 00 DF 00", 0,
                [](const sim::PostModel& m) {
                  return m.gunState() == sim::GunState::Finished && m.history().size() == 1;
                }},
        AckCase{"StopRefusedStillReadsAsSuccess", [](TQBleManager& m) { m.stopChargeWithError(nullptr); },
                idle, "68 B6 00 00 01 00 00 DF 00", "68 B6 00 00 01 00 00 DE 01", 0,
                [](const sim::PostModel& m) { return m.history().empty(); }}),
    [](const auto& info) { return info.param.name; });

TEST(Commands, TimeSyncSetsThePostClockToThePhonesTime) {
  SimSession s;
  s.connectAndSettle();
  s.manager->synchroTimeWithError(nullptr);
  s.settle();
  const Bytes request = s.post->receivedWrites().back();
  ASSERT_EQ(request.size(), 12u);
  EXPECT_EQ(spaced(Bytes(request.begin(), request.begin() + 7)), "68 B0 00 00 04 00 00");
  const std::int64_t sent = request[8] | request[9] << 8 | request[10] << 16 | std::int64_t{request[11]} << 24;
  EXPECT_EQ(s.post->model().clock(), sent);
  ASSERT_EQ(s.log.updates.size(), 1u);
  EXPECT_EQ(s.log.updates[0]->result->resultType, 0);
}

TEST(Commands, ARefusedTimeSyncLeavesTheClockAndReportsFailure) {
  SimSession s;
  s.connectAndSettle();
  s.post->model().setClock(kPostTime);
  s.post->faults().refuse = {0xB0};
  s.manager->synchroTimeWithError(nullptr);
  s.settle();
  EXPECT_EQ(spaced(s.tapped.at(0).answer), "68 B0 00 00 01 00 00 D8 01");
  EXPECT_LT(s.post->model().clock() - kPostTime, 2);
  EXPECT_EQ(s.log.updates.at(0)->result->resultType, 1);
}

TEST(Commands, AChargingSessionIsReportedAsItGrowsAndEndsInTheHistory) {
  SimSession s;
  s.connectAndSettle();
  auto& post = s.post->model();
  post.setClock(kPostTime);
  post.plugIn();
  s.manager->startChargingWithError(nullptr);
  s.settle();
  s.run(60s - 500ms);  // a minute after the post started
  s.clearLog();

  s.manager->queryChargerStateWithError(nullptr);
  s.run(100ms);
  EXPECT_EQ(spaced(s.post->receivedWrites().back()), "68 B5 00 00 01 00 00 DC 00");
  ASSERT_EQ(s.tapped.size(), 1u);
  EXPECT_EQ(spaced(s.tapped[0].answer),
            "68 B5 00 00 12 00 00 2E 06 01 00 00 01 74 00 98 08 00 00 3E 01 3C 00 00 00 00");
  ASSERT_EQ(s.log.updates.size(), 2u);
  const auto& data = s.log.updates[1]->chargingData;
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(data->gunStatus, "正在充电中");
  EXPECT_EQ(data->serialNumber, "1001");
  EXPECT_EQ(data->elecQuantity, 116u);  // Wh: 7 kW for a minute
  EXPECT_EQ(data->voltage, 2200u);
  EXPECT_EQ(data->electric, 318u);
  EXPECT_EQ(data->duration, 60u);

  s.clearLog();
  s.manager->queryChargingDataWithError(nullptr);  // the same request, read the same way
  s.run(100ms);
  EXPECT_EQ(spaced(s.post->receivedWrites().back()), "68 B5 00 00 01 00 00 DC 00");
  ASSERT_EQ(s.log.updates.size(), 2u);
  EXPECT_EQ(s.log.updates[1]->chargingData->duration, 60u);

  s.manager->stopChargeWithError(nullptr);
  s.settle();
  s.clearLog();
  s.manager->queryHistoryChargingListWithError(nullptr);
  s.settle();
  EXPECT_EQ(spaced(s.post->receivedWrites().back()), "68 B7 00 00 01 00 00 DE 00");
  ASSERT_EQ(s.tapped.size(), 1u);
  EXPECT_EQ(spaced(s.tapped[0].answer),
            "68 B7 00 00 17 00 00 56 00 00 00 01 00 00 03 E9 00 75 00 F1 53 65 3C F1 53 65 3C 00 00 00 00");
  ASSERT_EQ(s.log.updates.size(), 2u);
  EXPECT_EQ(s.log.updates[1]->chargingData, nullptr) << "the history reaches nobody";
  const auto history = decode::chargingHistory(s.tapped[0].answer);
  ASSERT_EQ(history.size(), 1u);
  EXPECT_EQ(history[0].serialNumber, "1001");
  EXPECT_EQ(history[0].elecQuantity, 117u) << "stopped a fifth of a second later";
  EXPECT_EQ(history[0].startTime, "2023-11-14 22:13:20");
  EXPECT_EQ(history[0].endTime, "2023-11-14 22:14:20");
  EXPECT_EQ(history[0].duration, 60u);

  s.clearLog();
  s.manager->queryCumulationElecQuantityWithError(nullptr);
  s.settle();
  EXPECT_EQ(spaced(s.post->receivedWrites().back()), "68 B8 00 00 01 00 00 D1 00");
  EXPECT_EQ(spaced(s.tapped.at(0).answer), "68 B8 00 00 05 00 00 34 35 D5 01 00 00");
  EXPECT_EQ(decode::cumulativeEnergy(s.tapped[0].answer), 120'000 + 117);
  EXPECT_EQ(s.log.updates.size(), 1u);
}

TEST(Commands, AFaultEndsTheSessionAndShowsInStateErrorLogAndDiagnostics) {
  SimSession s;
  s.connectAndSettle();
  auto& post = s.post->model();
  post.setClock(kPostTime);
  charging(post);
  s.run(60s);
  post.raiseFault(sim::FaultOverVoltage);
  s.clearLog();

  s.manager->queryChargerStateWithError(nullptr);
  s.settle();
  EXPECT_EQ(spaced(s.tapped.at(0).answer), "68 B5 00 00 04 00 00 DE 0F 00 08 00");
  ASSERT_EQ(s.log.updates.size(), 1u);
  EXPECT_EQ(s.log.updates[0]->chargingData->gunStatus, "未知");
  EXPECT_EQ(s.log.updates[0]->chargingData->failureReason, "过压");

  s.clearLog();
  s.manager->queryHistoryErrorLogListWithError(nullptr);
  s.settle();
  EXPECT_EQ(spaced(s.post->receivedWrites().back()), "68 34 00 00 03 00 00 5E 01 00 00");
  EXPECT_EQ(spaced(s.tapped.at(0).answer), "68 34 00 00 0B 00 00 AF 00 00 01 3C F1 53 65 02 00 00 00");
  const auto errors = decode::errorLog(s.tapped[0].answer);
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].date, "2023-11-14 22:14:20");
  EXPECT_EQ(errors[0].errorCode, 2u);

  s.clearLog();
  s.manager->runningDiagnosticInfoWithError(nullptr);
  s.settle();
  EXPECT_EQ(spaced(s.post->receivedWrites().back()), "68 32 00 00 01 00 00 5B 00");
  ASSERT_EQ(s.tapped.size(), 1u);
  ASSERT_EQ(s.tapped[0].answer.size(), 66u);
  const auto diagnosis = decode::runningDiagnosis(s.tapped[0].answer);
  EXPECT_EQ(diagnosis.errorInfo, "过压");
  EXPECT_EQ(diagnosis.chargeState, "空闲");
  EXPECT_EQ(diagnosis.voltage, "220V");
  EXPECT_EQ(diagnosis.versionNum, "V1.2.10");
  EXPECT_EQ(diagnosis.elec, "32A");
  EXPECT_EQ(diagnosis.ammeterState, "正常");
  for (const auto& model : s.log.updates) EXPECT_EQ(model->result, nullptr);
}

TEST(Commands, TheSystemInformationShowsWhatTheCommandsChanged) {
  SimSession s;
  s.connectAndSettle();
  s.manager->setSystemInfoModelList(std::nullopt);
  s.manager->setVolumeWithVolumeSize(42, nullptr);
  s.settle();
  s.manager->orderChargerWithStartHour(7, 30, 9, 0, nullptr);
  s.settle();
  s.post->model().setClock(kPostTime);
  s.post->model().plugIn();
  s.manager->querySystemInfoWithError(nullptr);
  s.settle();
  const auto& rows = s.manager->systemInfoModelList();
  ASSERT_EQ(rows.size(), 10u);
  const std::vector<std::string> expected{"获取系统信息", "单枪", "Velmora", "539231765", "1.2",
                                          "1.2.10", "20240615010000010000", "42",
                                          "2023-11-14 22:13:20", "插枪未充电"};
  for (std::size_t i = 0; i < rows.size(); ++i) EXPECT_EQ(rows[i]->content, expected[i]) << "row " << i;
  const auto diagnosis = [&] {
    s.manager->runningDiagnosticInfoWithError(nullptr);
    s.settle();
    return decode::runningDiagnosis(s.tapped.back().answer);
  }();
  EXPECT_EQ(diagnosis.startMode, 1);
  EXPECT_EQ(diagnosis.startTime, "07 : 30");
  EXPECT_EQ(diagnosis.chargeState, "定时预约中");
}

TEST(Commands, APostWithAnotherChecksumSeedIgnoresTheRequests) {
  SimSession s;
  s.connectAndSettle();
  s.post->setChecksumSeed(0x5A);
  s.manager->queryChargerStateWithError(nullptr);
  s.settle();
  EXPECT_TRUE(s.tapped.empty());
  s.manager->setRand(0x5A);
  s.manager->queryChargerStateWithError(nullptr);
  s.settle();
  EXPECT_EQ(s.tapped.size(), 1u);
}

}  // namespace
}  // namespace tqble
