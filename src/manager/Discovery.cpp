// Service and characteristic discovery: the "FFF0" service, "FFF4" to read, "FFF3" to write.
#include "tqble/TQBleManager.h"
#include "tqble/platform/Log.h"

namespace tqble {
namespace {

constexpr char kServiceUUID[] = "FFF0";
constexpr char kReadUUID[] = "FFF4";
constexpr char kWriteUUID[] = "FFF3";

constexpr const char* kPropertyLines[] = {
    "************ CBCharacteristicPropertyBroadcast",
    "************ CBCharacteristicPropertyRead",
    "************ CBCharacteristicPropertyWriteWithoutResponse",
    "************ CBCharacteristicPropertyWrite",
    "************ CBCharacteristicPropertyNotify",
    "************ CBCharacteristicPropertyIndicate",
    "************ CBCharacteristicPropertyAuthenticatedSignedWrites",
    "************ CBCharacteristicPropertyExtendedProperties",
    "************ CBCharacteristicPropertyNotifyEncryptionRequired",
    "************ CBCharacteristicPropertyIndicateEncryptionRequired",
};

}  // namespace

void TQBleManager::logCharacteristicProperties(std::uint64_t properties) {
  for (std::size_t bit = 0; bit < std::size(kPropertyLines); ++bit) {
    if (properties & (std::uint64_t{1} << bit)) TQLog("%s", kPropertyLines[bit]);
  }
}

void TQBleManager::didDiscoverServices(const PeripheralPtr& peripheral,
                                       const std::optional<TQError>& error) {
  if (error) {
    TQLog("发现服务失败");
    return;
  }
  for (const auto& service : peripheral->services()) {
    if (service->uuid().UUIDString() == kServiceUUID) peripheral->discoverCharacteristics({}, service);
  }
}

void TQBleManager::didDiscoverCharacteristicsForService(
    const PeripheralPtr& peripheral, const std::shared_ptr<ble::Service>& service,
    const std::optional<TQError>& error) {
  if (error) {
    TQLog("发现特征失败");
    return;
  }
  for (const auto& characteristic : service->characteristics()) {
    const std::string uuid = characteristic->uuid().UUIDString();
    if (uuid == kReadUUID) {
      readCharacteristic_ = characteristic;
      peripheral->readValueForCharacteristic(characteristic);
      peripheral->setNotifyValue(true, characteristic);
      logCharacteristicProperties(characteristic->properties());
    } else if (uuid == kWriteUUID) {
      writeCharacteristic_ = characteristic;
      logCharacteristicProperties(characteristic->properties());
    }
  }
}

}  // namespace tqble
