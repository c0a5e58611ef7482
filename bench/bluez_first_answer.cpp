// From connect() to the first typed answer through the client on the bluez backend:
// ChargerClient::connect("TQ-AC7-0042"), then queryChargerState(), timed from the connect
// call to the answer's completion; then the link is closed and its end awaited before
// the next run. Ten runs, with their median, minimum and maximum, and when each run heard
// the post, had the link up and had it ready.
//
// The stand-in bluetoothd (python-dbusmock's BlueZ template, bench/bluez_standin.py) is
// made to act as bluetoothd does with a post in range whose attributes it has cached from
// an earlier link: the post is heard as soon as discovery starts, Connect brings the link
// up with its services resolved, a read signals the value before it replies, and a write
// is answered with the notifications of a charger-state answer, as the simulated post
// lays it out. Its time per call and signal is part of the figures.
//
// Runs only when asked for alone (--benchmark_filter=BluezFirstAnswer, as make bench does):
// it puts the process's manager on the bluez backend, and the other client figures need the
// simulator.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <optional>

#include "ble/bluez/BluezInternal.h"
#include "protocol/Frame.h"
#include "tqble/client/ChargerClient.h"
#include "tqble/platform/Log.h"
#include "tqble/platform/MainQueue.h"
#include "tqble/sim/VirtualPost.h"

namespace {

using namespace tqble;
using namespace tqble::bluez;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr char kMock[] = "org.freedesktop.DBus.Mock";
constexpr char kPostName[] = "TQ-AC7-0042";
const std::string kAdapter = "/org/bluez/hci0";
const std::string kDevice = kAdapter + "/dev_C0_FF_EE_00_00_42";
const std::string kService = kDevice + "/service0010";
const std::string kWrite = kService + "/char0011";
const std::string kRead = kService + "/char0013";

// ---- The stand-in's behaviour, as Python its mock methods run ----------------------------

// A property set on `object` (a Python expression); dbusmock's Set signals PropertiesChanged.
std::string set(const std::string& object, const char* interface, const char* property,
                const std::string& value) {
  return object + ".Set('" + interface + "', '" + property + "', " + value + ")\n";
}

std::string boolean(bool on) {
  return on ? "dbus.Boolean(True, variant_level=1)" : "dbus.Boolean(False, variant_level=1)";
}

std::string bytes(const Bytes& b, std::size_t from, std::size_t to) {
  std::string out = "dbus.Array([";
  for (std::size_t i = from; i < to; ++i) out += std::to_string(b[i]) + ",";
  return out + "], signature='y', variant_level=1)";
}

// The charger-state answer of a post, made by the simulated one from the request frame.
Bytes stateAnswer() {
  sim::VirtualPost post;
  return post
      .handleWrite(
          protocol::buildFrame(protocol::kCmdChargerState, 0, nullptr, post.checksumSeed()))
      .at(0);
}

// WriteValue: once the write is acknowledged, the read characteristic notifies the answer
// in pieces of at most one notification's size.
std::string answerEveryWrite() {
  const Bytes answer = stateAnswer();
  std::string pieces;
  for (std::size_t at = 0; at < answer.size(); at += protocol::kFullNotification)
    pieces += bytes(answer, at, std::min(answer.size(), at + protocol::kFullNotification)) + ",";
  return "from gi.repository import GLib\n"
         "GLib.idle_add(lambda read=objects['" +
         kRead + "'], pieces=[" + pieces + "]: [" + "read.Set('" + kCharacteristicInterface +
         "', 'Value', piece) for piece in pieces] and False)\n";
}

// ---- Steering the stand-in --------------------------------------------------------------

struct Standin {
  std::shared_ptr<Bus> bus;
  std::string problem;

  // Calls the stand-in and waits for its answer; false (and `problem` set) on an error or none.
  bool ask(const std::string& path, const std::string& interface, const std::string& method,
           BusList args) {
    std::optional<BusReply> reply;
    bus->call(kBlueZ, path, interface, method, args, 5s, "", [&](const BusReply& r) { reply = r; });
    if (!MainQueue::main().runUntil([&] { return reply.has_value(); }, 6s)) {
      problem = "the stand-in did not answer " + method;
      return false;
    }
    if (reply->error) problem = method + ": " + reply->error->message;
    return !reply->error;
  }

  bool method(const std::string& path, const char* interface, const char* name, const char* in,
              const char* out, const std::string& code) {
    return ask(path, kMock, "AddMethod",
               {BusValue(interface), BusValue(name), BusValue(in), BusValue(out), BusValue(code)});
  }

  // The post in range with its attributes cached, and bluetoothd's behaviour towards it.
  bool addPost() {
    if (!ask("/", "org.bluez.Mock", "AddDevice",
             {BusValue("hci0"), BusValue("C0:FF:EE:00:00:42"), BusValue(kPostName)}))
      return false;
    const auto uuid = [](const char* id) {
      return BusValue(ble::UUID::fromString(id).fullString());
    };
    const auto call = [](const char* name, const char* in, const char* out,
                         const std::string& code) {
      return BusValue("(ssss)",
                      BusList{BusValue(name), BusValue(in), BusValue(out), BusValue(code)});
    };
    struct Exported {
      std::string path;
      const char* interface;
      BusDict properties;
      BusList methods;
    };
    const std::vector<Exported> objects{
        {kService,
         kServiceInterface,
         {{"UUID", uuid("FFF0")}, {"Device", BusValue::path(kDevice)}, {"Primary", BusValue(true)}},
         {}},
        {kWrite,
         kCharacteristicInterface,
         {{"UUID", uuid("FFF3")},
          {"Service", BusValue::path(kService)},
          {"Flags", BusValue(std::vector<std::string>{"write-without-response", "write"})}},
         {call("WriteValue", "aya{sv}", "", answerEveryWrite())}},
        {kRead,
         kCharacteristicInterface,
         {{"UUID", uuid("FFF4")},
          {"Service", BusValue::path(kService)},
          {"Flags", BusValue(std::vector<std::string>{"read", "notify"})},
          {"Value", BusValue(Bytes{})},
          {"Notifying", BusValue(false)}},
         {call("StartNotify", "", "",
               set("self", kCharacteristicInterface, "Notifying", boolean(true))),
          call("StopNotify", "", "",
               set("self", kCharacteristicInterface, "Notifying", boolean(false))),
          call("ReadValue", "a{sv}", "ay",
               set("self", kCharacteristicInterface, "Value", bytes({}, 0, 0)) +
                   "ret = dbus.Array([], signature='y')")}},
    };
    for (const auto& o : objects) {
      if (!ask("/", kMock, "AddObject",
               {BusValue(o.path), BusValue(o.interface), BusValue(o.properties),
                BusValue("a(ssss)", o.methods)}) ||
          !ask("/", kMock, "EmitSignal",
               {BusValue("org.freedesktop.DBus.ObjectManager"), BusValue("InterfacesAdded"),
                BusValue("oa{sa{sv}}"),
                BusValue("av", BusList{BusValue::path(o.path),
                                       BusValue("a{sa{sv}}",
                                                BusDict{{o.interface, BusValue(o.properties)}})})}))
        return false;
    }
    const std::string device = "objects['" + kDevice + "']";
    return method(kDevice, kDeviceInterface, "Connect", "", "",
                  set("self", kDeviceInterface, "Connected", boolean(true)) +
                      set("self", kDeviceInterface, "ServicesResolved", boolean(true))) &&
           method(kDevice, kDeviceInterface, "Disconnect", "", "",
                  set("self", kDeviceInterface, "ServicesResolved", boolean(false)) +
                      set("self", kDeviceInterface, "Connected", boolean(false))) &&
           method(kAdapter, kAdapterInterface, "StartDiscovery", "", "",
                  set("self", kAdapterInterface, "Discovering", boolean(true)) +
                      set(device, kDeviceInterface, "RSSI", "dbus.Int16(-58, variant_level=1)"));
  }
};

// The client on the bluez backend, its radio on, beside the stand-in steered to act as a
// post; `problem` says why not when the client is missing.
struct Bench {
  Bench() {
    // The SDK's log only when TQBLE_LOG asks for it.
    if (!std::getenv("TQBLE_LOG")) setLogSink([](std::string_view) {});
    // The manager's backend is the process's: asked for with the other figures, this one
    // would leave them on the bluez backend.
    const std::string filter = benchmark::GetBenchmarkFilter();
    if (filter.starts_with('-') || filter.find("BluezFirstAnswer") == std::string::npos) {
      standin.problem = "runs alone: --benchmark_filter=BluezFirstAnswer";
      return;
    }
    try {
      standin.bus = Bus::openSystem();
    } catch (const BusFailure& e) {
      standin.problem = e.what();
      return;
    }
    // Only a stand-in answers its mock interface: a real adapter is never touched.
    if (!standin.ask("/", kMock, "GetCalls", {})) {
      standin.problem =
          "no stand-in bluetoothd: run the benchmark through bench/bluez_standin.py (make bench)";
      return;
    }
    if (!TQBleManager::useBackend("bluez")) {
      standin.problem = "the manager runs on another backend already";
      return;
    }
    if (!standin.addPost()) return;
    auto made = std::make_unique<ChargerClient>();
    if (!made->runUntil([&] { return made->radioNote().empty(); }, 5s)) {
      standin.problem = "the stand-in's adapter is not on" + made->radioNote();
      return;
    }
    client = std::move(made);
    client->setDelegate(phases);
  }

  Standin standin;
  std::unique_ptr<ChargerClient> client;
  std::shared_ptr<TQBleManagerDelegate> phases = std::make_shared<TQBleManagerDelegate>();
};

double msSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

void BM_BluezFirstAnswer(benchmark::State& state) {
  static Bench bench;
  if (!bench.client) return state.SkipWithError(bench.standin.problem.c_str());
  ChargerClient& client = *bench.client;
  for (auto _ : state) {
    const auto start = Clock::now();
    double heard = 0, linked = 0, ready = 0;
    bench.phases->didDiscoverPeripheral = [&](TQBleManager&, const auto&, std::int64_t) {
      heard = msSince(start);
    };
    bench.phases->didConnectPeripheral = [&](TQBleManager&, const auto&) {
      linked = msSince(start);
    };
    const auto link =
        client.wait(client.connect(kPostName, [&](const auto&) { ready = msSince(start); }));
    if (!link.ok()) return state.SkipWithError(("no link: " + link.error().message).c_str());
    const auto answer = client.wait(client.queryChargerState());
    const double answered = msSince(start);
    if (!answer.ok()) return state.SkipWithError(("no answer: " + answer.error().message).c_str());
    state.SetIterationTime(answered / 1000);
    state.counters["heard_ms"] = heard;
    state.counters["linked_ms"] = linked;
    state.counters["ready_ms"] = ready;
    client.disconnect();
    if (!client.runUntil([&] { return client.manager().connectedPheral() == nullptr; }, 5s))
      return state.SkipWithError("the link did not close");
  }
  state.SetLabel("connect() to the typed state answer");
}
BENCHMARK(BM_BluezFirstAnswer)
    ->Iterations(1)
    ->Repetitions(10)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->ComputeStatistics("min",
                        [](const std::vector<double>& v) {
                          return *std::min_element(v.begin(), v.end());
                        })
    ->ComputeStatistics("max", [](const std::vector<double>& v) {
      return *std::max_element(v.begin(), v.end());
    });

}  // namespace
