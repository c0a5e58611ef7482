#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tqble/TQError.h"
#include "tqble/ble/UUID.h"
#include "tqble/platform/Value.h"

namespace tqble::ble {

class Peripheral;
class Service;
class Characteristic;

/// Characteristic property bits, with the platform's values.
enum CharacteristicProperty : std::uint64_t {
  CharacteristicPropertyBroadcast = 0x001,
  CharacteristicPropertyRead = 0x002,
  CharacteristicPropertyWriteWithoutResponse = 0x004,
  CharacteristicPropertyWrite = 0x008,
  CharacteristicPropertyNotify = 0x010,
  CharacteristicPropertyIndicate = 0x020,
  CharacteristicPropertyAuthenticatedSignedWrites = 0x040,
  CharacteristicPropertyExtendedProperties = 0x080,
  CharacteristicPropertyNotifyEncryptionRequired = 0x100,
  CharacteristicPropertyIndicateEncryptionRequired = 0x200,
};

/// Write types, with the platform's values.
enum class WriteType : std::int64_t { WithResponse = 0, WithoutResponse = 1 };

/// One characteristic of a discovered service.
class Characteristic {
 public:
  virtual ~Characteristic() = default;
  /// The characteristic's identifier.
  virtual UUID uuid() const = 0;
  /// The property bits (CharacteristicProperty).
  virtual std::uint64_t properties() const = 0;
  /// The last value read or notified.
  virtual Bytes value() const = 0;
  /// The service this characteristic belongs to; empty once that is gone.
  virtual std::shared_ptr<Service> service() const = 0;
};

/// One discovered service.
class Service {
 public:
  virtual ~Service() = default;
  /// The service's identifier.
  virtual UUID uuid() const = 0;
  /// The characteristics discovered so far, in the peer's order.
  virtual std::vector<std::shared_ptr<Characteristic>> characteristics() const = 0;
};

/// Receives a peripheral's events, on the main queue.
class PeripheralDelegate {
 public:
  virtual ~PeripheralDelegate() = default;
  virtual void didDiscoverServices(const std::shared_ptr<Peripheral>& peripheral,
                                   const std::optional<TQError>& error) = 0;
  virtual void didDiscoverCharacteristicsForService(const std::shared_ptr<Peripheral>& peripheral,
                                                    const std::shared_ptr<Service>& service,
                                                    const std::optional<TQError>& error) = 0;
  virtual void didUpdateValueForCharacteristic(
      const std::shared_ptr<Peripheral>& peripheral,
      const std::shared_ptr<Characteristic>& characteristic,
      const std::optional<TQError>& error) = 0;
  virtual void didWriteValueForCharacteristic(const std::shared_ptr<Peripheral>& peripheral,
                                              const std::shared_ptr<Characteristic>& characteristic,
                                              const std::optional<TQError>& error) = 0;
};

/// A remote device as the central sees it.
class Peripheral {
 public:
  virtual ~Peripheral() = default;
  /// A stable identifier of the device (its address, for instance).
  virtual std::string identifier() const = 0;
  /// The advertised name; empty when none.
  virtual std::string name() const = 0;
  /// Routes this peripheral's events to `delegate` (held weakly).
  virtual void setDelegate(std::weak_ptr<PeripheralDelegate> delegate) = 0;
  /// Discovers the services listed, or all of them when the list is empty.
  virtual void discoverServices(const std::vector<UUID>& serviceUUIDs) = 0;
  /// The services discovered so far, in the peer's order.
  virtual std::vector<std::shared_ptr<Service>> services() const = 0;
  /// Discovers the characteristics listed of `service`, or all when the list is empty.
  virtual void discoverCharacteristics(const std::vector<UUID>& characteristicUUIDs,
                                       const std::shared_ptr<Service>& service) = 0;
  /// Reads a characteristic's value once; the value arrives as a value update.
  virtual void readValueForCharacteristic(const std::shared_ptr<Characteristic>& characteristic) = 0;
  /// Switches notifications of a characteristic on or off.
  virtual void setNotifyValue(bool enabled,
                              const std::shared_ptr<Characteristic>& characteristic) = 0;
  /// Writes `data` to a characteristic in one write.
  virtual void writeValue(const Bytes& data, const std::shared_ptr<Characteristic>& characteristic,
                          WriteType type) = 0;
};

}  // namespace tqble::ble
