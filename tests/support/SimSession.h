#pragma once

// A manager on the simulated radio with one virtual post and a delegate that records
// every call, on virtual time. Every test runs in a process of its own, so each session
// gets a fresh manager, radio and queue.

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tqble/TQBleManager.h"
#include "tqble/platform/MainQueue.h"
#include "tqble/sim/SimRadio.h"

namespace tqble::test {

using namespace std::chrono_literals;
using Errors = std::vector<std::optional<TQError>>;

/// What the delegate heard, in order.
struct DelegateLog {
  std::vector<std::int64_t> states;
  std::vector<std::pair<std::shared_ptr<ble::Peripheral>, std::int64_t>> discoveries;
  int connects = 0;
  std::vector<std::optional<std::int64_t>> disconnects;  // error codes
  Errors failures, updateErrors;
  std::vector<std::shared_ptr<TQBleDataModel>> updates;
  bool writeKnownAtConnect = false;  // when didConnectPeripheral came
};

class SimSession {
 public:
  /// `withUpdates`: whether the delegate implements the value-update callback.
  explicit SimSession(bool withUpdates = true) {
    MainQueue::main().useVirtualClock();
    TQBleManager::useBackend("sim");
    post = radio().addPost();
    manager = TQBleManager::shareManager();
    delegate = std::make_shared<TQBleManagerDelegate>();
    DelegateLog* l = &log;
    // clang-format off
    delegate->tqbleManagerCenterState = [l](std::int64_t s) { l->states.push_back(s); };
    delegate->didDiscoverPeripheral = [l](auto&, const auto& p, std::int64_t rssi) { l->discoveries.emplace_back(p, rssi); };
    delegate->didConnectPeripheral = [l](TQBleManager& m, const auto&) { ++l->connects, l->writeKnownAtConnect = m.writeCharacteristic() != nullptr; };
    delegate->didDisconnectPeripheral = [l](auto&, const auto&, const auto& e) { l->disconnects.push_back(e ? std::optional{e->code} : std::nullopt); };
    delegate->didFailToConnectPeripheral = [l](auto&, const auto&, const auto& e) { l->failures.push_back(e); };
    if (withUpdates)
      delegate->didUpdateValueForCharacteristicValue = [l](auto&, const auto& m, const auto& e) { l->updates.push_back(m), l->updateErrors.push_back(e); };
    // clang-format on
    manager->setDelegate(delegate);
    manager->addAnswerObserver(
        [this](std::int64_t tag, const Bytes& answer) { tapped.emplace_back(tag, answer); });
  }

  static sim::SimRadio& radio() { return sim::SimRadio::shared(); }
  static void run(MainQueue::Duration span) { MainQueue::main().runFor(span); }

  /// Scans until the post is heard, then stops scanning; returns its peripheral.
  std::shared_ptr<ble::Peripheral> findPost() {
    manager->scanForPeripherals();
    MainQueue::main().runUntil([this] { return !log.discoveries.empty(); }, 5s);
    manager->stopScan();
    return log.discoveries.empty() ? nullptr : log.discoveries.back().first;
  }

  /// Connects and runs until discovery is over (well before the automatic query).
  std::shared_ptr<ble::Peripheral> connect() {
    auto peripheral = findPost();
    manager->startConnectPeripheral(peripheral);
    run(500ms);
    return peripheral;
  }

  /// Connects, lets the automatic system-information query finish and forgets what was heard.
  std::shared_ptr<ble::Peripheral> connectAndSettle() {
    auto peripheral = connect();
    run(3s);
    clearLog();
    return peripheral;
  }

  void clearLog() {
    log = DelegateLog{};
    tapped.clear();
    errors.clear();
  }

  /// Gives one command's answer and delegate calls time to arrive.
  void settle() { run(500ms); }

  /// Issues one command and lets its answer arrive.
  void command(void (*call)(TQBleManager&)) { call(*manager), settle(); }

  /// An error handler for a command that records into `errors`.
  TQErrorHandler onError() {
    return [this](const TQError& e) { errors.push_back(e); };
  }

  /// The lengths of the answers the tap saw, in order.
  std::vector<std::size_t> tappedSizes() const {
    std::vector<std::size_t> sizes;
    for (const auto& t : tapped) sizes.push_back(t.second.size());
    return sizes;
  }

  std::shared_ptr<sim::VirtualPost> post;
  std::shared_ptr<TQBleManager> manager;
  std::shared_ptr<TQBleManagerDelegate> delegate;
  DelegateLog log;
  std::vector<std::pair<std::int64_t, Bytes>> tapped;  // complete answers with their tags
  std::vector<TQError> errors;
};

/// The commands the tables send.
// clang-format off
inline void systemInfo(TQBleManager& m) { m.querySystemInfoWithError(nullptr); }
inline void state(TQBleManager& m) { m.queryChargerStateWithError(nullptr); }
inline void history(TQBleManager& m) { m.queryHistoryChargingListWithError(nullptr); }
inline void energy(TQBleManager& m) { m.queryCumulationElecQuantityWithError(nullptr); }
inline void errorLog(TQBleManager& m) { m.queryHistoryErrorLogListWithError(nullptr); }
inline void diagnosis(TQBleManager& m) { m.runningDiagnosticInfoWithError(nullptr); }
inline void stopCharge(TQBleManager& m) { m.stopChargeWithError(nullptr); }
// clang-format on

/// Names a parameterised case after its `name` field.
inline constexpr auto caseName = [](const auto& info) { return std::string(info.param.name); };

}  // namespace tqble::test
