// Cost of notifications on the bluez backend, from the PropertiesChanged(Value) signals of
// a stand-in bluetoothd through the main queue's read of the bus to the peripheral
// delegate's call. Compare with the receive figures of reception_bench.cpp, which start at
// that delegate call.
//
// The stand-in is python-dbusmock's BlueZ template on a private system bus, started by
// bluez_standin.py (make bench does) with the post of post_template.py, whose Burst sends
// numbered notifications: one, the six of a history answer, 20,000 at once, or 1,000 paced
// as a link delivers them (7.5 ms apart). Each arrives once and in order, or the figure is
// refused. cpu_us is the process's CPU time per notification (the wait for the next one
// blocks). Instructions per notification: bench/bluez_figures.py runs the burst under
// callgrind, collecting in receive() only.
#include <benchmark/benchmark.h>

#include <ctime>

#include "ble/bluez/Bus.h"
#include "tqble/ble/CentralManager.h"
#include "tqble/platform/Log.h"
#include "tqble/platform/MainQueue.h"

namespace {

using namespace tqble;
using namespace tqble::bluez;
using namespace std::chrono_literals;

constexpr char kBlueZ[] = "org.bluez";
constexpr char kMock[] = "org.bluez.Mock";

struct Counter final : ble::CentralManagerDelegate, ble::PeripheralDelegate {
  std::shared_ptr<ble::Peripheral> heard;
  bool connected = false;
  std::shared_ptr<ble::Service> charger;
  std::uint32_t updates = 0;  // of the current burst, each numbered as it should be
  bool misnumbered = false;   // one was lost, repeated or out of order
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
  void didUpdateValueForCharacteristic(const std::shared_ptr<ble::Peripheral>&, const std::shared_ptr<ble::Characteristic>& c,
                                       const std::optional<TQError>&) override {
    const Bytes value = c->value();
    const auto number = value.size() < 4 ? ~0u : std::uint32_t{value[0]} << 24 | value[1] << 16 | value[2] << 8 | value[3];
    misnumbered = misnumbered || number != updates;
    ++updates;
  }
  void didWriteValueForCharacteristic(const std::shared_ptr<ble::Peripheral>&, const std::shared_ptr<ble::Characteristic>&,
                                      const std::optional<TQError>&) override {}
};

// One linked, subscribed post for the process; `ready` false (and `problem` why) when the
// setup failed.
struct Linked {
  Linked() {
    setLogSink([](std::string_view) {});
    try {
      bus = Bus::openSystem();
    } catch (const BusFailure& e) {
      problem = e.what();
      return;
    }
    // Only a stand-in answers its mock interface: a real adapter is never touched.
    if (!ask("GetCalls", {}, "org.freedesktop.DBus.Mock")) {
      problem = "no stand-in bluetoothd: run the benchmarks through bench/bluez_standin.py (make bench)";
      return;
    }
    problem = "the stand-in's post was not linked";
    auto& q = MainQueue::main();
    central = ble::backendNamed("bluez")(counter);
    q.runUntil([&] { return central->state() == ble::CentralManagerStatePoweredOn; }, 5s);
    central->scanForPeripheralsWithServices({}, {});
    const auto added = ask("AddPost", {"TQ-AC7-0042"});
    if (!added || !q.runUntil([&] { return counter->heard != nullptr; }, 5s)) return;
    notifier = *added->front().as<std::string>();
    central->stopScan();
    counter->heard->setDelegate(counter);
    central->connectPeripheral(counter->heard, {});
    if (!q.runUntil([&] { return counter->connected; }, 5s)) return;
    counter->heard->discoverServices({});
    if (!q.runUntil([&] { return counter->charger && !counter->charger->characteristics().empty(); }, 5s)) return;
    bool notifying = false;
    const auto started = bus->subscribe(
        "type='signal',sender='org.bluez',interface='org.freedesktop.DBus.Properties',path='" + notifier + "'",
        "sa{sv}as", [&](const BusSignal& s) {
          const auto* on = s.args[1].at("Notifying");
          notifying = notifying || (on && on->as<bool>() && *on->as<bool>());
        });
    counter->heard->setNotifyValue(true, counter->charger->characteristics().at(1));
    ready = q.runUntil([&] { return notifying; }, 5s);
  }

  // Calls the stand-in's `method` and waits for its answer; nothing on an error or none.
  std::optional<BusList> ask(const std::string& method, BusList args, const std::string& interface = kMock) {
    std::optional<BusReply> reply;
    bus->call(kBlueZ, "/", interface, method, args, 5s, method == "AddPost" ? "o" : "",
              [&](const BusReply& r) { reply = r; });
    if (!MainQueue::main().runUntil([&] { return reply.has_value(); }, 6s) || reply->error) return std::nullopt;
    return reply->values;
  }

  std::shared_ptr<Bus> bus;  // the stand-in's steering wheel
  std::shared_ptr<Counter> counter = std::make_shared<Counter>();
  std::shared_ptr<ble::CentralManager> central;
  std::string notifier;  // the post's notifying characteristic
  bool ready = false;
  std::string problem;
};

Linked* linked(benchmark::State& state) {
  // The bus is read on the real clock (the receive benchmarks choose a virtual one).
  static const auto link = MainQueue::main().isVirtual() ? nullptr : std::make_unique<Linked>();
  if (!link) state.SkipWithError("the main queue runs on a virtual clock (run the bluez benchmarks first)");
  else if (!link->ready) state.SkipWithError(link->problem.c_str());
  return link && link->ready ? link.get() : nullptr;
}

// The stand-in sends `count` notifications `pace` seconds apart; the queue runs until the
// last reached the delegate. Whether each arrived once, in order.
[[gnu::noinline]] bool receive(Linked& link, std::uint32_t count, double pace) {
  link.counter->updates = 0;
  link.counter->misnumbered = false;
  link.bus->call(kBlueZ, "/", kMock, "Burst", {BusValue::path(link.notifier), BusValue::uint32(count), BusValue(pace)},
                 600s);
  const bool all = MainQueue::main().runUntil([&] { return link.counter->updates >= count; },
                                              std::chrono::seconds(30 + static_cast<int>(count * pace)));
  return all && !link.counter->misnumbered;
}

void notifications(benchmark::State& state, std::uint32_t count, double pace = 0) {
  auto* link = linked(state);
  if (!link) return;
  double cpu = 0;
  for (auto _ : state) {
    const auto before = std::clock();
    if (!receive(*link, count, pace)) return state.SkipWithError("a notification was lost, repeated or reordered");
    cpu += static_cast<double>(std::clock() - before) / CLOCKS_PER_SEC;
  }
  const auto items = state.iterations() * count;
  state.SetItemsProcessed(static_cast<std::int64_t>(items));
  state.counters["cpu_us"] = cpu * 1e6 / static_cast<double>(items);
  state.SetLabel("items = notifications, signal to delegate call");
}

void BM_BluezNotificationOneAtATime(benchmark::State& state) { notifications(state, 1); }
void BM_BluezNotificationsOfAHistoryAnswer(benchmark::State& state) { notifications(state, 6); }
void BM_BluezNotificationBurst(benchmark::State& state) { notifications(state, 20'000); }
void BM_BluezNotificationsPaced(benchmark::State& state) { notifications(state, 1'000, 0.0075); }
BENCHMARK(BM_BluezNotificationOneAtATime);
BENCHMARK(BM_BluezNotificationsOfAHistoryAnswer);
BENCHMARK(BM_BluezNotificationBurst)->Iterations(1)->Unit(benchmark::kSecond);
BENCHMARK(BM_BluezNotificationsPaced)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace
