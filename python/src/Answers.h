#pragma once

// How the client's answers, errors and heard posts become Python objects: the dataclasses
// of tqble.answers. Every conversion to Python terms is here and nowhere else.

#include <pybind11/pybind11.h>

#include "tqble/client/ChargerClient.h"

namespace tqble::python {

namespace py = pybind11;

/// A heard or connected post: tqble.answers.Heard.
py::object toPython(const ChargerClient::PeripheralPtr& peripheral, std::int64_t rssi = 0);
/// A setting's acknowledgement: tqble.answers.Acknowledgement.
py::object toPython(const SettingResult& result);
/// The system information: tqble.answers.SystemInfo.
py::object toPython(const SystemInfo& info);
/// The charger state in named units: tqble.answers.ChargerState.
py::object toPython(const ChargerState& state);
/// The charging sessions: a list of tqble.answers.ChargingSession.
py::object toPython(const ChargingHistory& history);
/// The lifetime energy, in kWh (float).
py::object toPython(const CumulativeEnergy& energy);
/// The error log: a list of tqble.answers.ErrorLogEntry.
py::object toPython(const ErrorLog& log);
/// The running diagnostics: tqble.answers.Diagnostics.
py::object toPython(const Diagnostics& info);
/// A failed step: the tqble.errors exception of its kind (not raised).
py::object toPython(const ClientError& error);
/// Adds the answers' enumerations to `m` as enum.Enum classes (GunState, FaultKind,
/// PostType, ChargingMode, ChargeStage, NetworkState), valued by their lower-case names.
void bindEnums(py::module_& m);

}  // namespace tqble::python
