#pragma once

// The client as Python sees it: one ChargerClient per process, each request's outcome
// handed to a Python callable `done(value, error)` on the main queue, each request
// returning its handle (cancel, own time-out). Nothing queued on
// the main queue holds a Python object: a completion keeps only the request's number and
// a weak reference to the table of waiting callables, which the client owns.

#include <pybind11/pybind11.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>

#include "tqble/TQBleManagerDelegate.h"
#include "tqble/client/ChargerClient.h"

namespace tqble::python {

namespace py = pybind11;

/// A second client while one is open in this process.
struct ClientInUse : std::runtime_error {
  using std::runtime_error::runtime_error;
};

class Client {
 public:
  /// Opens the process's client. @throws ClientInUse while another one is open.
  explicit Client(const ClientOptions& options);
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  /// Ends the link and every request (NotConnected), then releases the client.
  void close();

  RequestHandle connect(const std::string& nameOrIdentifier, py::function done);
  void disconnect();
  bool ready() const;
  /// Whether the manager holds a link (a disconnection is still to be reported).
  bool linked();
  /// Calls link(event, error, attempt) on every change of the link: "connecting", "ready",
  /// "lost", "reconnecting" (attempt n) or "closed", with the tqble error that caused it or None.
  void onLink(py::function link);
  /// Calls released() when the radio reports a link closed.
  void onReleased(py::function released);
  std::string radioNote() const;
  /// Calls heard(tqble.answers.Heard) for every advertisement until stopScan().
  void scan(py::function heard);
  void stopScan();

  RequestHandle synchroTime(py::function done);
  RequestHandle querySystemInfo(py::function done);
  RequestHandle setVolume(std::int64_t volume, py::function done);
  RequestHandle reserve(std::int64_t startHour, std::int64_t startMinute, std::int64_t endHour,
               std::int64_t endMinute, py::function done);
  RequestHandle startCharging(py::function done);
  RequestHandle stopCharging(py::function done);
  RequestHandle queryChargerState(py::function done);
  RequestHandle queryChargingData(py::function done);
  RequestHandle queryHistory(py::function done);
  RequestHandle queryCumulativeEnergy(py::function done);
  RequestHandle queryErrorLog(py::function done);
  RequestHandle queryDiagnostics(py::function done);

  /// The main queue's descriptor for the host loop.
  int eventFd();
  /// Runs the work that is due; returns how many tasks ran.
  std::size_t dispatch();

 private:
  using Waiting = std::map<std::uint64_t, py::object>;
  template <typename T>
  Completion<T> completion(py::function done);
  ChargerClient& open();

  std::unique_ptr<ChargerClient> client_;
  std::shared_ptr<Waiting> waiting_ = std::make_shared<Waiting>();
  std::shared_ptr<py::object> heard_ = std::make_shared<py::object>();
  std::shared_ptr<py::object> link_ = std::make_shared<py::object>();
  std::shared_ptr<py::object> released_ = std::make_shared<py::object>();
  std::shared_ptr<TQBleManagerDelegate> delegate_;
  std::uint64_t next_ = 0;
};

}  // namespace tqble::python
