#pragma once

// Every call a manager makes to its delegate, written down in order, and every complete
// answer its tap sees: one recorder for the suites of every backend.

#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "tqble/TQBleManager.h"

namespace tqble::test {

using Errors = std::vector<std::optional<TQError>>;

struct Recorder {
  std::vector<std::int64_t> states;
  std::vector<std::pair<std::shared_ptr<ble::Peripheral>, std::int64_t>> discoveries;
  int connects = 0;
  bool writeKnownAtConnect = false;                      ///< when didConnectPeripheral came
  std::vector<std::optional<std::int64_t>> disconnects;  ///< their error codes
  Errors failures, updateErrors;
  std::vector<std::shared_ptr<TQBleDataModel>> updates;
  std::vector<std::pair<std::int64_t, Bytes>> tapped;  ///< complete answers with their tags
  std::shared_ptr<TQBleManagerDelegate> delegate = std::make_shared<TQBleManagerDelegate>();

  /// Becomes `m`'s delegate and taps its answers. `withUpdates`: whether the delegate
  /// implements the value-update call (without it the manager keeps its record).
  void attach(TQBleManager& m, bool withUpdates = true) {
    auto& d = *delegate;
    // clang-format off
    d.tqbleManagerCenterState = [this](std::int64_t s) { states.push_back(s); };
    d.didDiscoverPeripheral = [this](auto&, const auto& p, std::int64_t rssi) { discoveries.emplace_back(p, rssi); };
    d.didConnectPeripheral = [this](TQBleManager& m, const auto&) { ++connects, writeKnownAtConnect = m.writeCharacteristic() != nullptr; };
    d.didDisconnectPeripheral = [this](auto&, const auto&, const auto& e) { disconnects.push_back(e ? std::optional{e->code} : std::nullopt); };
    d.didFailToConnectPeripheral = [this](auto&, const auto&, const auto& e) { failures.push_back(e); };
    if (withUpdates)
      d.didUpdateValueForCharacteristicValue = [this](auto&, const auto& r, const auto& e) { updates.push_back(r), updateErrors.push_back(e); };
    // clang-format on
    m.setDelegate(delegate);
    m.addAnswerObserver([this](std::int64_t tag, const Bytes& answer) { tapped.emplace_back(tag, answer); });
  }

  /// Forgets what was heard; stays the delegate.
  void clear() {
    states.clear(), discoveries.clear(), disconnects.clear();
    failures.clear(), updateErrors.clear(), updates.clear(), tapped.clear();
    connects = 0, writeKnownAtConnect = false;
  }

  /// The lengths of the answers tapped, in order.
  std::vector<std::size_t> tappedSizes() const {
    std::vector<std::size_t> sizes;
    for (const auto& t : tapped) sizes.push_back(t.second.size());
    return sizes;
  }
};

}  // namespace tqble::test
