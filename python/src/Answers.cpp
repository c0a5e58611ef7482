#include "Answers.h"

#include <pybind11/chrono.h>
#include <pybind11/stl.h>

namespace tqble::python {
namespace {

using namespace pybind11::literals;

py::object answerType(const char* name) {
  return py::module_::import("tqble.answers").attr(name);
}

py::object text(const OptionalText& value) {
  return value ? py::str(*value) : py::object(py::none());
}

std::chrono::seconds duration(std::uint64_t raw) {
  return std::chrono::seconds(units::seconds(raw));
}

}  // namespace

py::object toPython(const ChargerClient::PeripheralPtr& peripheral, std::int64_t rssi) {
  return answerType("Heard")("name"_a = peripheral->name(),
                             "identifier"_a = peripheral->identifier(), "rssi"_a = rssi);
}

py::object toPython(const SettingResult& result) {
  return answerType("Acknowledgement")("accepted"_a = result.accepted());
}

py::object toPython(const SystemInfo& info) {
  py::list rows;
  for (const auto& row : info) rows.append(py::make_tuple(row.title, row.content));
  return answerType("SystemInfo")("rows"_a = rows);
}

py::object toPython(const ChargerState& state) {
  const TQBleChargingData& d = state.data;
  return answerType("ChargerState")(
      "gun_status"_a = text(d.gunStatus), "fault"_a = text(d.failureReason),
      "serial_number"_a = text(d.serialNumber), "energy_kwh"_a = units::kilowattHours(d.elecQuantity),
      "voltage_v"_a = units::volts(d.voltage), "current_a"_a = units::amperes(d.electric),
      "duration"_a = duration(d.duration));
}

py::object toPython(const ChargingHistory& history) {
  const py::object session = answerType("ChargingSession");
  py::list sessions;
  for (const TQBleChargeHistory& h : history) {
    sessions.append(session("serial_number"_a = text(h.serialNumber),
                            "energy_kwh"_a = units::kilowattHours(h.elecQuantity),
                            "duration"_a = duration(h.duration), "start"_a = text(h.startTime),
                            "end"_a = text(h.endTime)));
  }
  return sessions;
}

py::object toPython(const CumulativeEnergy& energy) {
  return py::float_(units::kilowattHours(static_cast<std::uint32_t>(energy.raw)));
}

py::object toPython(const ErrorLog& log) {
  const py::object entry = answerType("ErrorLogEntry");
  py::list entries;
  for (const TQBleErrorListLog& e : log) {
    entries.append(entry("date"_a = text(e.date), "code"_a = e.errorCode));
  }
  return entries;
}

py::object toPython(const TQBleRunDiagnosticInfo& info) {
  return answerType("Diagnostics")(
      "start_mode"_a = info.startMode, "version"_a = text(info.versionNum),
      "ammeter"_a = text(info.ammeterState), "start_time"_a = text(info.startTime),
      "charge_state"_a = text(info.chargeState), "voltage"_a = text(info.voltage),
      "current"_a = text(info.elec), "errors"_a = text(info.errorInfo),
      "network"_a = text(info.netConnectState), "screen"_a = text(info.screenWorkingState),
      "lock"_a = text(info.elecLockState));
}

py::object toPython(const ClientError& error) {
  return py::module_::import("tqble.errors")
      .attr("from_kind")(error.kind, error.code, error.message);
}

}  // namespace tqble::python
