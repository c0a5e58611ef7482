// The write path: one write without response of a whole frame, or a local error.
#include "manager/LocalErrors.h"
#include "tqble/TQBleManager.h"

namespace tqble {

void TQBleManager::writeData(const Bytes& data, const PeripheralPtr& peripheral,
                             const TQErrorHandler& error) {
  if (!peripheral) {
    if (error) error(detail::noPeripheralError());
    return;
  }
  if (!writeCharacteristic_) {
    if (error) error(detail::noWriteCharacteristicError());
    return;
  }
  peripheral->writeValue(data, writeCharacteristic_, ble::WriteType::WithoutResponse);
}

void TQBleManager::didWriteValueForCharacteristic(const PeripheralPtr& /*peripheral*/,
                                                  const CharacteristicPtr& characteristic,
                                                  const std::optional<TQError>& error) {
  if (auto delegate = liveDelegate(); delegate && delegate->didWriteValueForCharacteristic) {
    delegate->didWriteValueForCharacteristic(*this, characteristic, error);
  }
}

}  // namespace tqble
