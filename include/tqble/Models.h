#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace tqble {

/// Text that may be absent (the platform's nil).
using OptionalText = std::optional<std::string>;

/// One charger as the application lists or binds it; never filled by the SDK.
struct ZRBLEModel {
  OptionalText deviceNum;
  OptionalText RSSI;
  std::int64_t state = 0;
  bool isBound = false;
};

/// Outcome of a setting, start or stop command.
struct TQBleSetResult {
  std::int64_t resultType = 0;  ///< TQSetCmdSuccess or TQSetCmdFailure
};

/// Values common to every charging report, unscaled as received.
struct TQBleBaseChargeData {
  OptionalText serialNumber;
  std::uint64_t elecQuantity = 0;
  std::uint64_t voltage = 0;
  std::uint64_t electric = 0;
  std::uint64_t duration = 0;
};

/// Charger state and live charging data.
struct TQBleChargingData : TQBleBaseChargeData {
  OptionalText gunStatus;
  OptionalText failureReason;
};

/// Charger state; the base of a history entry.
struct TQBleQueryChargerState : TQBleBaseChargeData {
  OptionalText gunStatus;
  OptionalText failureReason;
};

/// One charging-history entry.
struct TQBleChargeHistory : TQBleQueryChargerState {
  OptionalText startTime;
  OptionalText endTime;
};

/// The manager's result holder, handed to the delegate after every value update.
struct TQBleDataModel {
  std::shared_ptr<TQBleSetResult> result;
  std::shared_ptr<TQBleChargingData> chargingData;
};

/// An error or order entry as the application keeps it; never filled by the SDK.
struct ZBleErrorModel {
  OptionalText startTime;
  std::int64_t errorCode = 0;
  OptionalText orderNum;
  OptionalText endTime;
  OptionalText chargeDuration;
  OptionalText elecCount;
  OptionalText chargeCP;
  OptionalText chargeAmmeter;
  std::int64_t type = 0;
};

/// One error-log entry.
struct TQBleErrorListLog {
  OptionalText date;
  std::uint64_t errorCode = 0;
};

/// The running-diagnostics answer.
struct TQBleRunDiagnosticInfo {
  std::int64_t startMode = 0;
  OptionalText versionNum;
  OptionalText ammeterState;
  OptionalText startTime;
  OptionalText chargeState;
  OptionalText voltage;
  OptionalText elec;
  OptionalText errorInfo;
  OptionalText netConnectState;
  OptionalText screenWorkingState;
  OptionalText elecLockState;
};

/// One display row: a title and its value.
struct ZRunStateModel {
  OptionalText title;
  OptionalText content;
  std::int64_t detailType = 0;
};

}  // namespace tqble
