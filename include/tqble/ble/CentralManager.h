#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tqble/TQError.h"
#include "tqble/ble/Peripheral.h"

namespace tqble::ble {

class CentralManager;

/// Adapter states, with the platform's values.
enum CentralManagerState : std::int64_t {
  CentralManagerStateUnknown = 0,
  CentralManagerStateResetting = 1,
  CentralManagerStateUnsupported = 2,
  CentralManagerStateUnauthorized = 3,
  CentralManagerStatePoweredOff = 4,
  CentralManagerStatePoweredOn = 5,
};

/// Receives the central's events, on the main queue.
class CentralManagerDelegate {
 public:
  virtual ~CentralManagerDelegate() = default;
  virtual void centralManagerDidUpdateState(CentralManager& central) = 0;
  virtual void didDiscoverPeripheral(CentralManager& central,
                                     const std::shared_ptr<Peripheral>& peripheral,
                                     const Dictionary& advertisementData, std::int64_t RSSI) = 0;
  virtual void didConnectPeripheral(CentralManager& central,
                                    const std::shared_ptr<Peripheral>& peripheral) = 0;
  virtual void didDisconnectPeripheral(CentralManager& central,
                                       const std::shared_ptr<Peripheral>& peripheral,
                                       const std::optional<TQError>& error) = 0;
  virtual void didFailToConnectPeripheral(CentralManager& central,
                                          const std::shared_ptr<Peripheral>& peripheral,
                                          const std::optional<TQError>& error) = 0;
};

/// The central role of a Bluetooth LE stack. Every event reaches the delegate on the
/// main queue.
class CentralManager {
 public:
  virtual ~CentralManager() = default;
  /// The adapter state (CentralManagerState).
  virtual std::int64_t state() const = 0;
  /// Starts scanning for peripherals offering `serviceUUIDs`, or for all when empty.
  virtual void scanForPeripheralsWithServices(const std::vector<UUID>& serviceUUIDs,
                                              const Dictionary& options) = 0;
  /// Stops scanning; harmless when not scanning.
  virtual void stopScan() = 0;
  /// Begins connecting; the outcome arrives as didConnect or didFailToConnect.
  virtual void connectPeripheral(const std::shared_ptr<Peripheral>& peripheral,
                                 const Dictionary& options) = 0;
  /// Drops a connection or a pending attempt; the outcome arrives as didDisconnect.
  virtual void cancelPeripheralConnection(const std::shared_ptr<Peripheral>& peripheral) = 0;
};

/// Makes a central that reports to `delegate` (held weakly).
using CentralFactory =
    std::function<std::shared_ptr<CentralManager>(std::weak_ptr<CentralManagerDelegate> delegate)>;

/// The factory of a named backend ("sim"); empty when the name is unknown.
CentralFactory backendNamed(const std::string& name);

/// The names of the backends built into this library.
std::vector<std::string> backendNames();

}  // namespace tqble::ble
