// Typed answers against the manager's records of the same frames, and against what the
// simulated post holds. Frames come from the virtual post, which lays them out itself.
#include <gtest/gtest.h>

#include <functional>

#include "protocol/Frame.h"
#include "support/Hex.h"
#include "support/LogCapture.h"
#include "tqble/AnswerDecoding.h"
#include "tqble/ZConverTool.h"
#include "tqble/client/Answers.h"
#include "tqble/sim/VirtualPost.h"

namespace tqble {
namespace {

using namespace std::chrono;
using protocol::CommandCode;

Bytes ask(sim::VirtualPost& post, CommandCode cmd) {
  const Bytes none;
  const auto out = post.handleWrite(protocol::buildFrame(cmd, 0, &none, post.checksumSeed()));
  EXPECT_EQ(out.size(), 1u);
  return out.empty() ? Bytes{} : out.front();
}

std::string dateText(sys_seconds t) {
  return ZConverTool::converFormatTimeWithTimeValue(t.time_since_epoch().count());
}

// Post states the table runs through.
const std::pair<const char*, std::function<void(sim::PostModel&)>> kStates[] = {
    {"idle", [](sim::PostModel&) {}},
    {"charging", [](sim::PostModel& m) { m.plugIn(); m.startCharging(); }},
    {"timed, plugged in",
     [](sim::PostModel& m) { m.setReservation(sim::Reservation{7, 30, 9, 0}); m.plugIn(); }},
    {"over-voltage", [](sim::PostModel& m) { m.raiseFault(sim::FaultOverVoltage); }},
    {"emergency stop", [](sim::PostModel& m) { m.raiseFault(sim::FaultEmergencyStop); }},
};

TEST(TypedAnswers, AgreeWithTheManagersRecordsAndTellWhatThePostHolds) {
  test::LogCapture quiet;
  for (const auto& [label, setUp] : kStates) {
    SCOPED_TRACE(label);
    sim::VirtualPost post;
    auto& m = post.model();
    m.setTimeScale(0);
    m.setClock(-1);  // one second before 1970: a negative post time
    m.setVolume(73);
    m.addHistory({998, 12400, 1'699'899'200, 1'699'906'400, 7200});
    m.addError({1'700'000'100, 8});
    setUp(m);

    const Bytes infoFrame = ask(post, protocol::kCmdSystemInfo);
    const SystemInfo info = answers::systemInfo(infoFrame);
    const auto rows = decode::systemInfo(infoFrame);
    const auto& id = m.identity();
    EXPECT_EQ(info.postNumber, id.number);
    EXPECT_EQ(info.type, PostType::SingleGun);
    EXPECT_EQ(info.manufacturer, rows[2]);
    EXPECT_EQ(std::to_string(info.magicNumber), rows[3]);
    EXPECT_EQ(info.magicNumber, id.magic);
    EXPECT_EQ(info.protocolVersion, rows[4]);
    EXPECT_EQ(info.firmwareVersion, rows[5]);
    EXPECT_EQ(info.firmwareModel, rows[6]);
    EXPECT_EQ(std::to_string(info.volume), rows[7]);
    EXPECT_EQ(info.volume, 73);
    EXPECT_EQ(info.clock, sys_seconds{-1s});
    EXPECT_EQ(dateText(info.clock), rows[8]);
    EXPECT_EQ(info.chargingMode, m.reservation() ? ChargingMode::Timed : ChargingMode::Immediate);
    EXPECT_EQ(info.gunCode, static_cast<std::uint8_t>(m.gunState()));
    for (std::size_t i = 0; i < rows.size(); ++i) EXPECT_EQ(info.rows[i].content, rows[i]);

    const Bytes stateFrame = ask(post, protocol::kCmdChargerState);
    const ChargerState state = answers::chargerState(stateFrame);
    const TQBleChargingData record = decode::chargerState(stateFrame);
    EXPECT_EQ(state.gunCode, static_cast<std::uint8_t>(m.gunState()));
    EXPECT_EQ(state.record.gunStatus, record.gunStatus);
    EXPECT_EQ(state.record.failureReason, record.failureReason);
    EXPECT_EQ(state.serialNumber, record.serialNumber.value_or(""));
    EXPECT_DOUBLE_EQ(state.kilowattHours * 1000, static_cast<double>(record.elecQuantity));
    EXPECT_DOUBLE_EQ(state.volts * 10, static_cast<double>(record.voltage));
    EXPECT_DOUBLE_EQ(state.amperes * 10, static_cast<double>(record.electric));
    EXPECT_EQ(state.duration.count(), static_cast<std::int64_t>(record.duration));
    EXPECT_EQ(state.fault.has_value(), record.failureReason.has_value());

    const auto history = answers::chargingHistory(ask(post, protocol::kCmdHistory));
    ASSERT_EQ(history.size(), m.history().size());
    for (const auto& s : history) {
      EXPECT_EQ(std::to_string(s.serial), s.record.serialNumber);
      EXPECT_DOUBLE_EQ(s.kilowattHours * 1000, static_cast<double>(s.record.elecQuantity));
      EXPECT_EQ(dateText(s.start), s.record.startTime);
      EXPECT_EQ(dateText(s.end), s.record.endTime);
      EXPECT_EQ(s.duration.count(), static_cast<std::int64_t>(s.record.duration));
    }
    EXPECT_EQ(isoUtc(history.front().start), "2023-11-13T18:13:20Z");

    const auto errors = answers::errorLog(ask(post, protocol::kCmdErrorLog));
    ASSERT_EQ(errors.size(), m.errors().size());
    for (const auto& e : errors) {
      EXPECT_EQ(dateText(e.time), e.record.date);
      EXPECT_EQ(e.code, e.record.errorCode);
    }
    EXPECT_EQ(errors.front().kind, FaultKind::OverCurrent);

    const Bytes energyFrame = ask(post, protocol::kCmdCumulation);
    const CumulativeEnergy energy = answers::cumulativeEnergy(energyFrame);
    EXPECT_EQ(energy.raw, decode::cumulativeEnergy(energyFrame));
    EXPECT_DOUBLE_EQ(energy.kilowattHours * 1000, energy.raw);

    const Diagnostics d = answers::diagnostics(ask(post, protocol::kCmdDiagnosis));
    EXPECT_EQ("V" + d.firmwareVersion, d.record.versionNum);
    EXPECT_EQ(d.startMode, info.chargingMode);
    EXPECT_EQ(d.startTime, m.reservation() ? 7h + 30min : 0min);
    EXPECT_EQ(d.ratedAmperes, 32.0);
    EXPECT_EQ(d.fault.has_value(), m.errorBits() != 0);
    EXPECT_EQ(d.record.voltage, std::to_string(static_cast<int>(d.supplyVolts)) + "V");
  }
}

// The manager shows a post in fault as "--" and "未知"; the typed answers say fault.
TEST(TypedAnswers, APostInFaultReadsAsFaultWhileTheManagersRowsStayAsTheyAre) {
  test::LogCapture quiet;
  sim::VirtualPost post;
  post.model().raiseFault(sim::FaultUnderVoltage);
  const Bytes infoFrame = ask(post, protocol::kCmdSystemInfo);
  EXPECT_EQ(answers::systemInfo(infoFrame).gunState, GunState::Fault);
  EXPECT_EQ(decode::systemInfo(infoFrame)[9], "--");
  EXPECT_EQ(decode::systemInfo(infoFrame)[0], "获取系统信息");

  const ChargerState state = answers::chargerState(ask(post, protocol::kCmdChargerState));
  EXPECT_EQ(state.gunState, GunState::Fault);
  ASSERT_TRUE(state.fault.has_value());
  EXPECT_EQ(state.fault->kind, FaultKind::UnderVoltage);
  EXPECT_EQ(state.record.gunStatus, "未知");
  EXPECT_EQ(state.record.failureReason, "欠压");

  const Diagnostics d = answers::diagnostics(ask(post, protocol::kCmdDiagnosis));
  ASSERT_TRUE(d.fault.has_value());
  EXPECT_EQ(d.fault->kind, FaultKind::UnderVoltage);
}

TEST(TypedAnswers, ReadCodesOutsideTheTablesAsUnknownKeepingTheCode) {
  // A fault answer with two bits set, and a gun code no post sends.
  const auto state = answers::chargerState(test::hex("68 b5 00 00 04 00 00 00 | 07 00 0c 00"));
  EXPECT_EQ(state.gunState, GunState::Unknown);
  EXPECT_EQ(state.gunCode, 7);
  EXPECT_EQ(state.fault->kind, FaultKind::Other);
  EXPECT_EQ(state.fault->code, 0x000c);
}

TEST(TypedAnswers, ThrowOnAnswersTooShortForTheirFields) {
  const std::pair<const char*, std::function<void()>> shortOnes[] = {
      {"state of 20 bytes", [] { answers::chargerState(Bytes(20)); }},
      {"system information of 66", [] { answers::systemInfo(Bytes(66)); }},
      {"bare acknowledgement", [] { answers::settingResult(Bytes(8)); }},
      {"energy of 11", [] { answers::cumulativeEnergy(Bytes(11)); }},
      {"error log counting 2 with 1",
       [] { answers::errorLog(test::hex("68 34 00 00 0b 00 00 00 | 00 00 02 | 00 00 00 00 08 00 00 00")); }},
      {"diagnostics of 53", [] { answers::diagnostics(Bytes(53)); }},
  };
  for (const auto& [label, decode] : shortOnes) EXPECT_THROW(decode(), std::out_of_range) << label;
}

}  // namespace
}  // namespace tqble
