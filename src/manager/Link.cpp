// Adapter state, scanning and connection.
#include <chrono>

#include "manager/LocalErrors.h"
#include "tqble/TQBleManager.h"
#include "tqble/platform/MainQueue.h"
#include "tqble/platform/NotificationCenter.h"

namespace tqble {
namespace {

constexpr char kStateNotification[] = "CentralManagerDidUpdateStateNotification";
constexpr auto kSystemInfoDelay = std::chrono::nanoseconds(3'000'000'000);

}  // namespace

void TQBleManager::scanForPeripherals() {
  centralManager_->scanForPeripheralsWithServices({}, {});
}

void TQBleManager::startConnectPeripheral(const PeripheralPtr& peripheral) {
  centralManager_->connectPeripheral(peripheral, {});
}

void TQBleManager::stopConnectPeripheral(const PeripheralPtr& peripheral,
                                         const TQErrorHandler& error) {
  if (peripheral) {
    centralManager_->stopScan();
    centralManager_->cancelPeripheralConnection(peripheral);
    return;
  }
  if (error) error(detail::noPeripheralError());
}

void TQBleManager::stopScan() {
  if (centralManager_) centralManager_->stopScan();
}

void TQBleManager::centralManagerDidUpdateState(ble::CentralManager& central) {
  if (auto delegate = liveDelegate(); delegate && delegate->tqbleManagerCenterState) {
    delegate->tqbleManagerCenterState(central.state());
  }
  NotificationCenter::defaultCenter().post(kStateNotification, nullptr,
                                           {{kStateNotification, Value{central.state()}}});
}

void TQBleManager::didDiscoverPeripheral(ble::CentralManager& /*central*/,
                                         const PeripheralPtr& peripheral,
                                         const Dictionary& /*advertisementData*/,
                                         std::int64_t RSSI) {
  if (auto delegate = liveDelegate(); delegate && delegate->didDiscoverPeripheral) {
    delegate->didDiscoverPeripheral(*this, peripheral, RSSI);
  }
}

void TQBleManager::didConnectPeripheral(ble::CentralManager& /*central*/,
                                        const PeripheralPtr& peripheral) {
  connectedPheral_ = peripheral;
  peripheral->setDelegate(weak_from_this());
  peripheral->discoverServices({});
  if (auto delegate = liveDelegate(); delegate && delegate->didConnectPeripheral) {
    delegate->didConnectPeripheral(*this, peripheral);
  }
  // Not cancelled by a disconnection: it runs against whatever state there is then.
  MainQueue::main().asyncAfter(kSystemInfoDelay, [self = shared_from_this()] {
    self->querySystemInfoWithError([](const TQError&) {});
  });
}

void TQBleManager::didDisconnectPeripheral(ble::CentralManager& /*central*/,
                                           const PeripheralPtr& peripheral,
                                           const std::optional<TQError>& error) {
  if (connectedPheral_) connectedPheral_.reset();
  if (auto delegate = liveDelegate(); delegate && delegate->didDisconnectPeripheral) {
    delegate->didDisconnectPeripheral(*this, peripheral, error);
  }
}

void TQBleManager::didFailToConnectPeripheral(ble::CentralManager& /*central*/,
                                              const PeripheralPtr& peripheral,
                                              const std::optional<TQError>& error) {
  if (connectedPheral_) connectedPheral_.reset();
  if (auto delegate = liveDelegate(); delegate && delegate->didFailToConnectPeripheral) {
    delegate->didFailToConnectPeripheral(*this, peripheral, error);
  }
}

}  // namespace tqble
