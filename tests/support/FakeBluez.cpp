#include "support/FakeBluez.h"

#include <algorithm>
#include <functional>
#include <stdexcept>

#include "../src/ble/sim/SimInternal.h"
#include "support/Hex.h"
#include "tqble/platform/MainQueue.h"

namespace tqble::test {
namespace {

using namespace std::chrono_literals;
using bluez::BusCall;
using bluez::BusDict;
using bluez::BusList;
using bluez::BusValue;

constexpr char kAdapterI[] = "org.bluez.Adapter1";
constexpr char kDeviceI[] = "org.bluez.Device1";
constexpr char kServiceI[] = "org.bluez.GattService1";
constexpr char kChrcI[] = "org.bluez.GattCharacteristic1";
constexpr std::uint16_t kMtu = 23;
constexpr auto kAdvertisingInterval = 50ms;
constexpr auto kStopDiscoveryDelay = 5ms;

std::string full(const std::string& shortId) { return "0000" + shortId + "-0000-1000-8000-00805f9b34fb"; }

std::string lower(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return s;
}

void fail(const BusCall& call, const std::string& name, const std::string& message) {
  call.fail("org.bluez.Error." + name, message);
}

}  // namespace

struct FakeBluez::Adapter {
  std::string name, path;
  std::unique_ptr<bluez::BusObject> object;
  bool powered = true;
  std::set<std::string> discoverers;
  std::uint64_t session = 0;
};

struct FakeBluez::Device {
  std::string adapter, path;
  std::shared_ptr<sim::VirtualPost> post;
  BluezFaults faults;
  std::unique_ptr<bluez::BusObject> object;
  std::vector<std::unique_ptr<bluez::BusObject>> gatt;  // kept across links, as bluetoothd's cache
  bluez::BusObject* notify = nullptr;
  bool connected = false;
  std::optional<BusCall> pendingConnect;
  std::uint64_t link = 0;
  std::set<std::string> notifiers;
  bool disconnecting = false;
};

FakeBluez::FakeBluez() {
  own();
  addAdapter("hci0", true);
}

// Members go in reverse order: devices, adapters, the object manager, then the bus.
FakeBluez::~FakeBluez() = default;

void FakeBluez::own() {
  bus_ = bluez::Bus::openSystem();
  root_ = bus_->exportObjectManager("/");
  bus_->requestName("org.bluez");
}

std::string FakeBluez::pathOf(const sim::PostSetup& setup, const std::string& adapter) {
  std::string address = setup.identifier;
  std::replace(address.begin(), address.end(), ':', '_');
  return "/org/bluez/" + adapter + "/dev_" + address;
}

void FakeBluez::addAdapter(const std::string& name, bool powered) {
  auto a = std::make_unique<Adapter>();
  a->name = name;
  a->path = "/org/bluez/" + name;
  a->powered = powered;
  a->object = bus_->exportObject(a->path);
  auto& o = *a->object;
  Adapter* raw = a.get();
  o.addProperty(kAdapterI, "Address", BusValue("00:AA:01:00:00:0" + name.substr(3)));
  o.addProperty(kAdapterI, "Powered", BusValue(powered), true);
  o.addProperty(kAdapterI, "Discovering", BusValue(false));
  o.addMethod(kAdapterI, "SetDiscoveryFilter", "a{sv}", "", [this, raw](const BusCall& call) {
    const auto& filter = call.args().at(0);
    std::string text = "SetDiscoveryFilter " + raw->name;
    for (const auto& [key, value] : *filter.as<BusDict>()) {
      text += " " + key + "=";
      if (const auto* s = value.as<std::string>()) text += *s;
      if (const auto* b = value.as<bool>()) text += *b ? "true" : "false";
      if (const auto* l = value.as<std::vector<std::string>>()) {
        for (const auto& u : *l) text += u + (u == l->back() ? "" : ",");
      }
    }
    calls_.push_back(text);
    call.reply();
  });
  o.addMethod(kAdapterI, "StartDiscovery", "", "", [this, raw](const BusCall& call) {
    calls_.push_back("StartDiscovery " + raw->name);
    if (!raw->powered) return fail(call, "NotReady", "Resource Not Ready");
    if (!raw->discoverers.insert(call.sender()).second) return fail(call, "InProgress", "Operation already in progress");
    call.reply();
    if (raw->discoverers.size() > 1) return;
    raw->object->set(kAdapterI, "Discovering", BusValue(true));
    const auto session = ++raw->session;
    MainQueue::main().asyncAfter(10ms, [this, alive = std::weak_ptr<bool>(alive_), adapter = raw->name, session] {
      if (alive.lock()) advertise(adapter, session);
    });
  });
  o.addMethod(kAdapterI, "StopDiscovery", "", "", [this, raw](const BusCall& call) {
    calls_.push_back("StopDiscovery " + raw->name);
    if (!raw->powered) return fail(call, "NotReady", "Resource Not Ready");
    if (!raw->discoverers.contains(call.sender())) return fail(call, "Failed", "No discovery started");
    // The controller is told first: until it answers, the session is still there (a new
    // StartDiscovery gets InProgress) and the reply waits.
    MainQueue::main().asyncAfter(kStopDiscoveryDelay, [this, alive = std::weak_ptr<bool>(alive_), name = raw->name, call] {
      auto it = alive.lock() ? adapters_.find(name) : adapters_.end();
      if (it == adapters_.end() || !it->second->object) return;
      Adapter* raw = it->second.get();
      raw->discoverers.erase(call.sender());
      call.reply();
      if (!raw->discoverers.empty()) return;
      ++raw->session;
      raw->object->set(kAdapterI, "Discovering", BusValue(false));
      for (auto& d : devices_) {
        // RSSI is invalidated when discovery ends.
        if (d->object && d->adapter == raw->name) {
          d->object->emitSignal("org.freedesktop.DBus.Properties", "PropertiesChanged",
                                {BusValue(kDeviceI), BusValue(BusDict{}), BusValue(std::vector<std::string>{"RSSI"})});
        }
      }
    });
  });
  o.finish();
  o.emitAdded();
  adapters_[name] = std::move(a);
}

void FakeBluez::removeAdapter(const std::string& name) {
  setPowered(false, name);
  adapters_.at(name)->object->emitRemoved();
  adapters_.erase(name);
}

std::shared_ptr<sim::VirtualPost> FakeBluez::addPost(sim::PostSetup setup, const std::string& adapter) {
  auto d = std::make_unique<Device>();
  d->adapter = adapter;
  d->path = pathOf(setup, adapter);
  d->post = std::make_shared<sim::VirtualPost>(std::move(setup));
  devices_.push_back(std::move(d));
  return devices_.back()->post;
}

FakeBluez::Device& FakeBluez::deviceOf(const std::shared_ptr<sim::VirtualPost>& post) const {
  for (const auto& d : devices_) {
    if (d->post == post) return *d;
  }
  throw std::logic_error("not a post of this fake");
}

FakeBluez::Device* FakeBluez::deviceAt(const std::string& path) {
  for (auto& d : devices_) {
    if (d->path == path && d->object) return d.get();
  }
  return nullptr;
}

BluezFaults& FakeBluez::faults(const std::shared_ptr<sim::VirtualPost>& post) { return deviceOf(post).faults; }

bool FakeBluez::connected(const std::shared_ptr<sim::VirtualPost>& post) const { return deviceOf(post).connected; }

std::size_t FakeBluez::notifySessions(const std::shared_ptr<sim::VirtualPost>& post) const {
  return deviceOf(post).notifiers.size();
}

// ---- Advertising ------------------------------------------------------------------------

void FakeBluez::advertise(const std::string& adapter, std::uint64_t session) {
  auto it = adapters_.find(adapter);
  if (it == adapters_.end() || it->second->session != session || it->second->discoverers.empty()) return;
  for (auto& d : devices_) {
    if (d->adapter != adapter || !d->post->advertising() || d->connected) continue;
    if (!d->object) {
      exportDevice(*d);
      d->object->emitAdded();
    } else {
      // With a discovery filter set, every advertisement moves RSSI.
      d->object->set(kDeviceI, "RSSI", BusValue::int16(static_cast<std::int16_t>(d->post->rssi())));
    }
  }
  MainQueue::main().asyncAfter(kAdvertisingInterval, [this, alive = std::weak_ptr<bool>(alive_), adapter, session] {
    if (alive.lock()) advertise(adapter, session);
  });
}

void FakeBluez::exportDevice(Device& d) {
  const auto& setup = d.post->setup();
  d.object = bus_->exportObject(d.path);
  auto& o = *d.object;
  std::string alias = setup.identifier;
  std::replace(alias.begin(), alias.end(), ':', '-');
  o.addProperty(kDeviceI, "Address", BusValue(setup.identifier));
  if (!setup.name.empty()) o.addProperty(kDeviceI, "Name", BusValue(setup.name));
  o.addProperty(kDeviceI, "Alias", BusValue(setup.name.empty() ? alias : setup.name));
  o.addProperty(kDeviceI, "Adapter", BusValue::path("/org/bluez/" + d.adapter));
  o.addProperty(kDeviceI, "RSSI", BusValue::int16(static_cast<std::int16_t>(setup.rssi)));
  o.addProperty(kDeviceI, "UUIDs", BusValue(std::vector<std::string>{full(sim::kService)}));
  o.addProperty(kDeviceI, "Connected", BusValue(false));
  o.addProperty(kDeviceI, "ServicesResolved", BusValue(false));
  o.addProperty(kDeviceI, "Paired", BusValue(false));
  const std::string path = d.path;
  o.addMethod(kDeviceI, "Connect", "", "", [this, path](const BusCall& call) {
    Device* d = deviceAt(path);
    if (!d) return call.fail("org.freedesktop.DBus.Error.UnknownObject", "gone");
    calls_.push_back("Connect " + d->post->identifier());
    if (!adapters_.at(d->adapter)->powered) return fail(call, "NotReady", "Resource Not Ready");
    if (d->connected) return fail(call, "AlreadyConnected", "Already Connected");
    if (d->pendingConnect) return fail(call, "InProgress", "In Progress");
    d->pendingConnect = call;
    if (d->faults.connectHangs) return;
    MainQueue::main().asyncAfter(10ms, [this, alive = std::weak_ptr<bool>(alive_), path] {
      Device* d = alive.lock() ? deviceAt(path) : nullptr;
      if (!d || !d->pendingConnect) return;
      const BusCall call = *d->pendingConnect;
      d->pendingConnect.reset();
      if (d->faults.connectError) return call.fail(d->faults.connectError->name, d->faults.connectError->message);
      d->connected = true;
      const auto link = ++d->link;
      // 5.66 often sets Connected without a signal: the ATT channel came up first.
      if (d->faults.silentConnected) d->object->setQuietly(kDeviceI, "Connected", BusValue(true));
      else d->object->set(kDeviceI, "Connected", BusValue(true));
      call.reply();  // before the services are resolved
      const bool cached = !d->gatt.empty();
      MainQueue::main().asyncAfter(cached ? 5ms : 20ms, [this, alive, path, link] {
        Device* d = alive.lock() ? deviceAt(path) : nullptr;
        if (!d || !d->connected || d->link != link) return;
        const bool late = d->faults.lateChargerService && d->gatt.empty();
        if (d->gatt.empty()) exportGatt(*d, !late);
        d->object->set(kDeviceI, "ServicesResolved", BusValue(true));
        if (!late) return;
        MainQueue::main().asyncAfter(30ms, [this, alive, path, link] {
          Device* d = alive.lock() ? deviceAt(path) : nullptr;
          if (d && d->connected && d->link == link) exportGatt(*d, true);
        });
      });
    });
  });
  o.addMethod(kDeviceI, "Disconnect", "", "", [this, path](const BusCall& call) {
    Device* d = deviceAt(path);
    if (!d) return call.fail("org.freedesktop.DBus.Error.UnknownObject", "gone");
    calls_.push_back("Disconnect " + d->post->identifier());
    if (d->pendingConnect) {
      d->pendingConnect->fail("org.bluez.Error.Failed", "Operation was cancelled");
      d->pendingConnect.reset();
      return call.reply();
    }
    if (!d->connected) return fail(call, "NotConnected", "Not Connected");
    if (d->disconnecting) return call.reply();  // it goes in its own time
    disconnect(*d);
    call.reply();
  });
  o.finish();
}

// ---- GATT ------------------------------------------------------------------------------

void FakeBluez::exportGatt(Device& d, bool charger) {
  const sim::Faults& faults = d.post->faults();
  const std::string path = d.path;
  const auto service = [&](const std::string& at, const std::string& uuid) {
    auto s = bus_->exportObject(at);
    s->addProperty(kServiceI, "UUID", BusValue(full(uuid)));
    s->addProperty(kServiceI, "Device", BusValue::path(d.path));
    s->addProperty(kServiceI, "Primary", BusValue(true));
    s->finish();
    s->emitAdded();
    d.gatt.push_back(std::move(s));
  };
  const auto characteristic = [&](const std::string& at, const std::string& servicePath, const std::string& uuid,
                                  std::vector<std::string> flags, Bytes value) -> bluez::BusObject& {
    auto c = bus_->exportObject(at);
    const bool lowerCase = faults.lowerCaseIdentifiers.contains(uuid);
    c->addProperty(kChrcI, "UUID", BusValue(lowerCase ? lower(full(uuid)) : full(uuid)));
    c->addProperty(kChrcI, "Service", BusValue::path(servicePath));
    c->addProperty(kChrcI, "Flags", BusValue(flags));
    c->addProperty(kChrcI, "MTU", BusValue::uint16(kMtu));
    c->addProperty(kChrcI, "Value", BusValue(value));
    c->addProperty(kChrcI, "Notifying", BusValue(false));
    bluez::BusObject* raw = c.get();
    const bool readable = std::find(flags.begin(), flags.end(), "read") != flags.end();
    c->addMethod(kChrcI, "ReadValue", "a{sv}", "ay", [this, path, raw, readable, uuid](const BusCall& call) {
      Device* d = deviceAt(path);
      calls_.push_back("ReadValue " + uuid);
      if (!d || !d->connected) return fail(call, "Failed", "Not connected");
      if (!readable) return fail(call, "NotPermitted", "Read not permitted");
      if (auto error = d->post->faults().readError) return fail(call, "Failed", error->domain);
      // The value goes to the cache, which signals it, before the reply.
      const BusValue value = raw->get(kChrcI, "Value");
      raw->set(kChrcI, "Value", value);
      call.reply({value});
    });
    c->addMethod(kChrcI, "StartNotify", "", "", [this, path, raw, uuid](const BusCall& call) {
      Device* d = deviceAt(path);
      calls_.push_back("StartNotify " + uuid);
      if (!d || raw != d->notify) return fail(call, "NotSupported", "Operation is not supported");
      if (d->faults.startNotifyError) return call.fail(d->faults.startNotifyError->name, d->faults.startNotifyError->message);
      if (d->disconnecting) return fail(call, "Failed", "Device is disconnecting");
      if (d->notifiers.insert(call.sender()).second && d->notifiers.size() == 1) raw->set(kChrcI, "Notifying", BusValue(true));
      call.reply();
    });
    c->addMethod(kChrcI, "StopNotify", "", "", [this, path, raw, uuid](const BusCall& call) {
      Device* d = deviceAt(path);
      calls_.push_back("StopNotify " + uuid);
      if (!d || !d->notifiers.erase(call.sender())) return fail(call, "Failed", "No notify session started");
      if (d->notifiers.empty()) raw->set(kChrcI, "Notifying", BusValue(false));
      call.reply();
    });
    c->addMethod(kChrcI, "WriteValue", "aya{sv}", "", [this, path, uuid](const BusCall& call) {
      Device* d = deviceAt(path);
      const Bytes& data = *call.args().at(0).as<Bytes>();
      const auto* type = call.args().at(1).at("type");
      // Without a type, a characteristic that also takes requests gets a request.
      const std::string kind = type && type->as<std::string>() ? *type->as<std::string>() : "request";
      calls_.push_back("WriteValue " + uuid + " " + kind + " " + spaced(data, ""));
      if (!d || !d->connected) return fail(call, "Failed", "Not connected");
      if (kind == "command" && data.size() > kMtu - 3u) return fail(call, "Failed", "Failed to initiate write");
      const auto link = d->link;
      auto answers = d->post->handleWrite(data);
      if (kind == "command") call.reply();
      else MainQueue::main().asyncAfter(5ms, [call] { call.reply(); });
      MainQueue::main().asyncAfter(15ms, [this, alive = std::weak_ptr<bool>(alive_), path, link, answers] {
        Device* d = alive.lock() ? deviceAt(path) : nullptr;
        if (!d || !d->connected || d->link != link) return;
        for (const auto& answer : answers) notifyAnswer(*d, answer);
      });
    });
    c->finish();
    c->emitAdded();
    d.gatt.push_back(std::move(c));
    return *raw;
  };
  if (d.gatt.empty()) {
    // Exported out of handle order: the backend must sort by the handles in the paths.
    service(d.path + "/service000a", "180A");
    characteristic(d.path + "/service000a/char000b", d.path + "/service000a", "2A29", {"read"}, {'T', 'Q'});
  }
  if (!charger || faults.missingService) return;
  const std::string fff0 = d.path + "/service0010";
  service(fff0, sim::kService);
  const bool readFirst = faults.readCharacteristicFirst;
  if (!faults.missingReadCharacteristic) {
    d.notify = &characteristic(fff0 + (readFirst ? "/char0011" : "/char0013"), fff0, sim::kRead, {"read", "notify"},
                               d.post->setup().initialReadValue);
  }
  if (!faults.missingWriteCharacteristic) {
    characteristic(fff0 + (readFirst ? "/char0013" : "/char0011"), fff0, sim::kWrite, {"write-without-response", "write"}, {});
  }
}

void FakeBluez::notifyAnswer(Device& d, const Bytes& answer) {
  const sim::Timing timing;
  const std::string path = d.path;
  const auto link = d.link;
  for (const auto& piece : sim::cutAnswer(answer, d.post->faults(), timing)) {
    if (piece.lost) continue;
    MainQueue::main().asyncAfter(piece.due, [this, alive = std::weak_ptr<bool>(alive_), path, link, piece] {
      Device* d = alive.lock() ? deviceAt(path) : nullptr;
      if (d && d->link == link) notify(d->post, piece.bytes);
    });
  }
}

void FakeBluez::notify(const std::shared_ptr<sim::VirtualPost>& post, const Bytes& value) {
  Device& d = deviceOf(post);
  if (!d.connected || d.notifiers.empty() || !d.notify) return;
  // One signal per notification, equal values included.
  d.notify->set(kChrcI, "Value", BusValue(value));
}

// ---- Links, power, restarts ---------------------------------------------------------------

void FakeBluez::disconnect(Device& d) {
  d.connected = false;
  d.object->set(kDeviceI, "ServicesResolved", BusValue(false));
  d.object->set(kDeviceI, "Connected", BusValue(false));
}

void FakeBluez::dropLink(const std::shared_ptr<sim::VirtualPost>& post) {
  Device& d = deviceOf(post);
  if (d.connected) disconnect(d);
}

void FakeBluez::removeDevice(Device& d) {
  if (!d.object) return;
  if (d.pendingConnect) d.pendingConnect->fail("org.freedesktop.DBus.Error.UnknownObject", "gone");
  d.pendingConnect.reset();
  for (auto it = d.gatt.rbegin(); it != d.gatt.rend(); ++it) (*it)->emitRemoved();
  d.object->emitRemoved();
  d.gatt.clear();
  d.notify = nullptr;
  d.object.reset();
  d.connected = false;
  d.notifiers.clear();
}

void FakeBluez::expire(const std::shared_ptr<sim::VirtualPost>& post) { removeDevice(deviceOf(post)); }

void FakeBluez::setPowered(bool on, const std::string& adapter) {
  Adapter& a = *adapters_.at(adapter);
  a.powered = on;
  if (on) return a.object->set(kAdapterI, "Powered", BusValue(on));
  // The controller's links end before bluetoothd reports the power change.
  for (auto& d : devices_) {
    if (d->adapter == adapter && d->object && d->connected) disconnect(*d);
  }
  a.object->set(kAdapterI, "Powered", BusValue(on));
  a.discoverers.clear();
  ++a.session;
  for (auto& d : devices_) {
    if (d->adapter == adapter && d->object) removeDevice(*d);  // temporary devices go with the power
  }
}

void FakeBluez::restart() {
  // bluetoothd powers its adapters off as it stops, and on again once it is back.
  std::vector<std::string> powered;
  for (auto& [name, a] : adapters_) {
    if (a->powered) powered.push_back(name);
  }
  for (const auto& name : powered) {
    if (adapters_.at(name)->object) setPowered(false, name);
  }
  leave();
  own();
  for (auto& [name, a] : adapters_) {
    a.reset();
    addAdapter(name, false);
  }
  // It powers them some time after coming up, as its own start-up does.
  MainQueue::main().asyncAfter(50ms, [this, alive = std::weak_ptr<bool>(alive_), powered] {
    if (!alive.lock()) return;
    for (const auto& name : powered) {
      if (adapters_.count(name) && adapters_.at(name)->object) setPowered(true, name);
    }
  });
}

void FakeBluez::leave() {
  for (auto& d : devices_) removeDevice(*d);
  for (auto& [name, a] : adapters_) {
    if (a->object) a->object->emitRemoved();
    a->object.reset();
  }
  root_.reset();
  bus_.reset();  // the name goes with the connection
}

void FakeBluez::leaveDyingLink(const std::shared_ptr<sim::VirtualPost>& post, std::chrono::milliseconds delay) {
  Device& d = deviceOf(post);
  d.connected = d.disconnecting = true;
  d.object->set(kDeviceI, "Connected", BusValue(true));
  MainQueue::main().asyncAfter(delay, [this, alive = std::weak_ptr<bool>(alive_), path = d.path] {
    Device* d = alive.lock() ? deviceAt(path) : nullptr;
    if (!d || !d->disconnecting) return;
    d->disconnecting = false;
    disconnect(*d);
  });
}

void FakeBluez::addNeighbour(const std::string& address, const Bytes& name) {
  sim::PostSetup setup;
  setup.identifier = address;
  auto o = bus_->exportObject(pathOf(setup));
  o->addProperty(kDeviceI, "Address", BusValue(address));
  o->addProperty(kDeviceI, "Name", BusValue("s", name));
  o->addProperty(kDeviceI, "Adapter", BusValue::path("/org/bluez/hci0"));
  o->finish();
  o->emitAdded();
  neighbours_.push_back(std::move(o));
}

}  // namespace tqble::test
