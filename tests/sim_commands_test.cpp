// Every command from the call to the delegate call, against the virtual post: the exact
// answer, what the delegate receives, and what the post did.
#include <gtest/gtest.h>

#include <ctime>

#include "support/Hex.h"
#include "support/SimSession.h"
#include "tqble/AnswerDecoding.h"

namespace tqble {
namespace {

using test::SimSession;
using namespace std::chrono_literals;
using Post = sim::PostModel;

constexpr std::int64_t kPostTime = 1'700'000'000;  // 2023-11-14 22:13:20 UTC
constexpr char kCharging[] =
    "68 B5 00 00 12 00 00 2E 06 01 00 00 01 74 00 98 08 00 00 3E 01 3C 00 00 00 00";

struct CommandCase {
  const char* name;
  void (*prepare)(Post&);
  void (*call)(TQBleManager&);
  const char* answer;  // exact; empty where `check` reads a long answer
  std::size_t delegateCalls;
  std::int64_t resultType;  // of the last delegate record; -1: none
  bool (*check)(const SimSession&, const Bytes& answer);
};

void idle(Post& p) {
  p.setClock(kPostTime);
}
void plugged(Post& p) {
  idle(p), p.plugIn();
}
void charging(Post& p) {  // a minute into a session
  plugged(p), p.startCharging();
  MainQueue::main().runFor(60s);
}
void charged(Post& p) {
  charging(p), p.stopCharging();
}
void faulted(Post& p) {
  charging(p), p.raiseFault(sim::FaultOverVoltage);
}

void start(TQBleManager& m) {
  m.startChargingWithError(nullptr);
}
void stop(TQBleManager& m) {
  m.stopChargeWithError(nullptr);
}
bool isCharging(const SimSession& s, const Bytes&) {
  const auto& d = *s.log.updates.back()->chargingData;
  return d.gunStatus == "正在充电中" && d.serialNumber == "1001" && d.elecQuantity == 116 &&
         d.voltage == 2200 && d.electric == 318 && d.duration == 60;
}

class EveryCommand : public testing::TestWithParam<CommandCase> {};

TEST_P(EveryCommand, DeliversTheExactAnswerToTheDelegateOncePerNotification) {
  const CommandCase& c = GetParam();
  SimSession s;
  s.connectAndSettle();
  c.prepare(s.post->model());
  s.clearLog();
  s.command(c.call);
  ASSERT_EQ(s.tapped.size(), 1u);
  if (*c.answer) {
    EXPECT_EQ(test::spaced(s.tapped[0].answer), c.answer);
  }
  ASSERT_EQ(s.log.updates.size(), c.delegateCalls);
  const auto& result = s.log.updates.back()->result;
  EXPECT_EQ(result ? result->resultType : -1, c.resultType);
  EXPECT_EQ(s.log.updateErrors, decltype(s.log.updateErrors)(c.delegateCalls));
  EXPECT_EQ(s.manager->cmdType(), 0);
  EXPECT_TRUE(c.check(s, s.tapped[0].answer));
}

INSTANTIATE_TEST_SUITE_P(
    Commands, EveryCommand,
    testing::Values(
        CommandCase{"TimeSync", idle, [](TQBleManager& m) { m.synchroTimeWithError(nullptr); },
                    "68 B0 00 00 01 00 00 D9 00", 1, 0,
                    [](const SimSession& s, const Bytes&) {
                      return std::abs(s.post->model().clock() - std::time(nullptr)) <= 2;
                    }},
        CommandCase{"SystemInfo", plugged,
                    [](TQBleManager& m) { m.querySystemInfoWithError(nullptr); }, "", 4, -1,
                    [](const SimSession& s, const Bytes&) {
                      const auto& rows = s.manager->systemInfoModelList();
                      return rows.at(17)->content == "5" &&
                             rows.at(18)->content == "2023-11-14 22:13:20" &&
                             rows.at(19)->content == "插枪未充电";
                    }},
        CommandCase{
            "Volume", idle, [](TQBleManager& m) { m.setVolumeWithVolumeSize(35, nullptr); },
            "68 B2 00 00 01 00 00 DB 00", 1, 0,
            [](const SimSession& s, const Bytes&) { return s.post->model().volume() == 35; }},
        CommandCase{
            "VolumeOfOneDigitIsRefused", idle,
            [](TQBleManager& m) { m.setVolumeWithVolumeSize(7, nullptr); },
            "68 B2 00 00 01 00 00 DA 01", 1, 1,
            [](const SimSession& s, const Bytes&) { return s.post->model().volume() == 5; }},
        CommandCase{"Reservation", idle,
                    [](TQBleManager& m) { m.orderChargerWithStartHour(22, 30, 6, 0, nullptr); },
                    "68 B3 00 00 01 00 00 DA 00", 1, 0,
                    [](const SimSession& s, const Bytes&) {
                      const auto& r = s.post->model().reservation();
                      return r && r->startHour == 22 && r->startMinute == 30 && r->endHour == 6;
                    }},
        CommandCase{"Start", plugged, start, "68 B4 00 00 01 00 00 DD 00", 1, 0,
                    [](const SimSession& s, const Bytes&) {
                      return s.post->model().gunState() == sim::GunState::Charging;
                    }},
        CommandCase{"State", charging,
                    [](TQBleManager& m) { m.queryChargerStateWithError(nullptr); }, kCharging, 2,
                    -1, isCharging},
        CommandCase{"ChargingDataIsTheState", charging,
                    [](TQBleManager& m) { m.queryChargingDataWithError(nullptr); }, kCharging, 2,
                    -1, isCharging},
        CommandCase{"Stop", charging, stop, "68 B6 00 00 01 00 00 DF 00", 1, 0,
                    [](const SimSession& s, const Bytes&) {
                      return s.post->model().history().size() == 1;
                    }},
        CommandCase{
            "StopRefusedStillReadsAsSuccess", idle, stop, "68 B6 00 00 01 00 00 DE 01", 1, 0,
            [](const SimSession& s, const Bytes&) { return s.post->model().history().empty(); }},
        CommandCase{
            "HistoryReachesOnlyTheTap", charged,
            [](TQBleManager& m) { m.queryHistoryChargingListWithError(nullptr); },
            "68 B7 00 00 17 00 00 57 00 00 00 01 00 00 03 E9 00 74 00 F1 53 65 3C F1 53 65 3C 00 "
            "00 00 00",
            2, -1,
            [](const SimSession& s, const Bytes& answer) {
              const auto history = decode::chargingHistory(answer);
              return !s.log.updates.back()->chargingData && history.size() == 1 &&
                     history[0].endTime == "2023-11-14 22:14:20";
            }},
        CommandCase{"CumulativeEnergy", charged,
                    [](TQBleManager& m) { m.queryCumulationElecQuantityWithError(nullptr); },
                    "68 B8 00 00 05 00 00 35 34 D5 01 00 00", 1, -1,
                    [](const SimSession&, const Bytes& answer) {
                      return decode::cumulativeEnergy(answer) == 120'000 + 116;
                    }},
        CommandCase{"ErrorLog", faulted,
                    [](TQBleManager& m) { m.queryHistoryErrorLogListWithError(nullptr); },
                    "68 34 00 00 0B 00 00 AF 00 00 01 3C F1 53 65 02 00 00 00", 1, -1,
                    [](const SimSession&, const Bytes& answer) {
                      const auto errors = decode::errorLog(answer);
                      return errors.size() == 1 && errors[0].errorCode == 2;
                    }},
        CommandCase{"Diagnostics", faulted,
                    [](TQBleManager& m) { m.runningDiagnosticInfoWithError(nullptr); }, "", 4, -1,
                    [](const SimSession& s, const Bytes& answer) {
                      const auto d = decode::runningDiagnosis(answer);
                      return !s.log.updates.back()->chargingData && d.errorInfo == "过压" &&
                             d.chargeState == "空闲" && d.versionNum == "V1.2.10";
                    }}),
    test::caseName);

}  // namespace
}  // namespace tqble
