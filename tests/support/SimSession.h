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

/// What the delegate heard, in order.
struct DelegateLog {
  std::vector<std::int64_t> states;
  std::vector<std::pair<std::shared_ptr<ble::Peripheral>, std::int64_t>> discoveries;
  int connects = 0;
  std::vector<std::optional<TQError>> disconnects;
  std::vector<std::optional<TQError>> failures;
  std::vector<std::shared_ptr<TQBleDataModel>> updates;
  std::vector<std::optional<TQError>> updateErrors;
  /// Whether the write characteristic was known when didConnectPeripheral came.
  bool writeKnownAtConnect = false;
};

/// One complete answer seen through the manager's answer tap.
struct Tapped {
  std::int64_t cmdType;
  Bytes answer;
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
    DelegateLog* log = &this->log;
    delegate->tqbleManagerCenterState = [log](std::int64_t s) { log->states.push_back(s); };
    delegate->didDiscoverPeripheral = [log](TQBleManager&, const auto& p, std::int64_t rssi) {
      log->discoveries.emplace_back(p, rssi);
    };
    delegate->didConnectPeripheral = [log](TQBleManager& m, const auto&) {
      ++log->connects;
      log->writeKnownAtConnect = m.writeCharacteristic() != nullptr;
    };
    delegate->didDisconnectPeripheral = [log](TQBleManager&, const auto&, const auto& e) {
      log->disconnects.push_back(e);
    };
    delegate->didFailToConnectPeripheral = [log](TQBleManager&, const auto&, const auto& e) {
      log->failures.push_back(e);
    };
    if (withUpdates) {
      delegate->didUpdateValueForCharacteristicValue = [log](TQBleManager&, const auto& model,
                                                             const auto& e) {
        log->updates.push_back(model);
        log->updateErrors.push_back(e);
      };
    }
    manager->setDelegate(delegate);
    tap = manager->addAnswerObserver([this](std::int64_t cmdType, const Bytes& answer) {
      tapped.push_back({cmdType, answer});
    });
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

  /// Connects, lets the automatic system-information query finish, and forgets what
  /// the delegate and the tap heard so far.
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

  /// The delegate calls and answers of one command, given time to arrive.
  void settle() { run(500ms); }

  /// Issues one command and lets its answer arrive.
  template <class Call>
  void command(Call&& call) {
    call(*manager);
    settle();
  }

  /// An error handler for a command that records into `errors`.
  TQErrorHandler onError() {
    return [this](const TQError& e) { errors.push_back(e); };
  }

  /// The lengths of the answers the tap saw, in order.
  std::vector<std::size_t> tappedSizes() const {
    std::vector<std::size_t> sizes;
    for (const auto& t : tapped) sizes.push_back(t.answer.size());
    return sizes;
  }

  std::shared_ptr<sim::VirtualPost> post;
  std::shared_ptr<TQBleManager> manager;
  std::shared_ptr<TQBleManagerDelegate> delegate;
  DelegateLog log;
  std::vector<Tapped> tapped;
  std::vector<TQError> errors;
  std::uint64_t tap = 0;
};

/// Names a parameterised case after its `name` field.
inline constexpr auto caseName = [](const auto& info) { return std::string(info.param.name); };

}  // namespace tqble::test
