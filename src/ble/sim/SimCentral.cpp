// The simulated radio and its centrals: adapter state, advertising, connections.
//
// Scanning reports every advertising post shortly after the scan starts and then again
// every Timing::advertisingInterval (once per scan start when that is zero), as a phone
// stack does without duplicate filtering. A connected post stops advertising.
#include "tqble/sim/SimCentral.h"

#include <algorithm>

#include "SimInternal.h"
#include "tqble/platform/MainQueue.h"

namespace tqble::sim {
namespace {

const char kConnectionFailed[] = "The connection to the charging post failed.";
const char kLinkLost[] = "The link to the charging post was lost.";

}  // namespace

// ---- Radio ---------------------------------------------------------------------------

SimRadio& SimRadio::shared() {
  static SimRadio radio;
  return radio;
}

std::vector<std::shared_ptr<SimCentral>> RadioAccess::centrals(SimRadio& radio) {
  std::vector<std::shared_ptr<SimCentral>> live;
  std::erase_if(radio.centrals_, [](const auto& weak) { return weak.expired(); });
  for (const auto& weak : radio.centrals_) {
    if (auto central = std::static_pointer_cast<SimCentral>(weak.lock())) live.push_back(central);
  }
  return live;
}

void SimRadio::setState(std::int64_t state) {
  if (state == state_) return;
  const bool wasOn = poweredOn();
  state_ = state;
  for (const auto& central : RadioAccess::centrals(*this)) {
    if (wasOn && !poweredOn()) central->powerLost();
    central->reportState(state);
  }
}

void SimRadio::setPowered(bool on) {
  setState(on ? ble::CentralManagerStatePoweredOn : ble::CentralManagerStatePoweredOff);
}

bool SimRadio::poweredOn() const { return state_ == ble::CentralManagerStatePoweredOn; }

std::shared_ptr<VirtualPost> SimRadio::addPost(PostSetup setup) {
  // A program's own post takes the place of the default one, unless that one is in use.
  if (auto standIn = defaultPost_.lock(); standIn && !standIn->connected()) removePost(standIn);
  defaultPost_.reset();
  postsAdded_ = true;
  posts_.push_back(std::make_shared<VirtualPost>(std::move(setup)));
  return posts_.back();
}

void SimRadio::removePost(const std::shared_ptr<VirtualPost>& post) {
  if (!post) return;
  post->dropLink();
  std::erase(posts_, post);
}

std::shared_ptr<ble::CentralManager> SimRadio::makeCentral(
    std::weak_ptr<ble::CentralManagerDelegate> delegate) {
  if (!postsAdded_) {
    // A first program finds a post: one with the default setup, until it adds its own.
    postsAdded_ = true;
    posts_.push_back(std::make_shared<VirtualPost>());
    defaultPost_ = posts_.back();
    // Some past life, so that its history and error log have something to show.
    PostModel& model = posts_.back()->model();
    model.addHistory({998, 12'400, 1'699'900'000, 1'699'907'200, 7200});
    model.addHistory({999, 3'150, 1'699'950'000, 1'699'952'700, 2700});
    model.addError({1'699'800'000, 8});
    model.plugIn();  // a car waits, so that a first program can charge it
  }
  auto central = std::make_shared<SimCentral>(std::move(delegate));
  centrals_.push_back(central);
  central->reportState(state_);
  return central;
}

std::shared_ptr<ble::CentralManager> makeCentral(std::weak_ptr<ble::CentralManagerDelegate> delegate) {
  return SimRadio::shared().makeCentral(std::move(delegate));
}

// ---- Posts and their links -------------------------------------------------------------

bool VirtualPost::connected() const {
  const auto centrals = RadioAccess::centrals(SimRadio::shared());
  return std::any_of(centrals.begin(), centrals.end(),
                     [this](const auto& central) { return central->holdsLinkTo(*this); });
}

void VirtualPost::dropLink() {
  for (const auto& central : RadioAccess::centrals(SimRadio::shared())) {
    central->loseLink(*this, TQError{kLinkLost, kConnectionTimeoutCode, {}});
  }
}

// ---- Central ---------------------------------------------------------------------------

void SimCentral::reportState(std::int64_t state) {
  MainQueue::main().asyncAfter(SimRadio::shared().timing().stateReport,
                               [weak = weak_from_this(), state] {
                                 auto self = weak.lock();
                                 if (!self) return;
                                 self->state_ = state;
                                 if (auto d = self->liveDelegate()) d->centralManagerDidUpdateState(*self);
                               });
}

void SimCentral::powerLost() {
  scanning_ = false;
  for (auto& [post, peripheral] : peripherals_) {
    if (peripheral->link() != SimPeripheral::Link::Disconnected) peripheral->linkDown();
  }
}

void SimCentral::scanForPeripheralsWithServices(const std::vector<ble::UUID>& serviceUUIDs,
                                                const Dictionary& /*options*/) {
  // Like a phone stack, a scan asked for while the adapter is off is ignored.
  if (!SimRadio::shared().poweredOn()) return;
  // Every post offers only "FFF0"; a filter without it hears nothing.
  if (!serviceUUIDs.empty() &&
      std::none_of(serviceUUIDs.begin(), serviceUUIDs.end(),
                   [](const ble::UUID& u) { return u.UUIDString() == kService; })) {
    scanning_ = false;
    return;
  }
  scanning_ = true;
  const auto scan = ++scanNumber_;
  MainQueue::main().asyncAfter(SimRadio::shared().timing().firstAdvertisement,
                               [weak = weak_from_this(), scan] {
                                 if (auto self = weak.lock()) self->advertise(scan);
                               });
}

void SimCentral::advertise(std::uint64_t scan) {
  if (!scanning_ || scan != scanNumber_) return;
  // Copied: a delegate may add or remove posts while hearing them.
  const auto posts = SimRadio::shared().posts();
  for (const auto& post : posts) {
    if (!post->advertising() || post->connected()) continue;
    auto peripheral = peripheralFor(post);
    const Dictionary advertisement{{"kCBAdvDataLocalName", Value{post->name()}},
                                   {"kCBAdvDataServiceUUIDs", Value{std::vector<std::string>{kService}}}};
    if (auto d = liveDelegate()) d->didDiscoverPeripheral(*this, peripheral, advertisement, post->rssi());
    if (!scanning_ || scan != scanNumber_) return;
  }
  const auto interval = SimRadio::shared().timing().advertisingInterval;
  if (interval <= std::chrono::nanoseconds::zero()) return;
  MainQueue::main().asyncAfter(interval, [weak = weak_from_this(), scan] {
    if (auto self = weak.lock()) self->advertise(scan);
  });
}

void SimCentral::stopScan() { scanning_ = false; }

std::shared_ptr<SimPeripheral> SimCentral::peripheralFor(const std::shared_ptr<VirtualPost>& post) {
  auto& slot = peripherals_[post.get()];
  if (!slot) slot = std::make_shared<SimPeripheral>(post, weak_from_this());
  return slot;
}

void SimCentral::connectPeripheral(const std::shared_ptr<ble::Peripheral>& peripheral,
                                   const Dictionary& /*options*/) {
  auto sim = std::dynamic_pointer_cast<SimPeripheral>(peripheral);
  if (!sim || !SimRadio::shared().poweredOn()) return;
  if (sim->link() != SimPeripheral::Link::Disconnected) return;
  sim->beginConnecting();
  const auto attempt = sim->linkNumber();
  MainQueue::main().asyncAfter(
      SimRadio::shared().timing().connect, [weak = weak_from_this(), sim, attempt] {
        auto self = weak.lock();
        if (!self || sim->linkNumber() != attempt || sim->link() != SimPeripheral::Link::Connecting) {
          return;
        }
        if (auto error = sim->post()->faults().connectionError) {
          sim->linkDown();
          if (auto d = self->liveDelegate()) d->didFailToConnectPeripheral(*self, sim, *error);
          return;
        }
        sim->linkUp();
        if (auto d = self->liveDelegate()) d->didConnectPeripheral(*self, sim);
      });
}

void SimCentral::cancelPeripheralConnection(const std::shared_ptr<ble::Peripheral>& peripheral) {
  auto sim = std::dynamic_pointer_cast<SimPeripheral>(peripheral);
  if (!sim || sim->link() == SimPeripheral::Link::Disconnected) return;
  sim->linkDown();
  MainQueue::main().asyncAfter(SimRadio::shared().timing().disconnect, [weak = weak_from_this(), sim] {
    auto self = weak.lock();
    if (!self) return;
    if (auto d = self->liveDelegate()) d->didDisconnectPeripheral(*self, sim, std::nullopt);
  });
}

void SimCentral::loseLink(const VirtualPost& post, const TQError& error) {
  auto found = peripherals_.find(&post);
  if (found == peripherals_.end()) return;
  auto sim = found->second;
  if (sim->link() == SimPeripheral::Link::Disconnected) return;
  const bool wasConnected = sim->link() == SimPeripheral::Link::Connected;
  sim->linkDown();
  MainQueue::main().async([weak = weak_from_this(), sim, error, wasConnected] {
    auto self = weak.lock();
    if (!self) return;
    auto d = self->liveDelegate();
    if (!d) return;
    if (wasConnected) {
      d->didDisconnectPeripheral(*self, sim, error);
    } else {
      d->didFailToConnectPeripheral(*self, sim, TQError{kConnectionFailed, error.code, {}});
    }
  });
}

bool SimCentral::holdsLinkTo(const VirtualPost& post) const {
  auto found = peripherals_.find(&post);
  return found != peripherals_.end() && found->second->link() == SimPeripheral::Link::Connected;
}

}  // namespace tqble::sim
