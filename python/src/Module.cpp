// tqble._core: the C++ SDK's client, backends and simulator for the Python package.
#include <pybind11/chrono.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include "Answers.h"
#include "Client.h"
#include "tqble/TQBleManager.h"
#include "tqble/ble/CentralManager.h"

namespace tqble::python {

void bindSim(py::module_& parent);

namespace {

using namespace pybind11::literals;

void useBackend(const std::string& name) {
  const auto names = ble::backendNames();
  if (std::find(names.begin(), names.end(), name) == names.end()) {
    std::string known;
    for (const auto& n : names) known += (known.empty() ? "" : ", ") + n;
    throw py::value_error("unknown backend '" + name + "' (built: " + known + ")");
  }
  if (!TQBleManager::useBackend(name)) {
    throw std::runtime_error("the backend is chosen before the first client opens");
  }
}

void bindClient(py::module_& m) {
  py::enum_<ClientErrorKind>(m, "ErrorKind", "Why a client step failed.")
      .value("NOT_CONNECTED", ClientErrorKind::NotConnected)
      .value("WRITE_FAILED", ClientErrorKind::WriteFailed)
      .value("TIMED_OUT", ClientErrorKind::TimedOut)
      .value("LINK_LOST", ClientErrorKind::LinkLost)
      .value("MALFORMED", ClientErrorKind::Malformed)
      .value("CONNECT_FAILED", ClientErrorKind::ConnectFailed)
      .value("NOT_FOUND", ClientErrorKind::NotFound)
      .value("CANCELLED", ClientErrorKind::Cancelled);

  py::class_<RequestHandle>(m, "Request", "A request under way: cancel it or give it its own time-out.")
      .def("cancel", &RequestHandle::cancel, "Ends the request as cancelled unless it has ended.")
      .def("set_timeout", &RequestHandle::setTimeout, "timeout"_a,
           "Its own time-out, counted from its write (or from now if it runs).")
      .def_property_readonly("ended", &RequestHandle::ended);

  py::class_<Client>(m, "Client", "The process's one client; outcomes arrive as done(value, error).")
      .def(py::init([](std::chrono::milliseconds connectTimeout,
                       std::chrono::milliseconds requestTimeout, int reconnectAttempts,
                       std::chrono::milliseconds reconnectDelay) {
             return std::make_unique<Client>(ClientOptions{
                 connectTimeout, requestTimeout, ReconnectPolicy{reconnectAttempts, reconnectDelay}});
           }),
           "connect_timeout"_a, "request_timeout"_a, "reconnect_attempts"_a, "reconnect_delay"_a)
      .def("close", &Client::close)
      .def("connect", &Client::connect, "name"_a, "done"_a)
      .def("disconnect", &Client::disconnect)
      .def_property_readonly("ready", &Client::ready)
      .def_property_readonly("linked", &Client::linked)
      .def("on_link", &Client::onLink, "link"_a)
      .def("on_released", &Client::onReleased, "released"_a)
      .def_property_readonly("radio_note", &Client::radioNote)
      .def("scan", &Client::scan, "heard"_a)
      .def("stop_scan", &Client::stopScan)
      .def("sync_time", &Client::synchroTime, "done"_a)
      .def("system_info", &Client::querySystemInfo, "done"_a)
      .def("set_volume", &Client::setVolume, "volume"_a, "done"_a)
      .def("reserve", &Client::reserve, "start_hour"_a, "start_minute"_a, "end_hour"_a,
           "end_minute"_a, "done"_a)
      .def("start", &Client::startCharging, "done"_a)
      .def("stop", &Client::stopCharging, "done"_a)
      .def("state", &Client::queryChargerState, "done"_a)
      .def("charging_data", &Client::queryChargingData, "done"_a)
      .def("history", &Client::queryHistory, "done"_a)
      .def("energy", &Client::queryCumulativeEnergy, "done"_a)
      .def("error_log", &Client::queryErrorLog, "done"_a)
      .def("diagnostics", &Client::queryDiagnostics, "done"_a)
      .def("event_fd", &Client::eventFd)
      .def("dispatch", &Client::dispatch);
}

}  // namespace
}  // namespace tqble::python

PYBIND11_MODULE(_core, m) {
  using namespace tqble::python;
  using namespace pybind11::literals;
  m.doc() = "The TQBle C++ SDK underneath the tqble package.";
  py::register_exception<ClientInUse>(m, "ClientInUseError", PyExc_RuntimeError);
  m.def("use_backend", &useBackend, "name"_a,
        "Chooses the radio backend ('sim' or 'bluez') before the first client opens.");
  m.def("backends", &tqble::ble::backendNames, "The backends built into this SDK.");
  bindEnums(m);
  bindClient(m);
  bindSim(m);
}
