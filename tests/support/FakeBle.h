#pragma once

// A scripted in-memory central and peripheral for unit tests of the manager. Nothing
// happens by itself: a test calls the manager's platform callbacks directly.

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tqble/TQBleManager.h"
#include "tqble/ble/CentralManager.h"

namespace tqble::test {

struct FakeCharacteristic : ble::Characteristic {
  FakeCharacteristic(std::string uuid, std::uint64_t properties)
      : uuid_(ble::UUID::fromString(uuid)), properties_(properties) {}
  ble::UUID uuid() const override { return uuid_; }
  std::uint64_t properties() const override { return properties_; }
  Bytes value() const override { return value_; }
  std::shared_ptr<ble::Service> service() const override { return {}; }
  ble::UUID uuid_;
  std::uint64_t properties_;
  Bytes value_;
};

struct FakeService : ble::Service {
  explicit FakeService(std::string uuid) : uuid_(ble::UUID::fromString(uuid)) {}
  ble::UUID uuid() const override { return uuid_; }
  std::vector<std::shared_ptr<ble::Characteristic>> characteristics() const override { return characteristics_; }
  ble::UUID uuid_;
  std::vector<std::shared_ptr<ble::Characteristic>> characteristics_;
};

/// Records what is written to it; discovery, reads and notification switches do nothing.
class FakePeripheral : public ble::Peripheral {
 public:
  std::string identifier() const override { return "fake"; }
  std::string name() const override { return "fake post"; }
  void setDelegate(std::weak_ptr<ble::PeripheralDelegate>) override {}
  void discoverServices(const std::vector<ble::UUID>&) override {}
  std::vector<std::shared_ptr<ble::Service>> services() const override { return services_; }
  void discoverCharacteristics(const std::vector<ble::UUID>&, const std::shared_ptr<ble::Service>&) override {}
  void readValueForCharacteristic(const std::shared_ptr<ble::Characteristic>&) override {}
  void setNotifyValue(bool, const std::shared_ptr<ble::Characteristic>&) override {}
  void writeValue(const Bytes& data, const std::shared_ptr<ble::Characteristic>& c, ble::WriteType type) override {
    writes.push_back({data, c, type});
  }

  struct Write {
    Bytes data;
    std::shared_ptr<ble::Characteristic> characteristic;
    ble::WriteType type;
  };
  std::vector<std::shared_ptr<ble::Service>> services_;
  std::vector<Write> writes;
};

/// Powered on; records the names of the calls made to it.
class FakeCentral : public ble::CentralManager {
 public:
  std::int64_t state() const override { return ble::CentralManagerStatePoweredOn; }
  void scanForPeripheralsWithServices(const std::vector<ble::UUID>&, const Dictionary&) override {
    calls.push_back("scan");
  }
  void stopScan() override { calls.push_back("stopScan"); }
  void connectPeripheral(const std::shared_ptr<ble::Peripheral>&, const Dictionary&) override {
    calls.push_back("connect");
  }
  void cancelPeripheralConnection(const std::shared_ptr<ble::Peripheral>&) override { calls.push_back("cancel"); }
  std::vector<std::string> calls;
};

/// Installs a FakeCentral as the manager's central. Call before the first shareManager();
/// every test runs in a process of its own, so each gets a fresh manager.
struct FakeStack {
  static inline std::shared_ptr<FakeCentral> central;

  FakeStack() {
    TQBleManager::useCentralFactory(
        [](std::weak_ptr<ble::CentralManagerDelegate>) { return central = std::make_shared<FakeCentral>(); });
    manager = TQBleManager::shareManager();
  }

  /// A connected post with the "FFF0" service and both characteristics discovered.
  std::shared_ptr<FakePeripheral> connectReadyPost() {
    auto post = std::make_shared<FakePeripheral>();
    auto service = std::make_shared<FakeService>("FFF0");
    write = std::make_shared<FakeCharacteristic>("FFF3", 0x04);
    read = std::make_shared<FakeCharacteristic>("FFF4", 0x12);
    service->characteristics_ = {write, read};
    post->services_ = {service};
    manager->didConnectPeripheral(*central, post);
    manager->didDiscoverServices(post, std::nullopt);
    manager->didDiscoverCharacteristicsForService(post, service, std::nullopt);
    return post;
  }

  /// Delivers one notified chunk on the read characteristic.
  void notify(const std::shared_ptr<FakePeripheral>& post, const Bytes& chunk) {
    read->value_ = chunk;
    manager->didUpdateValueForCharacteristic(post, read, std::nullopt);
  }

  std::shared_ptr<TQBleManager> manager;
  std::shared_ptr<FakeCharacteristic> write;
  std::shared_ptr<FakeCharacteristic> read;
};

}  // namespace tqble::test
