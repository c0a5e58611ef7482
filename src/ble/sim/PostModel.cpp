// The charging post's state: clock, settings, the gun, sessions and their records.
#include "tqble/sim/PostModel.h"

#include <cmath>

#include "tqble/platform/MainQueue.h"

namespace tqble::sim {
namespace {

// Diagnostic error bits for the fault codes of the state answer.
std::uint8_t errorBit(std::uint16_t fault) {
  switch (fault) {
    case FaultEmergencyStop: return 1;
    case FaultOverVoltage: return 2;
    case FaultUnderVoltage: return 4;
    case FaultOverCurrent: return 8;
    default: return 0;
  }
}

}  // namespace

PostModel::PostModel(PostIdentity identity)
    : identity_(std::move(identity)), clockBaseAt_(MainQueue::main().now()) {}

double PostModel::postSeconds() const {
  const std::chrono::duration<double> elapsed = MainQueue::main().now() - clockBaseAt_;
  return clockBase_ + elapsed.count() * timeScale_;
}

std::int64_t PostModel::clock() const { return static_cast<std::int64_t>(std::floor(postSeconds())); }

void PostModel::setClock(std::int64_t seconds) {
  // A running session keeps its length across the jump.
  const double running = postSeconds() - sessionStart_;
  clockBase_ = static_cast<double>(seconds);
  clockBaseAt_ = MainQueue::main().now();
  sessionStart_ = clockBase_ - running;
}

void PostModel::setTimeScale(double scale) {
  clockBase_ = postSeconds();
  clockBaseAt_ = MainQueue::main().now();
  timeScale_ = scale;
}

void PostModel::plugIn() {
  if (gun_ == GunState::Idle) gun_ = GunState::PluggedIn;
}

void PostModel::unplug() {
  if (gun_ == GunState::PluggedIn || gun_ == GunState::Finished) gun_ = GunState::Idle;
}

bool PostModel::startCharging() {
  if (gun_ != GunState::PluggedIn && gun_ != GunState::Finished) return false;
  gun_ = GunState::Charging;
  ++serial_;
  sessionStart_ = postSeconds();
  return true;
}

std::uint32_t PostModel::sessionDuration() const {
  if (gun_ != GunState::Charging) return 0;
  return static_cast<std::uint32_t>(std::max(0.0, postSeconds() - sessionStart_));
}

std::uint32_t PostModel::sessionEnergy() const {
  if (gun_ != GunState::Charging) return 0;
  const double hours = std::max(0.0, postSeconds() - sessionStart_) / 3600.0;
  return static_cast<std::uint32_t>(power_ * hours);
}

std::uint32_t PostModel::current() const {
  if (gun_ != GunState::Charging || voltage_ == 0) return 0;
  // power / (voltage / 10) amperes, in tenths.
  return static_cast<std::uint32_t>(std::lround(power_ * 100.0 / voltage_));
}

std::uint32_t PostModel::cumulativeEnergy() const { return lifetimeEnergy_ + sessionEnergy(); }

bool PostModel::stopCharging() {
  if (gun_ != GunState::Charging) return false;
  const std::uint32_t energy = sessionEnergy();
  const auto start = static_cast<std::int32_t>(std::floor(sessionStart_));
  const auto duration = static_cast<std::int32_t>(sessionDuration());
  addHistory(HistoryEntry{serial_, static_cast<std::uint16_t>(std::min<std::uint32_t>(energy, 0xFFFF)),
                          start, start + duration, duration});
  lifetimeEnergy_ += energy;
  gun_ = GunState::Finished;
  return true;
}

void PostModel::raiseFault(std::uint16_t code) {
  stopCharging();
  gun_ = GunState::Fault;
  faultCode_ = code;
  addError(ErrorEntry{static_cast<std::int32_t>(clock()), errorBit(code)});
}

void PostModel::clearFault() {
  if (gun_ != GunState::Fault) return;
  gun_ = GunState::Idle;
  faultCode_ = 0;
}

std::uint8_t PostModel::errorBits() const { return gun_ == GunState::Fault ? errorBit(faultCode_) : 0; }

void PostModel::addHistory(HistoryEntry entry) { history_.push_back(entry); }

void PostModel::addError(ErrorEntry entry) {
  // The log holds what its one-byte count can say.
  if (errors_.size() == 255) errors_.erase(errors_.begin());
  errors_.push_back(entry);
}

}  // namespace tqble::sim
