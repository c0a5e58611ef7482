#pragma once

// What Bus.cpp and BusObjects.cpp share: the conversion between BusValues and sdbus-c++
// messages, the hand-over to the main queue, and the connection's state.

#include <sdbus-c++/sdbus-c++.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Bus.h"
#include "tqble/platform/MainQueue.h"

namespace tqble::bluez {
namespace wire {

/// The values one subscribeProperties() subscription read, kept with their storage from
/// message to message: a steady stream of notifications allocates nothing.
struct ValueBuffer {
  Bus::ValueHandler handler;
  std::deque<std::pair<std::string, Bytes>> items;  // slots [0, used) hold values not yet delivered
  std::size_t used = 0, next = 0;
};

/// One hand-over of a message, in arrival order: a task, or the next `count` values of a buffer.
struct Delivery {
  MainQueue::Task task;
  std::weak_ptr<ValueBuffer> values;
  const ValueBuffer* key = nullptr;
  std::size_t count = 0;
};

/// Throws BusFailure(InvalidArgs) for a value that does not fit `signature`.
[[noreturn]] void misfit(std::string_view signature);
/// Appends `v` as one value of the complete type `sig`. @throws BusFailure when it does not fit.
void write(sdbus::Message& m, const BusValue& v, std::string_view sig);
/// Appends `values` as the sequence of complete types `sig`.
void writeAll(sdbus::Message& m, const BusList& values, std::string_view sig);
/// Reads one value of type `sig`; nothing at the end of the enclosing container.
std::optional<BusValue> read(sdbus::Message& m, const std::string& sig);
/// Reads the sequence of complete types `sig`. @throws BusFailure when the message differs.
BusList readAll(sdbus::Message& m, std::string_view sig);
/// Hands `task` over: run as soon as the message being read is read, when called while a
/// connection is read, else queued on the main queue as a task of its own.
void post(MainQueue::Task task);

}  // namespace wire

struct Bus::Impl {
  // Shared with the exported objects, which may outlive the bus's own use of it.
  std::shared_ptr<sdbus::IConnection> connection;
  std::atomic<bool> closed{false};
  bool lost = false;
  std::uint64_t watcher = 0;  // the main queue's watch of the connection
  // What the message being read hands over, run in order once it is read.
  std::vector<wire::Delivery> inbox;
  std::size_t next = 0;
  std::vector<std::weak_ptr<std::function<void()>>> lossHandlers;
  std::mutex mutex;  // proxies and calls left for closing, used from any thread
  std::map<std::pair<std::string, std::string>, std::unique_ptr<sdbus::IProxy>> proxies;
  struct Farewell {
    std::string service, path, interface, method;
  };
  std::map<std::string, Farewell> farewells;
  std::vector<sdbus::PendingAsyncCall> inFlight;
  std::string uniqueName;

  /// Reads what the connection has, then runs what it handed over.
  void dispatch();
  /// Runs the inbox; what a throwing task leaves is run on a later turn.
  void drain();

  // Proxies outlive their pending calls: they stay until the bus goes.
  sdbus::IProxy& proxy(const std::string& service, const std::string& path) {
    auto& slot = proxies[{service, path}];
    if (!slot) slot = sdbus::createProxy(*connection, service, path);
    return *slot;
  }
};


}  // namespace tqble::bluez
