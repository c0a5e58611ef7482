#pragma once

// What a post answers, as values: codes as enums (the raw code kept beside them),
// quantities as doubles in the unit their name says, durations and UTC time points as
// std::chrono types. Each typed answer also keeps the manager's own record of the same
// frame (`record`, `rows`), exactly as the manager makes it.

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tqble/BLESDKConst.h"
#include "tqble/Models.h"
#include "tqble/platform/Value.h"

namespace tqble {

/// The units of the post's raw integers.
namespace units {
/// Voltage fields count 0.1 V.
constexpr double volts(std::uint64_t raw) {
  return static_cast<double>(raw) / 10.0;
}
/// Current fields count 0.1 A.
constexpr double amperes(std::uint64_t raw) {
  return static_cast<double>(raw) / 10.0;
}
/// Energy fields count watt-hours.
constexpr double kilowattHours(std::uint64_t raw) {
  return static_cast<double>(raw) / 1000.0;
}
/// Duration fields count seconds (a negative 32-bit value arrives sign-extended).
constexpr std::int64_t seconds(std::uint64_t raw) {
  return static_cast<std::int64_t>(raw);
}
}  // namespace units

/// The gun, as the post reports it.
enum class GunState { Idle, PluggedIn, Charging, Finished, Fault, Unknown };
/// What stopped the post.
enum class FaultKind { OverCurrent, OverVoltage, UnderVoltage, EmergencyStop, Other };
/// The kind of post.
enum class PostType { SingleGun, DualGun, MultiGun, SingleGunAdvertising, DualGunAdvertising, Unknown };
/// When charging starts: at once, or at the reserved time.
enum class ChargingMode { Immediate, Timed };
/// The charging stage the diagnostics report.
enum class ChargeStage { Idle, PluggedIn, Reserved, Charging, Waiting, Finished, Unknown };
/// The post's own network link, as the diagnostics report it.
enum class NetworkState { Connected, Connecting, Registering, NoNetwork, Restarting, Other };

/// Lower-case names ("plugged_in", "emergency_stop") for logs and JSON.
const char* name(GunState value);
const char* name(FaultKind value);
const char* name(PostType value);
const char* name(ChargingMode value);
const char* name(ChargeStage value);
const char* name(NetworkState value);

/// A time point as ISO 8601 UTC text: "2024-06-15T08:30:00Z".
std::string isoUtc(std::chrono::sys_seconds time);

/// A fault: its kind and the code the post sent (kept for Other).
struct Fault {
  FaultKind kind = FaultKind::Other;
  std::uint16_t code = 0;
};

/// One system-information display row, as the manager shows it.
struct InfoRow {
  std::string title;
  std::string content;
};

/// Everything the system-information answer carries.
struct SystemInfo {
  std::string postNumber;  ///< one decimal number per byte, as the post numbers itself
  PostType type = PostType::Unknown;
  std::uint8_t typeCode = 0;
  std::uint8_t manufacturerCode = 0;
  std::string manufacturer;  ///< empty for a code this line of posts does not know
  std::uint32_t magicNumber = 0;
  std::string protocolVersion;  ///< "1.2"
  std::string firmwareVersion;  ///< "1.2.10"
  std::string firmwareModel;    ///< one decimal number per byte
  ChargingMode chargingMode = ChargingMode::Immediate;
  int volume = 0;  ///< 0-100
  std::chrono::sys_seconds clock{};
  GunState gunState = GunState::Unknown;
  std::uint8_t gunCode = 0;
  /// The manager's ten rows (titles only when the answer came through a client).
  std::array<InfoRow, 10> rows;
};

/// The charger state: the gun and, in a full answer, the running session; in a fault
/// answer, the fault.
struct ChargerState {
  GunState gunState = GunState::Unknown;
  std::uint8_t gunCode = 0;
  std::optional<Fault> fault;  ///< set by a fault answer only
  std::string serialNumber;
  double kilowattHours = 0;
  double volts = 0;
  double amperes = 0;
  std::chrono::seconds duration{0};
  TQBleChargingData record;  ///< the manager's record of the same answer
};

/// A setting's acknowledgement.
struct SettingResult {
  std::int64_t resultType = TQSetCmdFailure;  ///< TQSetCmdSuccess or TQSetCmdFailure
  bool accepted() const { return resultType == TQSetCmdSuccess; }
};

/// One finished charging session.
struct ChargingSession {
  std::uint32_t serial = 0;
  double kilowattHours = 0;
  std::chrono::sys_seconds start{};
  std::chrono::sys_seconds end{};
  std::chrono::seconds duration{0};
  TQBleChargeHistory record;  ///< the manager's record (local date texts)
};
using ChargingHistory = std::vector<ChargingSession>;

/// One error-log entry.
struct ErrorLogEntry {
  std::chrono::sys_seconds time{};
  std::uint8_t code = 0;  ///< an error bit, as the diagnostics report it
  std::optional<FaultKind> kind;  ///< the code read as a diagnostic error bit
  TQBleErrorListLog record;
};
using ErrorLog = std::vector<ErrorLogEntry>;

/// The energy delivered over the post's life.
struct CumulativeEnergy {
  double kilowattHours = 0;
  std::int32_t raw = 0;  ///< Wh, as sent
};

/// The running diagnostics.
struct Diagnostics {
  ChargeStage stage = ChargeStage::Unknown;
  std::uint8_t stageCode = 0;
  std::optional<Fault> fault;  ///< from the error bits; Other when several are set
  double supplyVolts = 0;
  std::optional<double> ratedAmperes;  ///< 16 or 32; empty for another code
  NetworkState network = NetworkState::Other;
  std::uint8_t networkCode = 0;
  bool meterOk = false;
  bool screenOk = false;
  bool gunLocked = false;
  std::optional<ChargingMode> startMode;  ///< empty when none is set
  std::chrono::minutes startTime{0};      ///< since midnight, post time
  std::string firmwareVersion;            ///< "1.2.10"
  TQBleRunDiagnosticInfo record;
};

/// Typed decoders of whole answer frames (header included); the client delivers their
/// results, and a program that gathers frames itself may call them.
namespace answers {
/// @throws std::out_of_range when the answer is shorter than its fields.
SystemInfo systemInfo(const Bytes& frame);
/// The full state answer or the short fault answer.
/// @throws std::out_of_range for any other length.
ChargerState chargerState(const Bytes& frame);
/// @throws std::out_of_range when no status byte follows the header.
SettingResult settingResult(const Bytes& frame);
/// @throws std::out_of_range when the answer is shorter than its header fields.
ChargingHistory chargingHistory(const Bytes& frame);
/// @throws std::out_of_range when the answer is shorter than its field.
CumulativeEnergy cumulativeEnergy(const Bytes& frame);
/// @throws std::out_of_range when the count exceeds the entries present.
ErrorLog errorLog(const Bytes& frame);
/// @throws std::out_of_range when the answer is shorter than its fields.
Diagnostics diagnostics(const Bytes& frame);
}  // namespace answers

}  // namespace tqble
