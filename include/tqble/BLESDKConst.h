#pragma once

#include <cstdint>

namespace tqble {

/// Write path: no write characteristic.
extern const std::int64_t errorWriteValueCode;
/// Write path and disconnect: no connected peripheral.
extern const std::int64_t errorNOPeripheralCode;
/// Exported only; nothing produces it.
extern const std::int64_t errorReadValueForCharacteristicCode;

/// Message and error domain for errorWriteValueCode.
extern const char* const ZBleWriteValueErrorMsg;
/// Message and error domain for errorNOPeripheralCode.
extern const char* const ZBleNOPeripheralErrorMsg;
/// Exported only.
extern const char* const ZBleReadValueForCharacteristicErrorMsg;

/// resultType of a setting the post accepted.
extern const std::int64_t TQSetCmdSuccess;
/// resultType of a setting the post refused, or of a too short answer.
extern const std::int64_t TQSetCmdFailure;

/// Notification names offered to the application; each value is its own name.
extern const char* const ZBleDidConnectedPeripheral;
extern const char* const ZBleDidConnectedSuccess;
extern const char* const ZBleDidConnectedFailure;
extern const char* const ZBleDidDisConnected;
extern const char* const ZBleManagerStatePowered;
extern const char* const ZBleManagerStatePoweredOn;
extern const char* const ZBleManagerStatePoweredOff;
extern const char* const ZBleDidUpdateValueForCharacteristic;
extern const char* const ZBleUpdateValue;
extern const char* const ZBleVolumeSize;
extern const char* const ZBleBingdingSuccess;
extern const char* const ZBleAllBingdingDevices;

/// User-interface animation durations, in seconds.
extern const float ZDScrollAnimationDuration;
extern const float ZDNormalAnimationDuration;

/// Framework version number and version string.
extern const double TQBleSDKVersionNumber;
extern const char TQBleSDKVersionString[];

}  // namespace tqble
