// A BlueZ device as a peripheral: its services as bluetoothd resolved them, reads,
// notifications and writes. Each Value change of a characteristic of the current link is
// exactly one value update: bluetoothd signals one per notification (equal values too)
// and one per read, before the read's reply.
#include <algorithm>
#include <cstdlib>

#include "BluezInternal.h"
#include "tqble/platform/Log.h"
#include "tqble/platform/MainQueue.h"

namespace tqble::bluez {
namespace {

using namespace std::chrono_literals;

constexpr auto kResolveTimeout = 30s;
// How long a resolved tree may lack the charger's service before it counts as absent
// (bluetoothd can signal ServicesResolved before exporting every object).
constexpr auto kLateServiceWait = 500ms;
// Quiet after the last late attribute signal before the tree is read again.
constexpr auto kBurstQuiet = 20ms;
constexpr char kChargerService[] = "FFF0";
constexpr char kDiscoveryFailed[] = "The services of the charging post could not be discovered.";
constexpr char kReadFailed[] = "Reading the characteristic failed.";
constexpr char kWriteFailed[] = "Writing the characteristic failed.";
constexpr char kNotifyFailed[] = "The notifications of the charging post could not be set up.";

// The attribute handle bluetoothd puts in the path as four hex digits (".../service000a/char000b").
unsigned long handleOf(const std::string& path) {
  return path.size() < 4 ? 0 : std::strtoul(path.c_str() + path.size() - 4, nullptr, 16);
}

std::uint64_t propertiesOf(const BusValue* flags) {
  static const std::pair<const char*, std::uint64_t> kBits[] = {
      {"broadcast", ble::CharacteristicPropertyBroadcast},
      {"read", ble::CharacteristicPropertyRead},
      {"write-without-response", ble::CharacteristicPropertyWriteWithoutResponse},
      {"write", ble::CharacteristicPropertyWrite},
      {"notify", ble::CharacteristicPropertyNotify},
      {"indicate", ble::CharacteristicPropertyIndicate},
      {"authenticated-signed-writes", ble::CharacteristicPropertyAuthenticatedSignedWrites},
      {"extended-properties", ble::CharacteristicPropertyExtendedProperties},
  };
  std::uint64_t bits = 0;
  const auto* list = flags ? flags->as<std::vector<std::string>>() : nullptr;
  if (!list) return 0;
  for (const auto& [name, bit] : kBits) {
    if (std::find(list->begin(), list->end(), name) != list->end()) bits |= bit;
  }
  return bits;
}

bool byHandle(const std::string& a, const std::string& b) { return handleOf(a) < handleOf(b); }

}  // namespace

std::shared_ptr<ble::Service> BluezCharacteristic::service() const { return service_.lock(); }

std::vector<std::shared_ptr<ble::Characteristic>> BluezService::characteristics() const {
  if (!discovered) return {};
  return {table.begin(), table.end()};
}

void BluezPeripheral::refresh(const ObjectTree& tree) {
  if (!tree.find(path_, kDeviceInterface)) return;
  address_ = tree.text(path_, kDeviceInterface, "Address");
  name_ = tree.text(path_, kDeviceInterface, "Name");
}

void BluezPeripheral::later(std::chrono::nanoseconds delay, std::function<void(BluezPeripheral&)> task) {
  MainQueue::main().asyncAfter(delay, [weak = weak_from_this(), link = linkNumber_, task = std::move(task)] {
    auto self = weak.lock();
    if (!self || self->linkNumber_ != link || self->link_ != Link::Connected) return;
    task(*self);
  });
}

Bus::ReplyHandler BluezPeripheral::onThisLink(std::function<void(BluezPeripheral&, const BusReply&)> then) {
  return [weak = weak_from_this(), link = linkNumber_, then = std::move(then)](const BusReply& reply) {
    auto self = weak.lock();
    if (!self || self->linkNumber_ != link || self->link_ != Link::Connected) return;
    then(*self, reply);
  };
}

void BluezPeripheral::linkDown() {
  link_ = Link::Disconnected;
  ++linkNumber_;
  discovery_ = Discovery::Idle;
  table_.clear();
  auto central = liveCentral();
  if (!central) return;
  central->closeAtExit(path_, false);
  // Notify sessions would resume by themselves on the next link.
  for (const auto& path : notifying_) central->call(path, kCharacteristicInterface, "StopNotify", {}, kCallTimeout);
  notifying_.clear();
}

// ---- Services ------------------------------------------------------------------------

// A filter is not applied: the SDK always asks for every service.
void BluezPeripheral::discoverServices(const std::vector<ble::UUID>& /*serviceUUIDs*/) {
  auto central = liveCentral();
  if (link_ != Link::Connected || !central) return;
  if (central->tree().flag(path_, kDeviceInterface, "ServicesResolved")) {
    // Resolved already (a fast link, or the daemon's cache on a reconnection).
    discovery_ = Discovery::Waiting;
    later(0ns, [](BluezPeripheral& self) { self.servicesResolved(); });
    return;
  }
  discovery_ = Discovery::Waiting;
  later(kResolveTimeout, [](BluezPeripheral& self) {
    if (self.discovery_ == Discovery::Waiting) {
      self.reportServices(TQError{kDiscoveryFailed, kUnknownErrorCode, {}});
    }
  });
}

void BluezPeripheral::servicesResolved() {
  if (link_ != Link::Connected || discovery_ != Discovery::Waiting) return;
  buildTable();
  const bool charger = std::any_of(table_.begin(), table_.end(),
                                   [](const auto& s) { return s->uuid().UUIDString() == kChargerService; });
  if (charger) return reportServices(std::nullopt);
  discovery_ = Discovery::WaitingForCharger;
  later(kLateServiceWait, [](BluezPeripheral& self) {
    if (self.discovery_ == Discovery::WaitingForCharger) self.reportServices(std::nullopt);
  });
}

void BluezPeripheral::attributeAdded() {
  if (link_ != Link::Connected || discovery_ != Discovery::WaitingForCharger) return;
  // A service's characteristics follow it in one burst of signals: look once it is over.
  const auto burst = ++attributeBurst_;
  later(kBurstQuiet, [burst](BluezPeripheral& self) {
    if (self.attributeBurst_ != burst || self.discovery_ != Discovery::WaitingForCharger) return;
    self.discovery_ = Discovery::Waiting;
    self.servicesResolved();
  });
}

void BluezPeripheral::reportServices(const std::optional<TQError>& error) {
  discovery_ = error ? Discovery::Idle : Discovery::Done;
  if (error) table_.clear();
  if (auto d = liveDelegate()) d->didDiscoverServices(shared_from_this(), error);
}

void BluezPeripheral::buildTable() {
  auto central = liveCentral();
  table_.clear();
  if (!central) return;
  const auto& tree = central->tree();
  auto paths = tree.pathsWith(kServiceInterface);
  std::erase_if(paths, [&](const std::string& p) { return tree.text(p, kServiceInterface, "Device") != path_; });
  std::sort(paths.begin(), paths.end(), byHandle);
  for (const auto& sp : paths) {
    table_.push_back(std::make_shared<BluezService>(sp, ble::UUID::fromString(tree.text(sp, kServiceInterface, "UUID"))));
  }
}

// Read when asked for: a service's characteristics may be exported just after it.
void BluezPeripheral::fillService(const std::shared_ptr<BluezService>& service) {
  auto central = liveCentral();
  if (!central || !service->table.empty()) return;
  const auto& tree = central->tree();
  auto paths = tree.pathsWith(kCharacteristicInterface);
  std::erase_if(paths, [&](const std::string& p) { return tree.text(p, kCharacteristicInterface, "Service") != service->path(); });
  std::sort(paths.begin(), paths.end(), byHandle);
  for (const auto& cp : paths) {
    auto c = std::make_shared<BluezCharacteristic>(
        cp, ble::UUID::fromString(tree.text(cp, kCharacteristicInterface, "UUID")),
        propertiesOf(tree.property(cp, kCharacteristicInterface, "Flags")), service);
    if (const auto* v = tree.property(cp, kCharacteristicInterface, "Value"); v && v->as<Bytes>()) c->setValue(*v->as<Bytes>());
    service->table.push_back(c);
  }
}

std::vector<std::shared_ptr<ble::Service>> BluezPeripheral::services() const {
  if (discovery_ != Discovery::Done) return {};
  return {table_.begin(), table_.end()};
}

void BluezPeripheral::discoverCharacteristics(const std::vector<ble::UUID>& /*characteristicUUIDs*/,
                                              const std::shared_ptr<ble::Service>& service) {
  auto mine = std::dynamic_pointer_cast<BluezService>(service);
  if (link_ != Link::Connected || !mine || std::find(table_.begin(), table_.end(), mine) == table_.end()) return;
  // bluetoothd resolved them with the services.
  later(0ns, [mine](BluezPeripheral& self) {
    self.fillService(mine);
    mine->discovered = true;
    if (auto d = self.liveDelegate()) d->didDiscoverCharacteristicsForService(self.shared_from_this(), mine, std::nullopt);
  });
}

// ---- Reads, notifications, writes ---------------------------------------------------

std::shared_ptr<BluezCharacteristic> BluezPeripheral::ours(const std::shared_ptr<ble::Characteristic>& c) const {
  if (link_ != Link::Connected || !c) return nullptr;
  for (const auto& service : table_) {
    for (const auto& mine : service->table) {
      if (mine == c) return mine;
    }
  }
  return nullptr;  // of an earlier link, or of another peripheral
}

void BluezPeripheral::valueChanged(const std::string& characteristicPath, const Bytes& value) {
  if (link_ != Link::Connected) return;
  for (const auto& service : table_) {
    for (const auto& c : service->table) {
      if (c->path() != characteristicPath) continue;
      c->setValue(value);
      if (auto d = liveDelegate()) d->didUpdateValueForCharacteristic(shared_from_this(), c, std::nullopt);
      return;
    }
  }
}

void BluezPeripheral::readValueForCharacteristic(const std::shared_ptr<ble::Characteristic>& c) {
  auto mine = ours(c);
  auto central = liveCentral();
  if (!mine || !central) return;
  // Success reports nothing here: the Value signal before the reply was the update.
  central->call(mine->path(), kCharacteristicInterface, "ReadValue", {BusValue(BusDict{})}, kCallTimeout, "ay",
                onThisLink([mine](BluezPeripheral& self, const BusReply& reply) {
                  if (!reply.error) return;
                  if (auto d = self.liveDelegate()) {
                    d->didUpdateValueForCharacteristic(self.shared_from_this(), mine,
                                                       busError(*reply.error, kReadFailed, kUnknownErrorCode));
                  }
                }));
}

void BluezPeripheral::setNotifyValue(bool enabled, const std::shared_ptr<ble::Characteristic>& c) {
  auto mine = ours(c);
  auto central = liveCentral();
  if (!mine || !central) return;
  if (enabled) notifying_.insert(mine->path());
  else notifying_.erase(mine->path());
  // One session per client: a repeated start is answered with success or InProgress.
  central->call(mine->path(), kCharacteristicInterface, enabled ? "StartNotify" : "StopNotify", {}, kCallTimeout, "",
                [weak = weak_from_this(), link = linkNumber_, enabled, path = mine->path()](const BusReply& reply) {
                  if (!reply.error || reply.error->name == "org.bluez.Error.InProgress") return;
                  TQLog("bluez: notifications of %s: %s %s", path.c_str(), reply.error->name.c_str(),
                        reply.error->message.c_str());
                  auto self = weak.lock();
                  if (!enabled || !self || self->linkNumber_ != link || self->link_ != Link::Connected) return;
                  // Without notifications no answer ever arrives: the link is of no use.
                  self->notifying_.erase(path);
                  if (auto central = self->liveCentral()) {
                    central->call(self->path_, kDeviceInterface, "Disconnect", {}, kCallTimeout);
                    central->loseLink(*self, busError(*reply.error, kNotifyFailed, kConnectionFailedCode));
                  }
                });
}

void BluezPeripheral::writeValue(const Bytes& data, const std::shared_ptr<ble::Characteristic>& c,
                                 ble::WriteType type) {
  // Writes on a dropped link, or to an attribute of an earlier link, go nowhere.
  auto mine = ours(c);
  auto central = liveCentral();
  if (!mine || !central) return;
  const bool command = type == ble::WriteType::WithoutResponse;
  if (command) {
    // bluetoothd refuses a command longer than one packet.
    const auto* mtu = central->tree().property(mine->path(), kCharacteristicInterface, "MTU");
    const auto* size = mtu ? mtu->as<std::int64_t>() : nullptr;
    if (size && data.size() + 3 > static_cast<std::size_t>(*size)) {
      TQLog("bluez: a write of %zu bytes does not fit the link's MTU of %lld", data.size(), static_cast<long long>(*size));
      return;
    }
  }
  const BusDict options{{"type", BusValue(command ? "command" : "request")}};
  central->call(mine->path(), kCharacteristicInterface, "WriteValue", {BusValue(data), BusValue(options)}, kCallTimeout,
                "", onThisLink([mine, command](BluezPeripheral& self, const BusReply& reply) {
                  if (command) {
                    if (reply.error) TQLog("bluez: write without response failed: %s", reply.error->message.c_str());
                    return;
                  }
                  std::optional<TQError> error;
                  if (reply.error) error = busError(*reply.error, kWriteFailed, kUnknownErrorCode);
                  if (auto d = self.liveDelegate()) d->didWriteValueForCharacteristic(self.shared_from_this(), mine, error);
                }));
}

}  // namespace tqble::bluez
