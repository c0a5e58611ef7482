#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tqble/platform/Value.h"

namespace tqble::sim {

/// Gun states, with the codes the post reports.
enum class GunState : std::uint8_t {
  Idle = 0x00,
  PluggedIn = 0x01,
  Charging = 0x06,
  Finished = 0x08,
  Fault = 0x0F,
};

/// Fault codes of the short state answer (sent big-endian).
enum FaultCode : std::uint16_t {
  FaultOverCurrent = 0x0004,
  FaultOverVoltage = 0x0008,
  FaultUnderVoltage = 0x0010,
  FaultEmergencyStop = 0x0100,
};

/// What a post says about itself in its system information.
struct PostIdentity {
  std::string number = "86031200000000000042";  ///< 20 decimal digits, one byte each
  std::uint8_t postType = 0x01;                  ///< single gun
  std::uint8_t manufacturer = 0x66;
  std::uint32_t magic = 0x20240615;
  std::uint8_t protocolMajor = 1;
  std::uint8_t protocolMinor = 2;
  std::array<std::uint8_t, 3> firmware{1, 2, 10};  ///< major, minor, patch
  /// 20 bytes; byte 15 is overwritten with the charging mode (01 timed, 00 immediate).
  Bytes firmwareModel{2, 0, 2, 4, 0, 6, 1, 5, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  std::uint8_t currentRating = 0x01;  ///< 00: 16 A, 01: 32 A
};

/// One finished charging session.
struct HistoryEntry {
  std::uint32_t serial = 0;
  std::uint16_t energy = 0;  ///< Wh
  std::int32_t start = 0;    ///< post time, seconds since 1970
  std::int32_t end = 0;
  std::int32_t duration = 0;  ///< seconds
};

/// One error-log entry.
struct ErrorEntry {
  std::int32_t time = 0;  ///< post time, seconds since 1970
  std::uint8_t code = 0;  ///< 1 emergency stop, 2 over-voltage, 4 under-voltage, 8 over-current
};

/// A reserved charging period.
struct Reservation {
  std::uint8_t startHour = 0;
  std::uint8_t startMinute = 0;
  std::uint8_t endHour = 0;
  std::uint8_t endMinute = 0;
};

/// The state of a charging post. Its time follows the main queue's clock, `timeScale`
/// times faster; a charging session grows in energy and duration as that time passes.
/// Units: energy Wh, voltage 0.1 V, current 0.1 A, durations in seconds.
class PostModel {
 public:
  explicit PostModel(PostIdentity identity = {});

  const PostIdentity& identity() const { return identity_; }
  PostIdentity& identity() { return identity_; }

  /// The post clock, seconds since 1970.
  std::int64_t clock() const;
  /// Sets the post clock; it keeps running from there.
  void setClock(std::int64_t seconds);
  /// How many post seconds pass per second of queue time (1 by default).
  void setTimeScale(double scale);
  double timeScale() const { return timeScale_; }

  int volume() const { return volume_; }
  void setVolume(int volume) { volume_ = volume; }
  const std::optional<Reservation>& reservation() const { return reservation_; }
  void setReservation(std::optional<Reservation> reservation) { reservation_ = reservation; }

  /// Charging power in watts while a session runs.
  void setPower(std::uint32_t watts) { power_ = watts; }
  /// Mains voltage in 0.1 V.
  void setVoltage(std::uint32_t decivolts) { voltage_ = decivolts; }

  GunState gunState() const { return gun_; }
  /// A car is plugged in: idle becomes plugged in.
  void plugIn();
  /// The car is unplugged: plugged in or finished becomes idle.
  void unplug();
  /// Starts a session; false (refused) unless plugged in or finished.
  bool startCharging();
  /// Ends the running session and records it; false when none runs.
  bool stopCharging();
  /// Puts the post in fault, ending a running session, and logs the error.
  void raiseFault(std::uint16_t code);
  /// Leaves the fault: back to idle.
  void clearFault();
  std::uint16_t faultCode() const { return faultCode_; }
  /// The fault as a diagnostic error bit: 1 emergency stop, 2 over-voltage,
  /// 4 under-voltage, 8 over-current; 0 without a fault.
  std::uint8_t errorBits() const;

  /// Serial number of the running (or last) session.
  std::uint32_t sessionSerial() const { return serial_; }
  /// Energy of the running session so far (Wh); 0 when none runs.
  std::uint32_t sessionEnergy() const;
  /// Duration of the running session so far (s); 0 when none runs.
  std::uint32_t sessionDuration() const;
  std::uint32_t voltage() const { return voltage_; }
  /// Current in 0.1 A: the power drawn at the mains voltage, 0 when not charging.
  std::uint32_t current() const;
  /// Energy delivered over the post's life, the running session included (Wh).
  std::uint32_t cumulativeEnergy() const;

  const std::vector<HistoryEntry>& history() const { return history_; }
  void addHistory(HistoryEntry entry);
  const std::vector<ErrorEntry>& errors() const { return errors_; }
  void addError(ErrorEntry entry);

 private:
  double postSeconds() const;

  PostIdentity identity_;
  double clockBase_ = 1'700'000'000;  // post seconds at clockBaseAt_
  std::chrono::steady_clock::time_point clockBaseAt_;
  double timeScale_ = 1.0;
  int volume_ = 5;
  std::optional<Reservation> reservation_;
  std::uint32_t power_ = 7000;
  std::uint32_t voltage_ = 2200;
  GunState gun_ = GunState::Idle;
  std::uint16_t faultCode_ = 0;
  std::uint32_t serial_ = 1000;
  double sessionStart_ = 0;  // post seconds
  std::uint32_t lifetimeEnergy_ = 120'000;
  std::vector<HistoryEntry> history_;
  std::vector<ErrorEntry> errors_;
};

}  // namespace tqble::sim
