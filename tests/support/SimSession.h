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
#include "support/Commands.h"
#include "support/Recorder.h"
#include "tqble/sim/SimRadio.h"

namespace tqble::test {

using namespace std::chrono_literals;

class SimSession {
 public:
  /// `withUpdates`: whether the delegate implements the value-update callback.
  explicit SimSession(bool withUpdates = true) {
    MainQueue::main().useVirtualClock();
    TQBleManager::useBackend("sim");
    post = radio().addPost();
    manager = TQBleManager::shareManager();
    log.attach(*manager, withUpdates);
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

  void clearLog() { log.clear(), errors.clear(); }

  /// Gives one command's answer and delegate calls time to arrive.
  void settle() { run(500ms); }

  /// Issues one command and lets its answer arrive.
  void command(void (*call)(TQBleManager&)) { call(*manager), settle(); }

  /// An error handler for a command that records into `errors`.
  TQErrorHandler onError() { return [this](const TQError& e) { errors.push_back(e); }; }

  std::shared_ptr<sim::VirtualPost> post;
  std::shared_ptr<TQBleManager> manager;
  Recorder log;
  std::vector<std::pair<std::int64_t, Bytes>>& tapped = log.tapped;
  std::vector<TQError> errors;
};

/// Rows of the command table issued without an error handler, for tables of calls.
template <std::size_t Row>
void issue(TQBleManager& m) { kCommandRows[Row].issue(m, nullptr); }
constexpr auto systemInfo = issue<1>, state = issue<5>, stopCharge = issue<7>, history = issue<8>,
               energy = issue<9>;

/// Names a parameterised case after its `name` field.
inline constexpr auto caseName = [](const auto& info) { return std::string(info.param.name); };

}  // namespace tqble::test
