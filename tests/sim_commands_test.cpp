// Every command from the call to the delegate call against the virtual post: one answer
// through the tap, the delegate calls it makes, and what the post did; and the requests
// the post refuses.
#include <gtest/gtest.h>

#include <ctime>

#include "support/Hex.h"
#include "support/SimSession.h"
#include "tqble/AnswerDecoding.h"

namespace tqble {
namespace {

using namespace test;
using namespace std::chrono_literals;
using Post = sim::PostModel;
using S = const SimSession&;
using A = const Bytes&;

struct CommandCase {
  const char* name;
  void (*prepare)(Post&);
  void (*call)(TQBleManager&);
  std::size_t delegateCalls;
  std::int64_t resultType;  // of the last delegate record; -1: none
  bool (*check)(S, A answer);
};

// clang-format off
void idle(Post& p) { p.setClock(1'700'000'000); }  // 2023-11-14 22:13:20 UTC
void plugged(Post& p) { idle(p), p.plugIn(); }
void charging(Post& p) { plugged(p), p.startCharging(), MainQueue::main().runFor(60s); }
void charged(Post& p) { charging(p), p.stopCharging(); }
void faulted(Post& p) { charging(p), p.raiseFault(sim::FaultOverVoltage); }
bool isCharging(S s, A) { return s.log.updates.back()->chargingData->gunStatus == "正在充电中"; }
// clang-format on

class EveryCommand : public testing::TestWithParam<CommandCase> {};
// GoogleTest prints a case by its name, never by its raw bytes.
void PrintTo(const CommandCase& c, std::ostream* os) { *os << c.name; }

TEST_P(EveryCommand, MakesOneAnswerOneDelegateCallPerNotificationAndItsChangeToThePost) {
  const CommandCase& c = GetParam();
  SimSession s;
  s.connectAndSettle();
  c.prepare(s.post->model());
  s.command(c.call);
  ASSERT_EQ(s.tapped.size(), 1u);
  ASSERT_EQ(s.log.updates.size(), c.delegateCalls);
  const auto& result = s.log.updates.back()->result;
  EXPECT_EQ(result ? result->resultType : -1, c.resultType);
  EXPECT_EQ(s.log.updateErrors, Errors(c.delegateCalls));
  EXPECT_EQ(s.manager->cmdType(), 0);
  EXPECT_TRUE(c.check(s, s.tapped[0].second));
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Commands, EveryCommand, testing::Values(
    CommandCase{"TimeSync", idle, [](TQBleManager& m) { m.synchroTimeWithError(nullptr); }, 1, 0,
                [](S s, A) { return std::abs(s.post->model().clock() - std::time(nullptr)) <= 2; }},
    CommandCase{"SystemInfo", plugged, systemInfo, 4, -1,
                [](S s, A) { return s.manager->systemInfoModelList().at(19)->content == "插枪未充电"; }},
    CommandCase{"Volume", idle, [](TQBleManager& m) { m.setVolumeWithVolumeSize(35, nullptr); }, 1, 0,
                [](S s, A) { return s.post->model().volume() == 35; }},
    CommandCase{"VolumeOfOneDigitIsRefused", idle, [](TQBleManager& m) { m.setVolumeWithVolumeSize(7, nullptr); }, 1, 1,
                [](S s, A) { return s.post->model().volume() == 5; }},
    CommandCase{"Reservation", idle, [](TQBleManager& m) { m.orderChargerWithStartHour(22, 30, 6, 0, nullptr); }, 1, 0,
                [](S s, A) { return s.post->model().reservation()->startMinute == 30; }},
    CommandCase{"Start", plugged, [](TQBleManager& m) { m.startChargingWithError(nullptr); }, 1, 0,
                [](S s, A) { return s.post->model().gunState() == sim::GunState::Charging; }},
    CommandCase{"State", charging, state, 2, -1, isCharging},
    CommandCase{"ChargingDataIsTheState", charging, [](TQBleManager& m) { m.queryChargingDataWithError(nullptr); }, 2, -1, isCharging},
    CommandCase{"Stop", charging, stopCharge, 1, 0, [](S s, A) { return s.post->model().history().size() == 1; }},
    CommandCase{"StopRefusedStillReadsAsSuccess", idle, stopCharge, 1, 0, [](S s, A) { return s.post->model().history().empty(); }},
    CommandCase{"HistoryReachesOnlyTheTap", charged, history, 2, -1,
                [](S s, A a) { return !s.log.updates.back()->chargingData && decode::chargingHistory(a).size() == 1; }},
    CommandCase{"CumulativeEnergy", charged, energy, 1, -1, [](S, A a) { return decode::cumulativeEnergy(a) == 120'000 + 116; }},
    CommandCase{"ErrorLog", faulted, errorLog, 1, -1, [](S, A a) { return decode::errorLog(a).at(0).errorCode == 2; }},
    CommandCase{"Diagnostics", faulted, diagnosis, 4, -1,
                [](S s, A a) { return !s.log.updates.back()->chargingData && decode::runningDiagnosis(a).errorInfo == "过压"; }}),
    caseName);
// clang-format on

TEST(VirtualPost, IgnoresRequestsWithABadStartLengthChecksumOrCommand) {
  MainQueue::main().useVirtualClock();
  sim::VirtualPost post;
  for (const char* request :
       {"69 b5 00 00 01 00 00 dd 00", "68 b5 00 00 02 00 00 df 00", "68 b5 00 00 01 00 00 dd 00",
        "68 b9 00 00 01 00 00 d0 00", "68 b5 00"})
    EXPECT_TRUE(post.handleWrite(hex(request)).empty()) << request;
  EXPECT_EQ(post.receivedWrites().size(), 5u);
  EXPECT_TRUE(post.sentAnswers().empty());
}

}  // namespace
}  // namespace tqble
