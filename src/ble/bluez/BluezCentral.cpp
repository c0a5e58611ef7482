// The BlueZ central: adapter state, scanning and links, kept in step with bluetoothd's
// object tree through its signals. Nothing here waits for the bus: every call's reply
// comes back as a later task on the main queue.
#include <algorithm>
#include <cstdlib>

#include "BluezInternal.h"
#include "tqble/platform/Log.h"
#include "tqble/platform/MainQueue.h"

namespace tqble::bluez {
namespace {

using namespace std::chrono_literals;

constexpr auto kConnectTimeout = 35s;
// How long bluetoothd may stay away before its absence counts as no Bluetooth at all.
constexpr auto kResettingLimit = 5s;
// How long a link found up when connecting may take to go down (bluetoothd keeps one
// about 2 s after its client asked to disconnect).
constexpr auto kDyingLinkWait = 4s;
// How often a lost system bus is looked for again.
constexpr auto kBusRetry = 500ms;
// How long a vanished adapter counts as resetting before the next one is chosen.
constexpr auto kAdapterGoneWait = 300ms;
constexpr char kConnectionFailed[] = "The connection to the charging post failed.";
constexpr char kLinkLost[] = "The link to the charging post was lost.";
constexpr char kAccessDenied[] = "org.freedesktop.DBus.Error.AccessDenied";
constexpr char kUnknownObject[] = "org.freedesktop.DBus.Error.UnknownObject";

bool isUnder(const std::string& path, const std::string& parent) {
  return path.size() > parent.size() && path.compare(0, parent.size(), parent) == 0 && path[parent.size()] == '/';
}

std::vector<std::string> texts(const BusValue* v) {
  if (v) {
    if (const auto* list = v->as<std::vector<std::string>>()) return *list;
  }
  return {};
}

// bluetoothd forgets devices heard in a scan 30 s after it, and at power-off.
TQError forgotten() {
  return busError({kUnknownObject, "the post is no longer known: scan for it again"}, kConnectionFailed,
                  kConnectionFailedCode);
}

// An a{sa{sv}} as interface → properties.
BusInterfaces interfacesOf(const BusValue& v) {
  BusInterfaces out;
  if (const auto* interfaces = v.as<BusDict>()) {
    for (const auto& [name, props] : *interfaces) {
      if (const auto* p = props.as<BusDict>()) out[name] = *p;
    }
  }
  return out;
}

}  // namespace

TQError busError(const BusError& error, const char* what, std::int64_t code) {
  std::string domain = what;
  if (!error.message.empty()) domain += " (" + error.message + ")";
  return TQError{domain, code, {{"name", Value{error.name}}, {"message", Value{error.message}}}};
}

// ---- Object tree ---------------------------------------------------------------------

void ObjectTree::add(const std::string& path, const BusInterfaces& interfaces) {
  for (const auto& [interface, props] : interfaces) {
    auto& mine = objects_[path][interface];
    for (const auto& [name, value] : props) mine[name] = value;
  }
}

void ObjectTree::remove(const std::string& path, const std::vector<std::string>& interfaces) {
  auto it = objects_.find(path);
  if (it == objects_.end()) return;
  for (const auto& interface : interfaces) it->second.erase(interface);
  if (it->second.empty()) objects_.erase(it);
}

void ObjectTree::change(const std::string& path, const std::string& interface, const BusProperties& changed,
                        const std::vector<std::string>& invalidated) {
  auto it = objects_.find(path);
  if (it == objects_.end()) return;  // not exported (yet): its InterfacesAdded carries everything
  auto iface = it->second.find(interface);
  if (iface == it->second.end()) return;
  for (const auto& [name, value] : changed) iface->second[name] = value;
  for (const auto& name : invalidated) iface->second.erase(name);
}

const BusProperties* ObjectTree::find(const std::string& path, const std::string& interface) const {
  auto it = objects_.find(path);
  if (it == objects_.end()) return nullptr;
  auto iface = it->second.find(interface);
  return iface == it->second.end() ? nullptr : &iface->second;
}

std::vector<std::string> ObjectTree::pathsWith(const std::string& interface) const {
  std::vector<std::string> out;
  for (const auto& [path, interfaces] : objects_) {
    if (interfaces.contains(interface)) out.push_back(path);
  }
  return out;
}

const BusValue* ObjectTree::property(const std::string& path, const std::string& interface,
                                     const std::string& name) const {
  const auto* props = find(path, interface);
  if (!props) return nullptr;
  auto it = props->find(name);
  return it == props->end() ? nullptr : &it->second;
}

bool ObjectTree::flag(const std::string& path, const std::string& interface, const std::string& name) const {
  const auto* v = property(path, interface, name);
  const bool* b = v ? v->as<bool>() : nullptr;
  return b && *b;
}

std::string ObjectTree::text(const std::string& path, const std::string& interface, const std::string& name) const {
  const auto* v = property(path, interface, name);
  const auto* s = v ? v->as<std::string>() : nullptr;
  return s ? *s : std::string();
}

void ObjectTree::setQuietly(const std::string& path, const std::string& interface, const std::string& name,
                            BusValue v) {
  if (auto it = objects_.find(path); it != objects_.end() && it->second.contains(interface)) {
    it->second[interface][name] = std::move(v);
  }
}

// ---- Central: the bus and the tree ------------------------------------------------------

std::shared_ptr<ble::CentralManager> makeCentral(std::weak_ptr<ble::CentralManagerDelegate> delegate) {
  auto central = std::make_shared<BluezCentral>(std::move(delegate));
  central->start();
  return central;
}

void BluezCentral::start() {
  try {
    bus_ = Bus::system();
    std::weak_ptr<BluezCentral> weak = weak_from_this();
    auto on = [weak](auto member) {
      return [weak, member](const BusSignal& s) {
        if (auto self = weak.lock()) member(*self, s);
      };
    };
    const std::string fromBlueZ = "type='signal',sender='org.bluez',";
    subscriptions_.push_back(bus_->subscribe(
        fromBlueZ + "interface='org.freedesktop.DBus.ObjectManager',member='InterfacesAdded'", "oa{sa{sv}}",
        on([](BluezCentral& self, const BusSignal& s) {
          self.interfacesAdded(*s.args[0].as<std::string>(), interfacesOf(s.args[1]));
        })));
    subscriptions_.push_back(bus_->subscribe(
        fromBlueZ + "interface='org.freedesktop.DBus.ObjectManager',member='InterfacesRemoved'", "oas",
        on([](BluezCentral& self, const BusSignal& s) {
          self.interfacesRemoved(*s.args[0].as<std::string>(), texts(&s.args[1]));
        })));
    subscriptions_.push_back(bus_->subscribeProperties(
        fromBlueZ + "interface='org.freedesktop.DBus.Properties',member='PropertiesChanged',path_namespace='/org/bluez'",
        kCharacteristicInterface, on([](BluezCentral& self, const BusSignal& s) {
          self.propertiesChanged(s.path, *s.args[0].as<std::string>(), *s.args[1].as<BusDict>(), texts(&s.args[2]));
        }),
        [weak](const std::string& path, const Bytes& value) {
          // A notification or a read's echo: the tree keeps the value it was exported with.
          auto self = weak.lock();
          if (auto p = self ? self->owningPeripheral(path) : nullptr) p->valueChanged(path, value);
        }));
    subscriptions_.push_back(bus_->subscribe(
        "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',member='NameOwnerChanged',"
        "arg0='org.bluez'",
        "sss", on([](BluezCentral& self, const BusSignal& s) { self.ownerChanged(*s.args[2].as<std::string>()); })));
    subscriptions_.push_back(bus_->whenLost([weak] {
      if (auto self = weak.lock()) self->busLost();
    }));
  } catch (const BusFailure& e) {
    // No system bus (a sandbox), one that turns us away, or one not back yet.
    subscriptions_.clear();
    bus_.reset();
    if (state_ == ble::CentralManagerStateUnknown) {
      TQLog("bluez: %s", e.what());
      const auto state = e.errorName() == kAccessDenied ? ble::CentralManagerStateUnauthorized
                                                         : ble::CentralManagerStateUnsupported;
      MainQueue::main().async([weak = weak_from_this(), state] {
        if (auto self = weak.lock()) self->setState(state);
      });
    }
    MainQueue::main().asyncAfter(kBusRetry, [weak = weak_from_this()] {
      if (auto self = weak.lock()) self->start();
    });
    return;
  }
  // Subscribed first, then read: nothing between the two is missed.
  sync();
}

// Like bluetoothd going away, and then looked for on a new connection until one is made.
void BluezCentral::busLost() {
  TQLog("bluez: the system bus went away; reconnecting");
  subscriptions_.clear();
  bus_.reset();
  ownerChanged("");
  MainQueue::main().asyncAfter(kBusRetry, [weak = weak_from_this()] {
    if (auto self = weak.lock()) self->start();
  });
}

void BluezCentral::call(const std::string& path, const std::string& interface, const std::string& method,
                        const BusList& args, std::chrono::milliseconds timeout, const std::string& replySignature,
                        Bus::ReplyHandler onReply) {
  if (bus_) bus_->call(kBlueZ, path, interface, method, args, timeout, replySignature, std::move(onReply));
}

void BluezCentral::sync() {
  const auto generation = ++generation_;
  call("/", "org.freedesktop.DBus.ObjectManager", "GetManagedObjects", {}, kCallTimeout, "a{oa{sa{sv}}}",
       [weak = weak_from_this(), generation](const BusReply& reply) {
         if (auto self = weak.lock()) self->synced(reply, generation);
       });
}

void BluezCentral::synced(const BusReply& reply, std::uint64_t generation) {
  if (generation != generation_) return;
  if (reply.error && reply.error->name == kUnreadable) {
    // One object sd-bus will not read (a neighbour's name that is no valid text) spoils
    // the whole reply: the tree is read object by object, leaving that one out.
    TQLog("bluez: bluetoothd's objects read one by one: %s", reply.error->message.c_str());
    tree_.clear();
    objectReads_ = 0;
    readObject("/", generation);
    return;
  }
  if (reply.error) {
    // No bluetoothd on the bus, or a policy that keeps us from it.
    setState(reply.error->name == kAccessDenied ? ble::CentralManagerStateUnauthorized
                                                : ble::CentralManagerStateUnsupported);
    return;
  }
  tree_.clear();
  for (const auto& [path, interfaces] : *reply.values.at(0).as<BusDict>()) tree_.add(path, interfacesOf(interfaces));
  chooseAdapter();
}

void BluezCentral::readObject(const std::string& path, std::uint64_t generation) {
  ++objectReads_;
  call(path, "org.freedesktop.DBus.Introspectable", "Introspect", {}, kCallTimeout, "s",
       [weak = weak_from_this(), path, generation](const BusReply& reply) {
         auto self = weak.lock();
         if (!self || self->generation_ != generation) return;
         const auto* xml = reply.error ? nullptr : reply.values.at(0).as<std::string>();
         // Children are <node name="..."/>, interfaces <interface name="...">.
         for (std::size_t at = 0; xml && (at = xml->find('<', at)) != std::string::npos; ++at) {
           const bool node = xml->compare(at, 6, "<node ") == 0;
           if (!node && xml->compare(at, 11, "<interface ") != 0) continue;
           const auto open = xml->find("name=\"", at);
           if (open == std::string::npos || open > xml->find('>', at)) continue;
           const auto name = xml->substr(open + 6, xml->find('"', open + 6) - open - 6);
           if (node) self->readObject(path == "/" ? "/" + name : path + "/" + name, generation);
           else if (name.rfind("org.bluez.", 0) == 0) self->readInterface(path, name, generation);
         }
         self->objectRead(generation);
       });
}

void BluezCentral::readInterface(const std::string& path, const std::string& interface, std::uint64_t generation) {
  ++objectReads_;
  call(path, "org.freedesktop.DBus.Properties", "GetAll", {BusValue(interface)}, kCallTimeout, "a{sv}",
       [weak = weak_from_this(), path, interface, generation](const BusReply& reply) {
         auto self = weak.lock();
         if (!self || self->generation_ != generation) return;
         if (reply.error) TQLog("bluez: %s of %s left out: %s", interface.c_str(), path.c_str(), reply.error->message.c_str());
         else self->tree_.add(path, {{interface, *reply.values.at(0).as<BusDict>()}});
         self->objectRead(generation);
       });
}

void BluezCentral::objectRead(std::uint64_t generation) {
  if (--objectReads_ == 0 && generation == generation_) chooseAdapter();
}

void BluezCentral::ownerChanged(const std::string& newOwner) {
  ++generation_;
  if (!newOwner.empty()) {
    sync();
    return;
  }
  // bluetoothd went away: its objects and our links with it.
  tree_.clear();
  adapter_.clear();
  loseLinks();
  setState(ble::CentralManagerStateResetting);
  MainQueue::main().asyncAfter(kResettingLimit, [weak = weak_from_this(), generation = generation_] {
    auto self = weak.lock();
    if (self && self->generation_ == generation) self->setState(ble::CentralManagerStateUnsupported);
  });
}

void BluezCentral::chooseAdapter() {
  const char* wanted = std::getenv("TQBLE_BLUEZ_ADAPTER");
  std::string chosen;
  for (const auto& path : tree_.pathsWith(kAdapterInterface)) {
    if (wanted && *wanted && path != std::string("/org/bluez/") + wanted) continue;
    chosen = path;
    break;
  }
  if (chosen != adapter_) {
    // Links and scans belong to the adapter they were made on.
    loseLinks();
    adapter_ = chosen;
  }
  if (adapter_.empty()) return setState(ble::CentralManagerStateUnsupported);
  setState(tree_.flag(adapter_, kAdapterInterface, "Powered") ? ble::CentralManagerStatePoweredOn
                                                               : ble::CentralManagerStatePoweredOff);
}

void BluezCentral::setState(std::int64_t state) {
  if (state == state_) return;
  if (state_ == ble::CentralManagerStatePoweredOn) {
    // As on a phone: leaving powered-on stops the scan and drops links without a report.
    forgetDiscovery();
    for (auto& [path, peripheral] : peripherals_) {
      if (peripheral->link() != BluezPeripheral::Link::Disconnected) peripheral->linkDown();
    }
  }
  state_ = state;
  if (auto d = liveDelegate()) d->centralManagerDidUpdateState(*this);
}

void BluezCentral::interfacesAdded(const std::string& path, const BusInterfaces& interfaces) {
  tree_.add(path, interfaces);
  if (interfaces.contains(kAdapterInterface)) chooseAdapter();
  if (interfaces.contains(kDeviceInterface) && tree_.property(path, kDeviceInterface, "RSSI")) heard(path);
  if (interfaces.contains(kServiceInterface) || interfaces.contains(kCharacteristicInterface)) {
    if (auto p = owningPeripheral(path)) p->attributeAdded();
  }
}

void BluezCentral::interfacesRemoved(const std::string& path, const std::vector<std::string>& interfaces) {
  tree_.remove(path, interfaces);
  const auto has = [&](const char* name) { return std::find(interfaces.begin(), interfaces.end(), name) != interfaces.end(); };
  if (has(kDeviceInterface)) {
    auto p = knownPeripheral(path);
    if (p && p->link() == BluezPeripheral::Link::Connected) loseLink(*p, TQError{kLinkLost, kConnectionTimeoutCode, {}});
    if (p && p->link() == BluezPeripheral::Link::Connecting) {
      p->linkDown();
      if (auto d = liveDelegate()) d->didFailToConnectPeripheral(*this, p, forgotten());
    }
  }
  if (has(kAdapterInterface) && path == adapter_) adapterGone();
}

// Unplugged, or bluetoothd stopping: which of the two shows a moment later.
void BluezCentral::adapterGone() {
  loseLinks();
  adapter_.clear();
  setState(ble::CentralManagerStateResetting);
  MainQueue::main().asyncAfter(kAdapterGoneWait, [weak = weak_from_this(), generation = generation_] {
    auto self = weak.lock();
    if (self && self->generation_ == generation && self->adapter_.empty()) self->chooseAdapter();
  });
}

void BluezCentral::propertiesChanged(const std::string& path, const std::string& interface,
                                     const BusProperties& changed, const std::vector<std::string>& invalidated) {
  tree_.change(path, interface, changed, invalidated);
  if (interface == kAdapterInterface) {
    if (path == adapter_ && changed.contains("Powered")) chooseAdapter();
  } else if (interface == kDeviceInterface) {
    if (auto p = knownPeripheral(path)) p->refresh(tree_);
    if (changed.contains("RSSI") || changed.contains("ManufacturerData") || changed.contains("ServiceData")) heard(path);
    auto p = knownPeripheral(path);
    if (!p) return;
    if (const auto* c = changed.contains("Connected") ? changed.at("Connected").as<bool>() : nullptr; c && !*c) {
      if (p->link() == BluezPeripheral::Link::Connected) loseLink(*p, TQError{kLinkLost, kConnectionTimeoutCode, {}});
      if (auto it = linkEndAwaited_.find(path); it != linkEndAwaited_.end()) sendConnect(p, it->second);
    }
    if (const auto* r = changed.contains("ServicesResolved") ? changed.at("ServicesResolved").as<bool>() : nullptr; r && *r) {
      p->servicesResolved();
    }
  } else if (interface == kCharacteristicInterface) {
    const auto* value = changed.contains("Value") ? changed.at("Value").as<Bytes>() : nullptr;
    if (!value) return;
    if (auto p = owningPeripheral(path)) p->valueChanged(path, *value);
  }
}

std::shared_ptr<BluezPeripheral> BluezCentral::peripheralAt(const std::string& path) {
  auto& slot = peripherals_[path];
  if (!slot) slot = std::make_shared<BluezPeripheral>(path, weak_from_this());
  slot->refresh(tree_);
  return slot;
}

std::shared_ptr<BluezPeripheral> BluezCentral::knownPeripheral(const std::string& path) const {
  auto it = peripherals_.find(path);
  return it == peripherals_.end() ? nullptr : it->second;
}

std::shared_ptr<BluezPeripheral> BluezCentral::owningPeripheral(const std::string& path) const {
  for (const auto& [device, peripheral] : peripherals_) {
    if (isUnder(path, device)) return peripheral;
  }
  return nullptr;
}

// ---- Scanning ------------------------------------------------------------------------

void BluezCentral::scanForPeripheralsWithServices(const std::vector<ble::UUID>& serviceUUIDs,
                                                  const Dictionary& /*options*/) {
  // Like a phone stack, a scan asked for while the adapter is off is ignored.
  if (state_ != ble::CentralManagerStatePoweredOn) return;
  scanning_ = true;
  filter_ = serviceUUIDs;
  // A running session takes the new filter; otherwise it is set as the session starts.
  if (discovery_ == Discovery::On) setDiscoveryFilter(adapter_, {});
  else discover();
}

void BluezCentral::setDiscoveryFilter(const std::string& adapter, Bus::ReplyHandler then) {
  std::vector<std::string> uuids;
  for (const auto& u : filter_) uuids.push_back(u.fullString());
  // Duplicates wanted: every advertisement heard is one report.
  BusDict filter{{"Transport", BusValue("le")}, {"DuplicateData", BusValue(true)}};
  if (!uuids.empty()) filter["UUIDs"] = BusValue(uuids);
  call(adapter, kAdapterInterface, "SetDiscoveryFilter", {BusValue(filter)}, kCallTimeout, "",
       [then = std::move(then)](const BusReply& reply) {
         if (reply.error) TQLog("bluez: discovery filter refused: %s", reply.error->message.c_str());
         if (then) then(reply);
       });
}

// One StartDiscovery or StopDiscovery at a time: a start sent while bluetoothd still ends
// the session gets InProgress, and the session then ends all the same.
void BluezCentral::discover() {
  if (discovery_ == Discovery::Starting || discovery_ == Discovery::Stopping) return;  // the reply looks again
  const auto adapter = adapter_;
  const auto epoch = discoveryEpoch_;
  auto settled = [weak = weak_from_this(), epoch](Discovery now) {
    return [weak, epoch, now](const BusReply& reply) {
      auto self = weak.lock();
      if (!self || self->discoveryEpoch_ != epoch) return;
      // InProgress at a start: this connection's session is running already.
      const bool ok = !reply.error || (now == Discovery::On && reply.error->name == "org.bluez.Error.InProgress");
      if (!ok && now == Discovery::On) {
        TQLog("bluez: scanning refused: %s %s", reply.error->name.c_str(), reply.error->message.c_str());
        self->discovery_ = Discovery::Off;
        return;
      }
      // A refused stop (NotReady, "No discovery started") leaves no session either.
      self->discovery_ = ok ? now : Discovery::Off;
      self->discover();
    };
  };
  if (scanning_ && discovery_ == Discovery::Off) {
    discovery_ = Discovery::Starting;
    setDiscoveryFilter(adapter, [this, adapter, next = settled(Discovery::On), weak = weak_from_this()](const BusReply&) {
      if (weak.lock()) call(adapter, kAdapterInterface, "StartDiscovery", {}, kCallTimeout, "", next);
    });
  } else if (!scanning_ && discovery_ == Discovery::On) {
    discovery_ = Discovery::Stopping;
    call(adapter, kAdapterInterface, "StopDiscovery", {}, kCallTimeout, "", settled(Discovery::Off));
  }
}

/// bluetoothd ended every session (power-off, adapter or daemon gone): replies still on their way are dropped.
void BluezCentral::forgetDiscovery() {
  scanning_ = false;
  discovery_ = Discovery::Off;
  ++discoveryEpoch_;
}

void BluezCentral::heard(const std::string& path) {
  if (!scanning_) return;
  if (tree_.text(path, kDeviceInterface, "Adapter") != adapter_) return;
  const auto* rssi = tree_.property(path, kDeviceInterface, "RSSI");
  const auto* level = rssi ? rssi->as<std::int64_t>() : nullptr;
  if (!level) return;
  // Filters of every client are merged by bluetoothd: ours is applied here again.
  std::vector<std::string> offered;
  for (const auto& u : texts(tree_.property(path, kDeviceInterface, "UUIDs"))) offered.push_back(ble::UUID::fromString(u).UUIDString());
  if (!filter_.empty() && std::none_of(filter_.begin(), filter_.end(), [&](const ble::UUID& u) {
        return std::find(offered.begin(), offered.end(), u.UUIDString()) != offered.end();
      })) {
    return;
  }
  Dictionary advertisement;
  if (const auto* name = tree_.property(path, kDeviceInterface, "Name"); name && name->as<std::string>()) {
    advertisement["kCBAdvDataLocalName"] = Value{*name->as<std::string>()};
  }
  if (!offered.empty()) advertisement["kCBAdvDataServiceUUIDs"] = Value{offered};
  if (const auto* m = tree_.property(path, kDeviceInterface, "ManufacturerData")) {
    if (const auto* byCompany = m->as<BusIntDict>(); byCompany && !byCompany->empty()) {
      const auto& [company, data] = *byCompany->begin();
      Bytes bytes{static_cast<std::uint8_t>(company & 0xFF), static_cast<std::uint8_t>(company >> 8)};
      if (const auto* b = data.as<Bytes>()) bytes.insert(bytes.end(), b->begin(), b->end());
      advertisement["kCBAdvDataManufacturerData"] = Value{bytes};
    }
  }
  auto peripheral = peripheralAt(path);
  if (auto d = liveDelegate()) d->didDiscoverPeripheral(*this, peripheral, advertisement, *level);
}

void BluezCentral::stopScan() {
  if (!scanning_) return;
  // Cleared first: reports already on their way are dropped.
  scanning_ = false;
  discover();
}

// ---- Links ---------------------------------------------------------------------------

void BluezCentral::connectPeripheral(const std::shared_ptr<ble::Peripheral>& peripheral, const Dictionary&) {
  auto p = std::dynamic_pointer_cast<BluezPeripheral>(peripheral);
  if (!p || knownPeripheral(p->path()) != p || state_ != ble::CentralManagerStatePoweredOn) return;
  if (p->link() != BluezPeripheral::Link::Disconnected) return;
  p->beginConnecting();
  const auto attempt = p->linkNumber();
  if (tree_.flag(p->path(), kDeviceInterface, "Connected")) {
    // A link we did not make: an earlier process's, which bluetoothd may still be closing
    // (it then refuses notifications). It is closed, its end awaited within limits, and
    // a fresh link made.
    linkEndAwaited_[p->path()] = attempt;
    call(p->path(), kDeviceInterface, "Disconnect", {}, kCallTimeout);
    MainQueue::main().asyncAfter(kDyingLinkWait, [weak = weak_from_this(), p, attempt] {
      if (auto self = weak.lock()) self->sendConnect(p, attempt);
    });
    return;
  }
  sendConnect(p, attempt);
}

void BluezCentral::sendConnect(const std::shared_ptr<BluezPeripheral>& p, std::uint64_t attempt) {
  if (p->linkNumber() != attempt || p->link() != BluezPeripheral::Link::Connecting) return;
  if (auto it = linkEndAwaited_.find(p->path()); it != linkEndAwaited_.end()) {
    if (it->second != attempt) return;
    linkEndAwaited_.erase(it);
  }
  call(p->path(), kDeviceInterface, "Connect", {}, kConnectTimeout, "",
       [weak = weak_from_this(), p, attempt](const BusReply& reply) {
         auto self = weak.lock();
         if (!self || p->linkNumber() != attempt || p->link() != BluezPeripheral::Link::Connecting) return;
         // A link left by an earlier process is ours now.
         if (reply.error && reply.error->name != "org.bluez.Error.AlreadyConnected") {
           p->linkDown();
           const auto error = reply.error->name == kUnknownObject
                                  ? forgotten()
                                  : busError(*reply.error, kConnectionFailed, kConnectionFailedCode);
           if (auto d = self->liveDelegate()) d->didFailToConnectPeripheral(*self, p, error);
           return;
         }
         // The reply comes when the link is up, often without a Connected signal.
         self->tree_.setQuietly(p->path(), kDeviceInterface, "Connected", BusValue(true));
         p->linkUp();
         self->closeAtExit(p->path(), true);
         if (auto d = self->liveDelegate()) d->didConnectPeripheral(*self, p);
       });
}

void BluezCentral::cancelPeripheralConnection(const std::shared_ptr<ble::Peripheral>& peripheral) {
  auto p = std::dynamic_pointer_cast<BluezPeripheral>(peripheral);
  if (!p || knownPeripheral(p->path()) != p || p->link() == BluezPeripheral::Link::Disconnected) return;
  p->linkDown();
  // Also cancels a pending Connect; the answer, whatever it is, ends the link for us.
  call(p->path(), kDeviceInterface, "Disconnect", {}, kCallTimeout, "", [weak = weak_from_this(), p](const BusReply&) {
    auto self = weak.lock();
    if (!self) return;
    if (auto d = self->liveDelegate()) d->didDisconnectPeripheral(*self, p, std::nullopt);
  });
}

void BluezCentral::closeAtExit(const std::string& devicePath, bool close) {
  if (!bus_) return;
  // bluetoothd keeps a link after its client exits: ours end with this process.
  if (close) bus_->callOnClose(devicePath, kBlueZ, devicePath, kDeviceInterface, "Disconnect");
  else bus_->cancelOnClose(devicePath);
}

void BluezCentral::loseLinks() {
  forgetDiscovery();
  for (auto& [path, peripheral] : peripherals_) {
    if (peripheral->link() != BluezPeripheral::Link::Disconnected) {
      loseLink(*peripheral, TQError{kLinkLost, kConnectionTimeoutCode, {}});
    }
  }
}

void BluezCentral::loseLink(BluezPeripheral& peripheral, const TQError& error) {
  const bool wasConnected = peripheral.link() == BluezPeripheral::Link::Connected;
  peripheral.linkDown();
  auto p = peripheral.shared_from_this();
  if (auto d = liveDelegate()) {
    if (wasConnected) d->didDisconnectPeripheral(*this, p, error);
    else d->didFailToConnectPeripheral(*this, p, TQError{kConnectionFailed, error.code, {}});
  }
}

}  // namespace tqble::bluez
