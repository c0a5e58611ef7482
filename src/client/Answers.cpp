// Typed answers: each field read where the field table puts it, codes mapped to enums,
// raw integers to their units; the manager's decoder of the same frame fills `record`.
#include "tqble/client/Answers.h"

#include <cstdio>
#include <stdexcept>

#include "protocol/Fields.h"
#include "protocol/Frame.h"
#include "tqble/AnswerDecoding.h"

namespace tqble {
namespace {

using namespace protocol;
using std::chrono::seconds;
using std::chrono::sys_seconds;

GunState gunState(std::uint64_t code) {
  switch (code) {
    case kGunIdle: return GunState::Idle;
    case kGunPluggedIn: return GunState::PluggedIn;
    case kGunCharging: return GunState::Charging;
    case kGunFinished: return GunState::Finished;
    case kGunFault: return GunState::Fault;
    default: return GunState::Unknown;
  }
}

Fault stateFault(std::uint16_t code) {
  switch (code) {
    case kFaultOverCurrent: return {FaultKind::OverCurrent, code};
    case kFaultOverVoltage: return {FaultKind::OverVoltage, code};
    case kFaultUnderVoltage: return {FaultKind::UnderVoltage, code};
    case kFaultEmergencyStop: return {FaultKind::EmergencyStop, code};
    default: return {FaultKind::Other, code};
  }
}

std::optional<FaultKind> errorBit(std::uint64_t bits) {
  switch (bits) {
    case kErrorEmergencyStop: return FaultKind::EmergencyStop;
    case kErrorOverVoltage: return FaultKind::OverVoltage;
    case kErrorUnderVoltage: return FaultKind::UnderVoltage;
    case kErrorOverCurrent: return FaultKind::OverCurrent;
    default: return std::nullopt;
  }
}

sys_seconds postTime(const Bytes& frame, const Field& field, std::size_t base = 0) {
  return sys_seconds{seconds{readSigned32(frame, field, base)}};
}

std::uint8_t byteAt(const Bytes& frame, const Field& field) {
  return static_cast<std::uint8_t>(read(frame, field));
}

std::string version(std::uint64_t major, std::uint64_t minor) {
  return std::to_string(major) + "." + std::to_string(minor);
}

}  // namespace

const char* name(GunState value) {
  constexpr const char* names[] = {"idle", "plugged_in", "charging", "finished", "fault", "unknown"};
  return names[static_cast<int>(value)];
}
const char* name(FaultKind value) {
  constexpr const char* names[] = {"over_current", "over_voltage", "under_voltage",
                                   "emergency_stop", "other"};
  return names[static_cast<int>(value)];
}
const char* name(PostType value) {
  constexpr const char* names[] = {"single_gun", "dual_gun", "multi_gun",
                                   "single_gun_advertising", "dual_gun_advertising", "unknown"};
  return names[static_cast<int>(value)];
}
const char* name(ChargingMode value) {
  return value == ChargingMode::Timed ? "timed" : "immediate";
}
const char* name(ChargeStage value) {
  constexpr const char* names[] = {"idle",    "plugged_in", "reserved", "charging",
                                   "waiting", "finished",   "unknown"};
  return names[static_cast<int>(value)];
}
const char* name(NetworkState value) {
  constexpr const char* names[] = {"connected",  "connecting", "registering",
                                   "no_network", "restarting", "other"};
  return names[static_cast<int>(value)];
}

std::string isoUtc(std::chrono::sys_seconds time) {
  using namespace std::chrono;
  const auto day = floor<days>(time);
  const year_month_day date{day};
  const hh_mm_ss clock{time - day};
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02lld:%02lld:%02lldZ", int(date.year()),
                unsigned(date.month()), unsigned(date.day()),
                static_cast<long long>(clock.hours().count()),
                static_cast<long long>(clock.minutes().count()),
                static_cast<long long>(clock.seconds().count()));
  return text;
}

namespace answers {

SystemInfo systemInfo(const Bytes& frame) {
  namespace f = system_info;
  SystemInfo info;
  const auto contents = decode::systemInfo(frame);  // checks the length first
  for (std::size_t i = 0; i < info.rows.size(); ++i) info.rows[i].content = contents[i];
  info.postNumber = readDigits(frame, f::postNumber);
  info.typeCode = byteAt(frame, f::postType);
  info.type = info.typeCode >= 1 && info.typeCode <= 5 ? static_cast<PostType>(info.typeCode - 1)
                                                       : PostType::Unknown;
  info.manufacturerCode = byteAt(frame, f::maker);
  if (info.manufacturerCode == kKnownMakerCode) info.manufacturer = kKnownMakerName;
  info.magicNumber = static_cast<std::uint32_t>(read(frame, f::magic));
  info.protocolVersion = version(read(frame, f::protocolMajor), read(frame, f::protocolMinor));
  info.firmwareVersion = version(read(frame, f::firmwareMajor), read(frame, f::firmwareMinor)) +
                         "." + std::to_string(read(frame, f::firmwarePatch));
  info.firmwareModel = readDigits(frame, f::firmwareModel);
  info.chargingMode =
      read(frame, f::chargingMode) == kTimedMode ? ChargingMode::Timed : ChargingMode::Immediate;
  info.volume = static_cast<int>(read(frame, f::volume));
  info.clock = postTime(frame, f::clock);
  info.gunCode = byteAt(frame, f::gunState);
  info.gunState = gunState(info.gunCode);
  return info;
}

ChargerState chargerState(const Bytes& frame) {
  namespace f = state;
  if (frame.size() != kStateLength && frame.size() != kFaultLength)
    throw std::out_of_range("a state answer of " + std::to_string(frame.size()) + " bytes");
  ChargerState s;
  s.record = decode::chargerState(frame);
  s.gunCode = byteAt(frame, f::gunState);
  s.gunState = gunState(s.gunCode);
  if (frame.size() == kFaultLength) {
    s.fault = stateFault(static_cast<std::uint16_t>(read(frame, f::faultCode)));
    return s;
  }
  s.serialNumber = readDigits(frame, f::serial);
  s.kilowattHours = units::kilowattHours(read(frame, f::energy));
  s.volts = units::volts(read(frame, f::voltage));
  s.amperes = units::amperes(read(frame, f::current));
  s.duration = seconds{readSigned32(frame, f::duration)};
  return s;
}

SettingResult settingResult(const Bytes& frame) {
  read(frame, ack::status);  // no status byte: not an acknowledgement
  return SettingResult{decode::setResult(frame).resultType};
}

ChargingHistory chargingHistory(const Bytes& frame) {
  namespace f = history;
  const auto records = decode::chargingHistory(frame);
  ChargingHistory list;
  for (std::size_t i = 0; i < records.size(); ++i) {
    const std::size_t base = f::kFirstEntry + i * f::kEntryLength;
    ChargingSession s;
    s.serial = static_cast<std::uint32_t>(read(frame, f::serial, base));
    s.kilowattHours = units::kilowattHours(read(frame, f::energy, base));
    s.start = postTime(frame, f::start, base);
    s.end = postTime(frame, f::end, base);
    s.duration = seconds{readSigned32(frame, f::duration, base)};
    s.record = records[i];
    list.push_back(std::move(s));
  }
  return list;
}

CumulativeEnergy cumulativeEnergy(const Bytes& frame) {
  const std::int32_t raw = readSigned32(frame, cumulation::energy);
  return CumulativeEnergy{units::kilowattHours(static_cast<std::uint64_t>(std::int64_t{raw})), raw};
}

ErrorLog errorLog(const Bytes& frame) {
  namespace f = error_log;
  const auto records = decode::errorLog(frame);
  ErrorLog list;
  for (std::size_t i = 0; i < records.size(); ++i) {
    const std::size_t base = f::kFirstEntry + i * f::kEntryLength;
    ErrorLogEntry e;
    e.time = postTime(frame, f::time, base);
    e.code = static_cast<std::uint8_t>(read(frame, f::code, base));
    e.kind = errorBit(e.code);
    e.record = records[i];
    list.push_back(std::move(e));
  }
  return list;
}

Diagnostics diagnostics(const Bytes& frame) {
  namespace f = diagnosis;
  Diagnostics d;
  d.record = decode::runningDiagnosis(frame);
  d.stageCode = byteAt(frame, f::chargeState);
  d.stage = d.stageCode <= 5 ? static_cast<ChargeStage>(d.stageCode) : ChargeStage::Unknown;
  if (const auto bits = byteAt(frame, f::errorBits); bits != 0)
    d.fault = Fault{errorBit(bits).value_or(FaultKind::Other), bits};
  d.supplyVolts = static_cast<double>(read(frame, f::voltage));
  switch (read(frame, f::currentRating)) {
    case 0: d.ratedAmperes = 16.0; break;
    case 1: d.ratedAmperes = 32.0; break;
    default: break;
  }
  d.networkCode = byteAt(frame, f::network);
  d.network = d.networkCode <= 4 ? static_cast<NetworkState>(d.networkCode) : NetworkState::Other;
  d.meterOk = read(frame, f::meter) == 1;
  d.screenOk = read(frame, f::screen) != 0;
  d.gunLocked = read(frame, f::lock) != 0;
  switch (read(frame, f::startMode)) {
    case 0: d.startMode = ChargingMode::Immediate; break;
    case kTimedMode: d.startMode = ChargingMode::Timed; break;
    default: break;
  }
  d.startTime = std::chrono::hours{read(frame, f::startHour)} +
                std::chrono::minutes{read(frame, f::startMinute)};
  d.firmwareVersion = version(read(frame, f::versionMajor), read(frame, f::versionMinor)) + "." +
                      std::to_string(read(frame, f::versionPatch));
  return d;
}

}  // namespace answers
}  // namespace tqble
