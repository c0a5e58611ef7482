// Cost of one notification on the bluez backend, from the PropertiesChanged(Value) signal
// of a stand-in bluetoothd through the bus thread's hand-over to the peripheral delegate's
// call on the main queue. Compare with the receive figures of reception_bench.cpp, which
// start at that delegate call.
//
// The stand-in is python-dbusmock's BlueZ template on a private system bus, started by
// bluez_standin.py (make bench does): the post's device and attributes are added through
// its mock interfaces, and each notification is a signal it is asked to emit, so the
// figures include the stand-in's own time per signal, as they would for any client
// measured against it.
#include <benchmark/benchmark.h>

#include "ble/bluez/Bus.h"
#include "tqble/ble/CentralManager.h"
#include "tqble/ble/UUID.h"
#include "tqble/platform/Log.h"
#include "tqble/platform/MainQueue.h"

namespace {

using namespace tqble;
using namespace tqble::bluez;
using namespace std::chrono_literals;

constexpr char kBlueZ[] = "org.bluez";
constexpr char kMock[] = "org.freedesktop.DBus.Mock";
constexpr char kProperties[] = "org.freedesktop.DBus.Properties";
constexpr char kCharacteristic[] = "org.bluez.GattCharacteristic1";
const std::string kDevice = "/org/bluez/hci0/dev_C0_FF_EE_00_00_01";
const std::string kService = kDevice + "/service0010";
const std::string kWrite = kService + "/char0011";
const std::string kRead = kService + "/char0013";

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

// The arguments of the stand-in's EmitSignal: a signal's members as variants.
BusList emitted(const std::string& interface, const std::string& name, const std::string& signature,
                BusList members) {
  return {BusValue(interface), BusValue(name), BusValue(signature), BusValue("av", std::move(members))};
}

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
    if (!ask("/", kMock, "GetCalls", {})) {
      problem = "no stand-in bluetoothd: run the benchmarks through bench/bluez_standin.py (make bench)";
      return;
    }
    problem = "the stand-in's post was not linked";
    auto& q = MainQueue::main();
    central = ble::backendNamed("bluez")(counter);
    q.runUntil([&] { return central->state() == ble::CentralManagerStatePoweredOn; }, 5s);
    central->scanForPeripheralsWithServices({}, {});
    if (!ask("/", "org.bluez.Mock", "AddDevice", {"hci0", "C0:FF:EE:00:00:01", "TQ-AC7-0042"}) ||
        !q.runUntil([&] { return counter->heard != nullptr; }, 5s))
      return;
    central->stopScan();
    counter->heard->setDelegate(counter);
    central->connectPeripheral(counter->heard, {});
    if (!q.runUntil([&] { return counter->connected; }, 5s)) return;
    counter->heard->discoverServices({});
    if (!resolveServices() ||
        !q.runUntil([&] { return counter->charger && !counter->charger->characteristics().empty(); }, 5s))
      return;
    bool notifying = false;
    const auto started = bus->subscribe(
        "type='signal',sender='org.bluez',interface='org.freedesktop.DBus.Properties',path='" + kRead + "'",
        "sa{sv}as", [&](const BusSignal& s) {
          const auto* on = s.args[1].at("Notifying");
          notifying = notifying || (on && on->as<bool>() && *on->as<bool>());
        });
    counter->heard->setNotifyValue(true, counter->charger->characteristics().at(1));
    ready = q.runUntil([&] { return notifying; }, 5s);
    notification = emitted(kProperties, "PropertiesChanged", "sa{sv}as",
                           {BusValue(kCharacteristic), BusValue(BusDict{{"Value", BusValue(Bytes(20, 0x5A))}}),
                            BusValue(std::vector<std::string>{})});
  }

  // Calls the stand-in and waits for its answer; false on an error or none.
  bool ask(const std::string& path, const std::string& interface, const std::string& method, BusList args) {
    std::optional<BusReply> reply;
    bus->call(kBlueZ, path, interface, method, args, 5s, "", [&](const BusReply& r) { reply = r; });
    return MainQueue::main().runUntil([&] { return reply.has_value(); }, 6s) && !reply->error;
  }

  // The charger service as bluetoothd exports it once linked: its objects, their
  // InterfacesAdded, then ServicesResolved.
  bool resolveServices() {
    const auto uuid = [](const char* id) { return BusValue(ble::UUID::fromString(id).fullString()); };
    const auto method = [](const char* name, const char* in, const char* out) {
      return BusValue("(ssss)", BusList{BusValue(name), BusValue(in), BusValue(out), BusValue("")});
    };
    // StartNotify answers as bluetoothd does, with Notifying=true.
    const BusValue startNotify("(ssss)", BusList{BusValue("StartNotify"), BusValue(""), BusValue(""),
                                                 BusValue("self.Set('" + std::string(kCharacteristic) +
                                                          "', 'Notifying', True)")});
    struct Exported {
      std::string path, interface;
      BusDict properties;
      BusList methods;
    };
    const std::vector<Exported> objects{
        {kService, "org.bluez.GattService1",
         {{"UUID", uuid("FFF0")}, {"Device", BusValue::path(kDevice)}, {"Primary", BusValue(true)}}, {}},
        {kWrite, kCharacteristic,
         {{"UUID", uuid("FFF3")}, {"Service", BusValue::path(kService)},
          {"Flags", BusValue(std::vector<std::string>{"write-without-response", "write"})}},
         {method("WriteValue", "aya{sv}", "")}},
        {kRead, kCharacteristic,
         {{"UUID", uuid("FFF4")}, {"Service", BusValue::path(kService)},
          {"Flags", BusValue(std::vector<std::string>{"read", "notify"})}, {"Value", BusValue(Bytes{})},
          {"Notifying", BusValue(false)}},
         {startNotify, method("StopNotify", "", ""), method("ReadValue", "a{sv}", "ay")}},
    };
    for (const auto& o : objects) {
      if (!ask("/", kMock, "AddObject",
               {BusValue(o.path), BusValue(o.interface), BusValue(o.properties), BusValue("a(ssss)", o.methods)}) ||
          !ask("/", kMock, "EmitSignal",
               emitted("org.freedesktop.DBus.ObjectManager", "InterfacesAdded", "oa{sa{sv}}",
                       {BusValue::path(o.path), BusValue("a{sa{sv}}", BusDict{{o.interface, BusValue(o.properties)}})})))
        return false;
    }
    return ask(kDevice, kProperties, "Set",
               {BusValue("org.bluez.Device1"), BusValue("ServicesResolved"), BusValue::variant(BusValue(true))});
  }

  std::shared_ptr<Bus> bus;  // the stand-in's steering wheel
  std::shared_ptr<Counter> counter = std::make_shared<Counter>();
  std::shared_ptr<ble::CentralManager> central;
  BusList notification;
  bool ready = false;
  std::string problem;
};

Linked* linked(benchmark::State& state) {
  // Hand-overs from the bus thread need the real clock (the receive benchmarks choose a virtual one).
  static const auto link = MainQueue::main().isVirtual() ? nullptr : std::make_unique<Linked>();
  if (!link) state.SkipWithError("the main queue runs on a virtual clock (run the bluez benchmarks first)");
  else if (!link->ready) state.SkipWithError(link->problem.c_str());
  return link && link->ready ? link.get() : nullptr;
}

// `inFlight` notifications are asked of the stand-in, then the queue runs until each
// reached the delegate.
void notifications(benchmark::State& state, int inFlight) {
  auto* link = linked(state);
  if (!link) return;
  auto& q = MainQueue::main();
  for (auto _ : state) {
    const auto target = link->counter->updates + static_cast<std::uint64_t>(inFlight);
    for (int i = 0; i < inFlight; ++i)
      link->bus->call(kBlueZ, kRead, kMock, "EmitSignal", link->notification, 5s);
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
