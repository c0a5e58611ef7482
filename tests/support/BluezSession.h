#pragma once

// The bluez backend against the stand-in bluetoothd, with a delegate that writes down
// every call as a line of text and checks that each one came on the main queue's thread.
// The main queue runs on the real clock: the bus hands over from its own thread.

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/FakeBluez.h"
#include "support/Hex.h"
#include "support/PrivateBus.h"
#include "tqble/ble/CentralManager.h"
#include "tqble/platform/MainQueue.h"

namespace tqble::test {

using namespace std::chrono_literals;

class Recorder final : public ble::CentralManagerDelegate, public ble::PeripheralDelegate {
 public:
  std::vector<std::string> events;
  std::vector<std::int64_t> states;
  std::vector<std::int64_t> rssis;
  std::shared_ptr<ble::Peripheral> last;
  bool offMain = false;

  void centralManagerDidUpdateState(ble::CentralManager& c) override { note(), states.push_back(c.state()); }
  void didDiscoverPeripheral(ble::CentralManager&, const std::shared_ptr<ble::Peripheral>& p, const Dictionary& adv,
                             std::int64_t rssi) override {
    note();
    last = p;
    rssis.push_back(rssi);
    const auto* name = adv.contains("kCBAdvDataLocalName") ? std::get_if<std::string>(&adv.at("kCBAdvDataLocalName")) : nullptr;
    events.push_back("discover " + p->identifier() + " " + (name ? *name : "-"));
  }
  void didConnectPeripheral(ble::CentralManager&, const std::shared_ptr<ble::Peripheral>& p) override {
    note(), events.push_back("connect " + p->identifier());
  }
  void didDisconnectPeripheral(ble::CentralManager&, const std::shared_ptr<ble::Peripheral>& p,
                               const std::optional<TQError>& e) override {
    note(), events.push_back("disconnect " + p->identifier() + error(e));
  }
  void didFailToConnectPeripheral(ble::CentralManager&, const std::shared_ptr<ble::Peripheral>& p,
                                  const std::optional<TQError>& e) override {
    note(), events.push_back("fail " + p->identifier() + error(e));
  }
  void didDiscoverServices(const std::shared_ptr<ble::Peripheral>& p, const std::optional<TQError>& e) override {
    note();
    std::string line = "services";
    for (const auto& s : p->services()) line += " " + s->uuid().UUIDString();
    events.push_back(line + error(e));
  }
  void didDiscoverCharacteristicsForService(const std::shared_ptr<ble::Peripheral>&, const std::shared_ptr<ble::Service>& s,
                                            const std::optional<TQError>& e) override {
    note();
    std::string line = "characteristics " + s->uuid().UUIDString() + ":";
    for (const auto& c : s->characteristics()) line += " " + c->uuid().UUIDString() + "/" + std::to_string(c->properties());
    events.push_back(line + error(e));
  }
  void didUpdateValueForCharacteristic(const std::shared_ptr<ble::Peripheral>&, const std::shared_ptr<ble::Characteristic>& c,
                                       const std::optional<TQError>& e) override {
    note(), events.push_back("update " + c->uuid().UUIDString() + " " + spaced(c->value(), "") + error(e));
  }
  void didWriteValueForCharacteristic(const std::shared_ptr<ble::Peripheral>&, const std::shared_ptr<ble::Characteristic>& c,
                                      const std::optional<TQError>& e) override {
    note(), events.push_back("write " + c->uuid().UUIDString() + error(e));
  }

 private:
  static std::string error(const std::optional<TQError>& e) {
    return e ? " error " + std::to_string(e->code) + " " + e->domain : "";
  }
  void note() { offMain = offMain || std::this_thread::get_id() != mainThread_; }
  std::thread::id mainThread_ = std::this_thread::get_id();
};

/// A fresh fake bluetoothd with one post, and a bluez central on it.
class BluezSession : public ::testing::Test {
 public:
  static void SetUpTestSuite() { usePrivateSystemBus(); }

  void SetUp() override {
    fake = std::make_unique<FakeBluez>();
    sim::PostSetup setup;
    setup.identifier = "C0:FF:EE:00:00:01";
    setup.initialReadValue = {0x00};
    post = fake->addPost(setup);
  }

  void TearDown() override { EXPECT_FALSE(recorder->offMain) << "a delegate call came off the main queue"; }

  void makeCentral() {
    central = ble::backendNamed("bluez")(recorder);
    ASSERT_TRUE(runUntil([&] { return !recorder->states.empty(); }));
  }

  static bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds limit = 2s) {
    return MainQueue::main().runUntil(done, limit);
  }
  static void settle(std::chrono::milliseconds span = 100ms) { MainQueue::main().runFor(span); }
  bool heard(const std::string& line) const {
    return std::find(recorder->events.begin(), recorder->events.end(), line) != recorder->events.end();
  }
  bool called(const std::string& line) const {
    return std::find(fake->calls().begin(), fake->calls().end(), line) != fake->calls().end();
  }

  /// The peripheral heard last.
  const std::shared_ptr<ble::Peripheral>& peripheral() const { return recorder->last; }

  /// Scans until the post is heard, stops, and returns its peripheral.
  std::shared_ptr<ble::Peripheral> find() {
    central->scanForPeripheralsWithServices({}, {});
    if (!runUntil([&] { return recorder->last != nullptr; })) {
      throw std::runtime_error("the post was not heard; calls: " + ::testing::PrintToString(fake->calls()));
    }
    central->stopScan();
    recorder->last->setDelegate(recorder);
    return recorder->last;
  }

  /// Finds and connects the post, discovers everything; returns FFF3 and FFF4.
  std::pair<std::shared_ptr<ble::Characteristic>, std::shared_ptr<ble::Characteristic>> link() {
    auto p = find();
    central->connectPeripheral(p, {});
    p->discoverServices({});  // refused until connected: the manager asks after didConnect
    EXPECT_TRUE(runUntil([&] { return heard("connect C0:FF:EE:00:00:01"); }));
    p->discoverServices({});
    EXPECT_TRUE(runUntil([&] { return !p->services().empty(); }));
    auto charger = p->services().back();
    p->discoverCharacteristics({}, charger);
    EXPECT_TRUE(runUntil([&] { return !charger->characteristics().empty(); }));
    recorder->events.clear();
    return {charger->characteristics().at(0), charger->characteristics().at(1)};
  }

  std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
  std::unique_ptr<FakeBluez> fake;
  std::shared_ptr<sim::VirtualPost> post;
  std::shared_ptr<ble::CentralManager> central;
};

}  // namespace tqble::test
