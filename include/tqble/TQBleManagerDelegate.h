#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "tqble/Models.h"
#include "tqble/TQError.h"
#include "tqble/ble/Peripheral.h"

namespace tqble {

class TQBleManager;

/// The application's callbacks; every one is optional (an empty function is "not
/// implemented"). The manager holds the delegate weakly and reads it before each call.
struct TQBleManagerDelegate {
  using PeripheralPtr = std::shared_ptr<ble::Peripheral>;

  /// Every adapter state change, with the platform's state value.
  std::function<void(std::int64_t state)> tqbleManagerCenterState;
  /// Every advertisement report.
  std::function<void(TQBleManager& manager, const PeripheralPtr& peripheral, std::int64_t RSSI)>
      didDiscoverPeripheral;
  /// A connection succeeded and service discovery was started.
  std::function<void(TQBleManager& manager, const PeripheralPtr& peripheral)> didConnectPeripheral;
  /// The link was lost or closed.
  std::function<void(TQBleManager& manager, const PeripheralPtr& peripheral,
                     const std::optional<TQError>& error)>
      didDisconnectPeripheral;
  /// A connection attempt failed.
  std::function<void(TQBleManager& manager, const PeripheralPtr& peripheral,
                     const std::optional<TQError>& error)>
      didFailToConnectPeripheral;
  /// After every value update, complete answer or not, with the current result holder.
  std::function<void(TQBleManager& manager, const std::shared_ptr<TQBleDataModel>& dataModel,
                     const std::optional<TQError>& error)>
      didUpdateValueForCharacteristicValue;
  /// The platform confirmed a write.
  std::function<void(TQBleManager& manager,
                     const std::shared_ptr<ble::Characteristic>& characteristic,
                     const std::optional<TQError>& error)>
      didWriteValueForCharacteristic;
};

}  // namespace tqble
