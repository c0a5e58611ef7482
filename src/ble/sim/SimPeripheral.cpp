// A post's attribute table as a central sees it: discovery, reads, notifications and
// writes, each answered on the main queue after the radio's latency.
#include <algorithm>
#include <cctype>

#include "SimInternal.h"
#include "tqble/platform/MainQueue.h"

namespace tqble::sim {
namespace {

// A second service every post offers, which the SDK is meant to pass over.
constexpr char kDeviceInformation[] = "180A";
constexpr std::uint64_t kWriteProperties =
    ble::CharacteristicPropertyWriteWithoutResponse | ble::CharacteristicPropertyWrite;
constexpr std::uint64_t kReadProperties =
    ble::CharacteristicPropertyRead | ble::CharacteristicPropertyNotify;
const char kReadNotPermitted[] = "Reading is not permitted.";

ble::UUID presented(const std::string& id, const Faults& faults) {
  if (!faults.lowerCaseIdentifiers.contains(id)) return ble::UUID::fromString(id);
  std::string lower = id;
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return ble::UUID::fromString(lower);
}

}  // namespace

std::shared_ptr<ble::Service> SimCharacteristic::service() const { return service_.lock(); }

std::vector<std::shared_ptr<ble::Characteristic>> SimService::characteristics() const {
  if (!discovered) return {};
  return {table.begin(), table.end()};
}

void SimPeripheral::later(std::chrono::nanoseconds delay, std::function<void(SimPeripheral&)> task) {
  MainQueue::main().asyncAfter(
      delay, [weak = weak_from_this(), link = linkNumber_, task = std::move(task)] {
        auto self = weak.lock();
        if (!self || self->linkNumber_ != link || self->link_ != Link::Connected) return;
        task(*self);
      });
}

void SimPeripheral::linkUp() {
  link_ = Link::Connected;
  buildTable();
}

void SimPeripheral::linkDown() {
  link_ = Link::Disconnected;
  ++linkNumber_;
  forgetTable();
}

void SimPeripheral::forgetTable() {
  table_.clear();
  servicesDiscovered_ = false;
  readCharacteristic_.reset();
  writeCharacteristic_.reset();
  notifying_ = false;
}

void SimPeripheral::buildTable() {
  const Faults& faults = post_->faults();
  forgetTable();
  table_.push_back(std::make_shared<SimService>(ble::UUID::fromString(kDeviceInformation)));
  if (faults.missingService) return;
  auto service = std::make_shared<SimService>(presented(kService, faults));
  if (!faults.missingWriteCharacteristic) {
    writeCharacteristic_ =
        std::make_shared<SimCharacteristic>(presented(kWrite, faults), kWriteProperties, service);
    service->table.push_back(writeCharacteristic_);
  }
  if (!faults.missingReadCharacteristic) {
    readCharacteristic_ =
        std::make_shared<SimCharacteristic>(presented(kRead, faults), kReadProperties, service);
    readCharacteristic_->setValue(post_->setup().initialReadValue);
    auto at = faults.readCharacteristicFirst ? service->table.begin() : service->table.end();
    service->table.insert(at, readCharacteristic_);
  }
  table_.push_back(service);
}

// A filter is not applied: the SDK always asks for every service.
void SimPeripheral::discoverServices(const std::vector<ble::UUID>& /*serviceUUIDs*/) {
  if (link_ != Link::Connected) return;
  later(SimRadio::shared().timing().discovery, [](SimPeripheral& self) {
    const auto error = self.post_->faults().serviceDiscoveryError;
    if (!error) self.servicesDiscovered_ = true;
    if (auto d = self.liveDelegate()) d->didDiscoverServices(self.shared_from_this(), error);
  });
}

std::vector<std::shared_ptr<ble::Service>> SimPeripheral::services() const {
  if (!servicesDiscovered_) return {};
  return {table_.begin(), table_.end()};
}

void SimPeripheral::discoverCharacteristics(const std::vector<ble::UUID>& /*characteristicUUIDs*/,
                                            const std::shared_ptr<ble::Service>& service) {
  auto sim = std::dynamic_pointer_cast<SimService>(service);
  if (link_ != Link::Connected || !sim) return;
  later(SimRadio::shared().timing().discovery, [sim](SimPeripheral& self) {
    const auto error = self.post_->faults().characteristicDiscoveryError;
    if (!error) sim->discovered = true;
    if (auto d = self.liveDelegate()) d->didDiscoverCharacteristicsForService(self.shared_from_this(), sim, error);
  });
}

bool SimPeripheral::isOurs(const std::shared_ptr<ble::Characteristic>& c) const {
  return c && (c == readCharacteristic_ || c == writeCharacteristic_);
}

void SimPeripheral::readValueForCharacteristic(const std::shared_ptr<ble::Characteristic>& c) {
  if (link_ != Link::Connected || !isOurs(c)) return;
  later(SimRadio::shared().timing().read, [c](SimPeripheral& self) {
    std::optional<TQError> error;
    if (!(c->properties() & ble::CharacteristicPropertyRead)) {
      error = TQError{kReadNotPermitted, kReadNotPermittedCode, {}};
    } else {
      error = self.post_->faults().readError;
    }
    if (auto d = self.liveDelegate()) d->didUpdateValueForCharacteristic(self.shared_from_this(), c, error);
  });
}

void SimPeripheral::setNotifyValue(bool enabled, const std::shared_ptr<ble::Characteristic>& c) {
  if (link_ != Link::Connected || !c || c != readCharacteristic_) return;
  notifying_ = enabled;
}

void SimPeripheral::writeValue(const Bytes& data, const std::shared_ptr<ble::Characteristic>& c,
                               ble::WriteType type) {
  // Writes on a dropped link, or to an attribute of an earlier link, go nowhere.
  if (link_ != Link::Connected || !c || c != writeCharacteristic_) return;
  const Timing& timing = SimRadio::shared().timing();
  if (type == ble::WriteType::WithResponse) {
    later(timing.writeConfirmation, [c](SimPeripheral& self) {
      if (auto d = self.liveDelegate()) d->didWriteValueForCharacteristic(self.shared_from_this(), c, std::nullopt);
    });
  }
  later(timing.answer, [data](SimPeripheral& self) {
    for (const Bytes& answer : self.post_->handleWrite(data)) self.deliverAnswer(answer);
  });
}

void SimPeripheral::deliverAnswer(const Bytes& answer) {
  const AnswerPlan plan = planAnswer(answer, post_->faults(), SimRadio::shared().timing());
  if (plan.dropLinkFirst) {
    post_->dropLink();
    return;
  }
  for (const Piece& piece : plan.pieces) {
    later(piece.due, [piece](SimPeripheral& self) {
      if (!piece.lost && self.notifying_ && self.readCharacteristic_) {
        self.readCharacteristic_->setValue(piece.bytes);
        if (auto d = self.liveDelegate()) {
          d->didUpdateValueForCharacteristic(self.shared_from_this(), self.readCharacteristic_,
                                             std::nullopt);
        }
      }
      if (piece.dropLinkAfter) self.post_->dropLink();
    });
  }
}

}  // namespace tqble::sim
