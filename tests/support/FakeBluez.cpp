#include "support/FakeBluez.h"

#include <algorithm>
#include <set>
#include <stdexcept>

#include "../src/ble/sim/SimInternal.h"
#include "support/Hex.h"
#include "tqble/ble/UUID.h"
#include "tqble/platform/MainQueue.h"

namespace tqble::test {
namespace {

using namespace std::chrono_literals;
using bluez::BusCall;
using bluez::BusDict;
using bluez::BusValue;

constexpr char kAdapterI[] = "org.bluez.Adapter1";
constexpr char kDeviceI[] = "org.bluez.Device1";
constexpr char kChrcI[] = "org.bluez.GattCharacteristic1";

// bluetoothd's form: the full identifier in lower case.
std::string full(const std::string& shortId) {
  return ble::UUID::fromString(shortId).fullString();
}

void fail(const BusCall& call, const std::string& name, const std::string& message) {
  call.fail("org.bluez.Error." + name, message);
}

}  // namespace

struct FakeBluez::Adapter {
  std::unique_ptr<bluez::BusObject> object;
  std::set<std::string> discoverers;
};

struct FakeBluez::Device {
  std::string adapter, path;
  std::shared_ptr<sim::VirtualPost> post;
  BluezFaults faults;
  std::unique_ptr<bluez::BusObject> object;             // while bluetoothd knows the device
  std::vector<std::unique_ptr<bluez::BusObject>> gatt;  // kept across links, as bluetoothd's cache
  bluez::BusObject* notify = nullptr;
  bool connected = false, disconnecting = false;
  std::optional<BusCall> pendingConnect;
  std::uint64_t link = 0;
  std::set<std::string> notifiers;
};

FakeBluez::FakeBluez() : bus_(bluez::Bus::openSystem()) {
  root_ = bus_->exportObjectManager("/");
  root_->addMethod("org.bluez.Test", "Barrier", "", "", [this](const BusCall& call) {
    barriers_.push_back(call);
    answerBarriers();
  });
  root_->finish();
  addAdapter("hci0", true);
  bus_->requestName("org.bluez");  // last: a client that saw none reads all there is
}

// Members go in reverse order: devices, adapters, the object manager, then the bus.
FakeBluez::~FakeBluez() = default;

void FakeBluez::later(std::chrono::milliseconds delay, std::function<void()> task) {
  ++busy_;
  MainQueue::main().asyncAfter(delay, [this, alive = std::weak_ptr<bool>(alive_), task] {
    if (!alive.lock()) return;
    --busy_;
    task();
    answerBarriers();
  });
}

void FakeBluez::answerBarriers() {
  if (busy_ > 0) return;
  for (const auto& call : barriers_) call.reply();
  barriers_.clear();
}

void FakeBluez::addAdapter(const std::string& name, bool powered) {
  auto& a = *(adapters_[name] = std::make_unique<Adapter>());
  a.object = bus_->exportObject("/org/bluez/" + name);
  auto& o = *a.object;
  o.addProperty(kAdapterI, "Powered", BusValue(powered), true);
  o.addMethod(kAdapterI, "SetDiscoveryFilter", "a{sv}", "", [this, name](const BusCall& call) {
    filters[name] = *call.args().at(0).as<BusDict>();
    call.reply();
  });
  o.addMethod(kAdapterI, "StartDiscovery", "", "", [this, &a, name, powered](const BusCall& call) {
    calls_.push_back("StartDiscovery " + name);
    if (!powered) return fail(call, "NotReady", "Resource Not Ready");
    if (!a.discoverers.insert(call.sender()).second)
      return fail(call, "InProgress", "Operation already in progress");
    call.reply();
    if (a.discoverers.size() == 1) tick(name);
  });
  o.addMethod(kAdapterI, "StopDiscovery", "", "", [this, &a, name](const BusCall& call) {
    calls_.push_back("StopDiscovery " + name);
    if (!a.discoverers.contains(call.sender())) return fail(call, "Failed", "No discovery started");
    // The controller is told first: until it answers, the session is still there (a new
    // StartDiscovery gets InProgress) and the reply waits. By name: the adapter may be
    // removed meanwhile.
    later(5ms, [this, name, call] {
      const auto it = adapters_.find(name);
      if (it != adapters_.end() && it->second->discoverers.erase(call.sender())) call.reply();
    });
  });
  o.finish();
  o.emitAdded();
}

// With its devices, the links ended.
void FakeBluez::removeAdapter(const std::string& name) {
  for (auto& d : devices_) {
    if (d->adapter == name) removeDevice(*d);
  }
  adapters_.at(name)->object->emitRemoved();
  adapters_.erase(name);
}

std::shared_ptr<sim::VirtualPost> FakeBluez::addPost(sim::PostSetup setup,
                                                     const std::string& adapter) {
  auto& d = *devices_.emplace_back(std::make_unique<Device>());
  d.adapter = adapter;
  d.path = "/org/bluez/" + adapter + "/dev_" + setup.identifier;
  std::replace(d.path.begin(), d.path.end(), ':', '_');
  d.post = std::make_shared<sim::VirtualPost>(std::move(setup));
  return d.post;
}

FakeBluez::Device& FakeBluez::deviceOf(const std::shared_ptr<sim::VirtualPost>& post) const {
  for (const auto& d : devices_) {
    if (d->post == post) return *d;
  }
  throw std::logic_error("not a post of this stand-in");
}

BluezFaults& FakeBluez::faults(const std::shared_ptr<sim::VirtualPost>& post) {
  return deviceOf(post).faults;
}

bool FakeBluez::connected(const std::shared_ptr<sim::VirtualPost>& post) const {
  return deviceOf(post).connected;
}

std::size_t FakeBluez::notifySessions(const std::shared_ptr<sim::VirtualPost>& post) const {
  return deviceOf(post).notifiers.size();
}

// ---- Advertising ------------------------------------------------------------------------

void FakeBluez::advertise(const std::string& adapter) {
  if (adapters_.at(adapter)->discoverers.empty()) return;
  for (auto& d : devices_) {
    if (d->adapter != adapter || d->connected) continue;
    if (!d->object)
      exportDevice(*d);
    else  // with a discovery filter set, every advertisement changes RSSI
      d->object->set(kDeviceI, "RSSI", BusValue::int16(static_cast<std::int16_t>(d->post->rssi())));
  }
}

// Until nobody discovers (a stop and a start within a tick may leave two ticks going).
void FakeBluez::tick(const std::string& adapter) {
  if (!adapters_.contains(adapter) || adapters_.at(adapter)->discoverers.empty()) return;
  advertise(adapter);
  MainQueue::main().asyncAfter(50ms, [this, alive = std::weak_ptr<bool>(alive_), adapter] {
    if (alive.lock()) tick(adapter);
  });
}

void FakeBluez::exportDevice(Device& d) {
  const auto& setup = d.post->setup();
  d.object = bus_->exportObject(d.path);
  auto& o = *d.object;
  std::string alias = setup.identifier;
  std::replace(alias.begin(), alias.end(), ':', '-');
  o.addProperty(kDeviceI, "Address", BusValue(setup.identifier));
  // Sent unchecked: a name may be no valid text.
  const auto text = [](const std::string& s) { return BusValue("s", Bytes(s.begin(), s.end())); };
  if (!setup.name.empty()) o.addProperty(kDeviceI, "Name", text(setup.name));
  o.addProperty(kDeviceI, "Alias", text(setup.name.empty() ? alias : setup.name));
  o.addProperty(kDeviceI, "Adapter", BusValue::path("/org/bluez/" + d.adapter));
  o.addProperty(kDeviceI, "RSSI", BusValue::int16(static_cast<std::int16_t>(d.post->rssi())));
  o.addProperty(kDeviceI, "UUIDs", BusValue(std::vector<std::string>{full(sim::kService)}));
  o.addProperty(kDeviceI, "Connected", BusValue(false));
  o.addProperty(kDeviceI, "ServicesResolved", BusValue(false));
  o.addMethod(kDeviceI, "Connect", "", "", [this, &d](const BusCall& call) {
    calls_.push_back("Connect " + d.post->identifier());
    if (d.pendingConnect) return fail(call, "InProgress", "In Progress");
    d.pendingConnect = call;
    if (!d.faults.connectHangs) later(10ms, [this, &d] { connectNow(d); });
  });
  o.addMethod(kDeviceI, "Disconnect", "", "", [this, &d](const BusCall& call) {
    calls_.push_back("Disconnect " + d.post->identifier());
    if (d.pendingConnect) fail(*d.pendingConnect, "Failed", "Operation was cancelled");
    d.pendingConnect.reset();
    if (!d.disconnecting) disconnect(d);  // else it goes in its own time
    call.reply();
  });
  o.finish();
  o.emitAdded();
}

void FakeBluez::connectNow(Device& d) {
  if (!d.object || !d.pendingConnect) return;
  const BusCall call = *d.pendingConnect;
  d.pendingConnect.reset();
  if (d.faults.connectError)
    return call.fail(d.faults.connectError->name, d.faults.connectError->message);
  d.connected = true;
  const auto link = ++d.link;
  // 5.66 often sets Connected without a signal: the ATT channel came up first.
  if (d.faults.silentConnected)
    d.object->setQuietly(kDeviceI, "Connected", BusValue(true));
  else
    d.object->set(kDeviceI, "Connected", BusValue(true));
  call.reply();  // before the services are resolved
  later(d.gatt.empty() ? 20ms : 5ms, [this, &d, link] {
    if (!d.connected || d.link != link) return;
    const bool late = d.faults.lateChargerService && d.gatt.empty();
    if (!late && d.gatt.empty()) exportGatt(d);
    d.object->set(kDeviceI, "ServicesResolved", BusValue(true));
    if (late)
      later(30ms, [this, &d, link] {
        if (d.connected && d.link == link) exportGatt(d);
      });
  });
}

// ---- GATT ------------------------------------------------------------------------------

void FakeBluez::exportGatt(Device& d) {
  if (d.post->faults().missingService) return;
  const std::string service = d.path + "/service0010";
  auto& s = *d.gatt.emplace_back(bus_->exportObject(service));
  s.addProperty("org.bluez.GattService1", "UUID", BusValue(full(sim::kService)));
  s.addProperty("org.bluez.GattService1", "Device", BusValue::path(d.path));
  s.finish();
  s.emitAdded();
  // Exported out of handle order: FFF4 at 0x13 first, then FFF3 at 0x11.
  for (const std::string uuid : {sim::kRead, sim::kWrite}) {
    const bool read = uuid == sim::kRead;
    auto& c =
        *d.gatt.emplace_back(bus_->exportObject(service + (read ? "/char0013" : "/char0011")));
    if (read) d.notify = &c;
    c.addProperty(kChrcI, "UUID", BusValue(full(uuid)));
    c.addProperty(kChrcI, "Service", BusValue::path(service));
    c.addProperty(kChrcI, "Flags",
                  BusValue(read ? std::vector<std::string>{"read", "notify"}
                                : std::vector<std::string>{"write-without-response", "write"}));
    c.addProperty(kChrcI, "Value", BusValue(read ? d.post->setup().initialReadValue : Bytes{}));
    c.addMethod(kChrcI, "ReadValue", "a{sv}", "ay", [this, &d, &c, uuid](const BusCall& call) {
      calls_.push_back("ReadValue " + uuid);
      if (auto error = d.post->faults().readError) return fail(call, "Failed", error->domain);
      // The value goes to the cache, which signals it, before the reply.
      c.set(kChrcI, "Value", c.get(kChrcI, "Value"));
      call.reply({c.get(kChrcI, "Value")});
    });
    c.addMethod(kChrcI, "StartNotify", "", "", [this, &d, uuid](const BusCall& call) {
      calls_.push_back("StartNotify " + uuid);
      if (d.faults.startNotifyError)
        return call.fail(d.faults.startNotifyError->name, d.faults.startNotifyError->message);
      if (d.disconnecting) return fail(call, "Failed", "Device is disconnecting");
      d.notifiers.insert(call.sender());
      call.reply();
    });
    c.addMethod(kChrcI, "StopNotify", "", "", [this, &d, uuid](const BusCall& call) {
      calls_.push_back("StopNotify " + uuid);
      d.notifiers.erase(call.sender());
      call.reply();
    });
    c.addMethod(kChrcI, "WriteValue", "aya{sv}", "", [this, &d, uuid](const BusCall& call) {
      const Bytes& data = *call.args().at(0).as<Bytes>();
      const auto* type = call.args().at(1).at("type");
      // Without a type, a characteristic that also takes requests gets a request.
      const std::string kind = type ? *type->as<std::string>() : "request";
      calls_.push_back("WriteValue " + uuid + " " + kind + " " + spaced(data, ""));
      call.reply();
      const auto link = d.link;
      for (const auto& answer : d.post->handleWrite(data)) {
        for (const auto& piece : sim::cutAnswer(answer, d.post->faults(), sim::Timing{})) {
          if (piece.lost) continue;
          // One signal per notification, equal values included.
          later(15ms + std::chrono::duration_cast<std::chrono::milliseconds>(piece.due),
                [&d, link, piece] {
                  if (d.link == link && d.connected && !d.notifiers.empty())
                    d.notify->set(kChrcI, "Value", BusValue(piece.bytes));
                });
        }
      }
    });
    c.finish();
    c.emitAdded();
  }
}

// ---- Links and power ------------------------------------------------------------------------

void FakeBluez::disconnect(Device& d) {
  if (!d.connected) return;
  d.connected = false;
  d.object->set(kDeviceI, "ServicesResolved", BusValue(false));
  d.object->set(kDeviceI, "Connected", BusValue(false));
}

void FakeBluez::dropLink(const std::shared_ptr<sim::VirtualPost>& post) {
  disconnect(deviceOf(post));
}

void FakeBluez::removeDevice(Device& d) {
  if (!d.object) return;
  d.pendingConnect.reset();
  for (auto it = d.gatt.rbegin(); it != d.gatt.rend(); ++it) (*it)->emitRemoved();
  d.object->emitRemoved();
  d.gatt.clear();
  d.notify = nullptr;
  d.object.reset();
  d.connected = d.disconnecting = false;
  d.notifiers.clear();
}

void FakeBluez::expire(const std::shared_ptr<sim::VirtualPost>& post) {
  removeDevice(deviceOf(post));
}

void FakeBluez::leaveDyingLink(const std::shared_ptr<sim::VirtualPost>& post,
                               std::chrono::milliseconds delay) {
  Device& d = deviceOf(post);
  d.connected = d.disconnecting = true;
  d.object->set(kDeviceI, "Connected", BusValue(true));
  MainQueue::main().asyncAfter(delay, [this, alive = std::weak_ptr<bool>(alive_), &d] {
    if (!alive.lock() || !d.disconnecting) return;
    d.disconnecting = false;
    disconnect(d);
  });
}

}  // namespace tqble::test
