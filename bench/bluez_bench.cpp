// Cost of one notification on the bluez backend, from the PropertiesChanged(Value) signal
// of the stand-in bluetoothd (private dbus-daemon) through the bus thread's hand-over to
// the peripheral delegate's call on the main queue. Compare with the receive figures of
// reception_bench.cpp, which start at that delegate call.
#include <benchmark/benchmark.h>

#include "support/FakeBluez.h"
#include "support/PrivateBus.h"
#include "tqble/ble/CentralManager.h"
#include "tqble/platform/Log.h"
#include "tqble/platform/MainQueue.h"

namespace {

using namespace tqble;
using namespace std::chrono_literals;

struct Counter final : ble::CentralManagerDelegate, ble::PeripheralDelegate {
  std::shared_ptr<ble::Peripheral> heard;
  bool connected = false;
  std::shared_ptr<ble::Service> charger;
  std::uint64_t updates = 0;
  void centralManagerDidUpdateState(ble::CentralManager&) override {}
  void didDiscoverPeripheral(ble::CentralManager&, const std::shared_ptr<ble::Peripheral>& p, const Dictionary&,
                             std::int64_t) override {
    heard = p;
  }
  void didConnectPeripheral(ble::CentralManager&, const std::shared_ptr<ble::Peripheral>&) override { connected = true; }
  void didDisconnectPeripheral(ble::CentralManager&, const std::shared_ptr<ble::Peripheral>&,
                               const std::optional<TQError>&) override {}
  void didFailToConnectPeripheral(ble::CentralManager&, const std::shared_ptr<ble::Peripheral>&,
                                  const std::optional<TQError>&) override {}
  void didDiscoverServices(const std::shared_ptr<ble::Peripheral>& p, const std::optional<TQError>&) override {
    charger = p->services().back();
    p->discoverCharacteristics({}, charger);
  }
  void didDiscoverCharacteristicsForService(const std::shared_ptr<ble::Peripheral>&, const std::shared_ptr<ble::Service>&,
                                            const std::optional<TQError>&) override {}
  void didUpdateValueForCharacteristic(const std::shared_ptr<ble::Peripheral>&, const std::shared_ptr<ble::Characteristic>&,
                                       const std::optional<TQError>&) override {
    ++updates;
  }
  void didWriteValueForCharacteristic(const std::shared_ptr<ble::Peripheral>&, const std::shared_ptr<ble::Characteristic>&,
                                      const std::optional<TQError>&) override {}
};

// One linked, subscribed post for the process; null when the setup failed.
struct Linked {
  Linked() {
    setLogSink([](std::string_view) {});
    test::usePrivateSystemBus();
    fake = std::make_unique<test::FakeBluez>();
    sim::PostSetup setup;
    setup.identifier = "C0:FF:EE:00:00:01";
    post = fake->addPost(setup);
    auto& q = MainQueue::main();
    central = ble::backendNamed("bluez")(counter);
    q.runUntil([&] { return central->state() == ble::CentralManagerStatePoweredOn; }, 2s);
    central->scanForPeripheralsWithServices({}, {});
    if (!q.runUntil([&] { return counter->heard != nullptr; }, 2s)) return;
    central->stopScan();
    counter->heard->setDelegate(counter);
    central->connectPeripheral(counter->heard, {});
    if (!q.runUntil([&] { return counter->connected; }, 2s)) return;
    counter->heard->discoverServices({});
    if (!q.runUntil([&] { return counter->charger && !counter->charger->characteristics().empty(); }, 2s)) return;
    counter->heard->setNotifyValue(true, counter->charger->characteristics().at(1));
    ready = q.runUntil([&] { return fake->notifySessions(post) == 1; }, 2s);
  }
  std::unique_ptr<test::FakeBluez> fake;
  std::shared_ptr<sim::VirtualPost> post;
  std::shared_ptr<Counter> counter = std::make_shared<Counter>();
  std::shared_ptr<ble::CentralManager> central;
  bool ready = false;
};

Linked* linked(benchmark::State& state) {
  // Hand-overs from the bus thread need the real clock (the receive benchmarks choose a virtual one).
  static const auto link = MainQueue::main().isVirtual() ? nullptr : std::make_unique<Linked>();
  if (!link || !link->ready) state.SkipWithError("no link to the stand-in bluetoothd (run the bluez benchmarks first)");
  return link && link->ready ? link.get() : nullptr;
}

// `inFlight` notifications are sent, then the queue runs until each reached the delegate.
void notifications(benchmark::State& state, int inFlight) {
  auto* link = linked(state);
  if (!link) return;
  const Bytes piece(20, 0x5A);
  auto& q = MainQueue::main();
  for (auto _ : state) {
    const auto target = link->counter->updates + static_cast<std::uint64_t>(inFlight);
    for (int i = 0; i < inFlight; ++i) link->fake->notify(link->post, piece);
    while (link->counter->updates < target) q.runUntilIdle();
  }
  state.SetItemsProcessed(state.iterations() * inFlight);
  state.SetLabel("items = notifications, signal to delegate call");
}

void BM_BluezNotificationOneAtATime(benchmark::State& state) { notifications(state, 1); }
void BM_BluezNotificationsOfAHistoryAnswer(benchmark::State& state) { notifications(state, 6); }
BENCHMARK(BM_BluezNotificationOneAtATime);
BENCHMARK(BM_BluezNotificationsOfAHistoryAnswer);

}  // namespace
