#pragma once

// The bluez backend against the stand-in bluetoothd, with a delegate that writes down
// every call as a line of text and checks that each one came on the main queue's thread.
// The main queue runs on the real clock and reads the bus connections itself.

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
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

class BleRecorder final : public ble::CentralManagerDelegate, public ble::PeripheralDelegate {
  using Central = ble::CentralManager;
  using Peer = std::shared_ptr<ble::Peripheral>;
  using Chrc = std::shared_ptr<ble::Characteristic>;
  using Error = std::optional<TQError>;

 public:
  std::vector<std::string> events;
  std::vector<std::int64_t> states;
  Peer last;  ///< heard last
  bool offMain = false;

  void centralManagerDidUpdateState(Central& c) override { note(), states.push_back(c.state()); }
  void didDiscoverPeripheral(Central&, const Peer& p, const Dictionary& adv,
                             std::int64_t rssi) override {
    last = p;
    const auto name = adv.find("kCBAdvDataLocalName");
    add("discover " + p->identifier() + " " +
        (name == adv.end() ? "-" : std::get<std::string>(name->second)) + " " +
        std::to_string(rssi));
  }
  void didConnectPeripheral(Central&, const Peer& p) override { add("connect " + p->identifier()); }
  void didDisconnectPeripheral(Central&, const Peer& p, const Error& e) override {
    add("disconnect " + p->identifier(), e);
  }
  void didFailToConnectPeripheral(Central&, const Peer& p, const Error& e) override {
    add("fail " + p->identifier(), e);
  }
  void didDiscoverServices(const Peer& p, const Error& e) override {
    std::string line = "services";
    for (const auto& s : p->services()) line += " " + s->uuid().UUIDString();
    add(line, e);
  }
  void didDiscoverCharacteristicsForService(const Peer&, const std::shared_ptr<ble::Service>&,
                                            const Error& e) override {
    add("characteristics", e);
  }
  void didUpdateValueForCharacteristic(const Peer&, const Chrc& c, const Error& e) override {
    add("update " + c->uuid().UUIDString() + " " + spaced(c->value(), ""), e);
  }
  void didWriteValueForCharacteristic(const Peer&, const Chrc& c, const Error& e) override {
    add("write " + c->uuid().UUIDString(), e);
  }

 private:
  void add(const std::string& line, const std::optional<TQError>& e = std::nullopt) {
    note();
    events.push_back(line + (e ? " error " + std::to_string(e->code) + " " + e->domain : ""));
  }
  void note() { offMain = offMain || std::this_thread::get_id() != mainThread_; }
  std::thread::id mainThread_ = std::this_thread::get_id();
};

/// A fresh stand-in bluetoothd with one post, and a bluez central on it.
class BluezSession : public ::testing::Test {
 public:
  static void SetUpTestSuite() { usePrivateSystemBus(); }
  void SetUp() override { startBluez(); }
  /// bluetoothd (again), every object anew, with the post in range of hci0.
  void startBluez() {
    fake.reset();
    fake = std::make_unique<FakeBluez>();
    sim::PostSetup setup;
    setup.identifier = "C0:FF:EE:00:00:01";
    setup.initialReadValue = {0x00};
    post = fake->addPost(setup);
  }

  void TearDown() override { EXPECT_FALSE(recorder->offMain) << "a call off the main queue"; }

  void makeCentral() {
    central = ble::backendNamed("bluez")(recorder);
    ASSERT_TRUE(runUntil([&] { return !recorder->states.empty(); }));
  }

  static bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds limit = 2s) {
    return MainQueue::main().runUntil(done, limit);
  }
  /// Returns once the stand-in has handled every call this process sent before, what they
  /// set off is done, and all it sent meanwhile has been delivered: absence is proven by
  /// this round trip, never by a pause.
  static void barrier() {
    ASSERT_FALSE(
        callAndWait(*bluez::Bus::system(), "org.bluez", "/", "org.bluez.Test", "Barrier", {}, "", 5s).error);
    MainQueue::main().runUntilIdle();
  }
  static bool has(const std::vector<std::string>& lines, const std::string& line) {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
  }
  bool heard(const std::string& line) const { return has(recorder->events, line); }
  bool called(const std::string& line) const { return has(fake->calls(), line); }

  /// Scans until the post is heard, stops, and returns its peripheral.
  std::shared_ptr<ble::Peripheral> find() {
    recorder->last = nullptr;
    central->scanForPeripheralsWithServices({}, {});
    EXPECT_TRUE(runUntil([&] { return recorder->last != nullptr; }))
        << ::testing::PrintToString(fake->calls());
    central->stopScan();
    if (recorder->last) recorder->last->setDelegate(recorder);
    return recorder->last;
  }

  /// Connects the post (found first unless given), discovers everything once bluetoothd has
  /// resolved it (as on a fast link, or from its cache); returns FFF3 and FFF4.
  std::pair<std::shared_ptr<ble::Characteristic>, std::shared_ptr<ble::Characteristic>> link(
      std::shared_ptr<ble::Peripheral> p = nullptr) {
    if (!p) p = find();
    central->connectPeripheral(p, {});
    EXPECT_TRUE(runUntil([&] { return heard("connect C0:FF:EE:00:00:01"); }));
    barrier();
    p->discoverServices({});
    EXPECT_TRUE(runUntil([&] { return !p->services().empty(); }));
    auto charger = p->services().back();
    p->discoverCharacteristics({}, charger);
    EXPECT_TRUE(runUntil([&] { return !charger->characteristics().empty(); }));
    recorder->events.clear();
    return {charger->characteristics().at(0), charger->characteristics().at(1)};
  }

  std::shared_ptr<BleRecorder> recorder = std::make_shared<BleRecorder>();
  std::unique_ptr<FakeBluez> fake;
  std::shared_ptr<sim::VirtualPost> post;
  std::shared_ptr<ble::CentralManager> central;
};

/// The same with the central made at once.
class BluezLink : public BluezSession {
  void SetUp() override { BluezSession::SetUp(), makeCentral(); }
};

}  // namespace tqble::test
