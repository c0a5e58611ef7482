#include "Answers.h"

#include <pybind11/chrono.h>
#include <pybind11/stl.h>

#include <cctype>
#include <initializer_list>

namespace tqble::python {
namespace {

using namespace pybind11::literals;

py::object answerType(const char* name) {
  return py::module_::import("tqble.answers").attr(name);
}

// The name of each C++ enumeration's enum.Enum class in tqble._core, set by bindEnums()
// (a name, not the class: nothing Python may outlive the interpreter).
template <typename E>
const char*& enumClass() {
  static const char* cls = nullptr;
  return cls;
}

template <typename E>
void addEnum(py::module_& m, const char* cls, const char* doc, std::initializer_list<E> values) {
  py::list members;
  for (const E value : values) {
    std::string upper = name(value);
    for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    members.append(py::make_tuple(upper, name(value)));
  }
  py::object made = py::module_::import("enum").attr("Enum")(cls, members, "module"_a = "tqble.answers");
  made.attr("__doc__") = doc;
  m.attr(cls) = made;
  enumClass<E>() = cls;
}

template <typename E>
py::object member(E value) {
  return py::module_::import("tqble._core").attr(enumClass<E>())(name(value));
}

template <typename E>
py::object member(const std::optional<E>& value) {
  return value ? member(*value) : py::object(py::none());
}

// A UTC time point as an aware datetime (pybind11's own cast gives local naive time).
py::object utc(std::chrono::sys_seconds time) {
  const py::module_ datetime = py::module_::import("datetime");
  return datetime.attr("datetime").attr("fromtimestamp")(time.time_since_epoch().count(),
                                                         datetime.attr("timezone").attr("utc"));
}

py::object fault(const std::optional<Fault>& f) {
  if (!f) return py::none();
  return answerType("Fault")("kind"_a = member(f->kind), "code"_a = f->code);
}

}  // namespace

void bindEnums(py::module_& m) {
  addEnum(m, "GunState", "The gun, as the post reports it.",
          {GunState::Idle, GunState::PluggedIn, GunState::Charging, GunState::Finished,
           GunState::Fault, GunState::Unknown});
  addEnum(m, "FaultKind", "What stopped the post.",
          {FaultKind::OverCurrent, FaultKind::OverVoltage, FaultKind::UnderVoltage,
           FaultKind::EmergencyStop, FaultKind::Other});
  addEnum(m, "PostType", "The kind of post.",
          {PostType::SingleGun, PostType::DualGun, PostType::MultiGun,
           PostType::SingleGunAdvertising, PostType::DualGunAdvertising, PostType::Unknown});
  addEnum(m, "ChargingMode", "When charging starts: at once, or at the reserved time.",
          {ChargingMode::Immediate, ChargingMode::Timed});
  addEnum(m, "ChargeStage", "The charging stage the diagnostics report.",
          {ChargeStage::Idle, ChargeStage::PluggedIn, ChargeStage::Reserved, ChargeStage::Charging,
           ChargeStage::Waiting, ChargeStage::Finished, ChargeStage::Unknown});
  addEnum(m, "NetworkState", "The post's own network link, as the diagnostics report it.",
          {NetworkState::Connected, NetworkState::Connecting, NetworkState::Registering,
           NetworkState::NoNetwork, NetworkState::Restarting, NetworkState::Other});
}

py::object toPython(const ChargerClient::PeripheralPtr& peripheral, std::int64_t rssi) {
  return answerType("Heard")("name"_a = peripheral->name(),
                             "identifier"_a = peripheral->identifier(), "rssi"_a = rssi);
}

py::object toPython(const SettingResult& result) {
  return answerType("Acknowledgement")("accepted"_a = result.accepted());
}

py::object toPython(const SystemInfo& i) {
  return answerType("SystemInfo")(
      "post_number"_a = i.postNumber, "type"_a = member(i.type), "type_code"_a = i.typeCode,
      "manufacturer_code"_a = i.manufacturerCode, "manufacturer"_a = i.manufacturer,
      "magic_number"_a = i.magicNumber, "protocol_version"_a = i.protocolVersion,
      "firmware_version"_a = i.firmwareVersion, "firmware_model"_a = i.firmwareModel,
      "charging_mode"_a = member(i.chargingMode), "volume"_a = i.volume, "clock"_a = utc(i.clock),
      "gun_state"_a = member(i.gunState), "gun_code"_a = i.gunCode);
}

py::object toPython(const ChargerState& s) {
  return answerType("ChargerState")(
      "gun_state"_a = member(s.gunState), "gun_code"_a = s.gunCode, "fault"_a = fault(s.fault),
      "serial_number"_a = s.serialNumber, "energy_kwh"_a = s.kilowattHours, "voltage_v"_a = s.volts,
      "current_a"_a = s.amperes, "duration"_a = s.duration);
}

py::object toPython(const ChargingHistory& history) {
  const py::object session = answerType("ChargingSession");
  py::list sessions;
  for (const ChargingSession& h : history) {
    sessions.append(session("serial"_a = h.serial, "energy_kwh"_a = h.kilowattHours,
                            "start"_a = utc(h.start), "end"_a = utc(h.end),
                            "duration"_a = h.duration));
  }
  return sessions;
}

py::object toPython(const CumulativeEnergy& energy) {
  return py::float_(energy.kilowattHours);
}

py::object toPython(const ErrorLog& log) {
  const py::object entry = answerType("ErrorLogEntry");
  py::list entries;
  for (const ErrorLogEntry& e : log) {
    entries.append(entry("time"_a = utc(e.time), "code"_a = e.code, "kind"_a = member(e.kind)));
  }
  return entries;
}

py::object toPython(const Diagnostics& d) {
  return answerType("Diagnostics")(
      "stage"_a = member(d.stage), "stage_code"_a = d.stageCode, "fault"_a = fault(d.fault),
      "supply_v"_a = d.supplyVolts, "rated_a"_a = d.ratedAmperes, "network"_a = member(d.network),
      "network_code"_a = d.networkCode, "meter_ok"_a = d.meterOk, "screen_ok"_a = d.screenOk,
      "gun_locked"_a = d.gunLocked, "start_mode"_a = member(d.startMode),
      "start_time"_a = d.startTime, "firmware_version"_a = d.firmwareVersion);
}

py::object toPython(const ClientError& error) {
  return py::module_::import("tqble.errors")
      .attr("from_kind")(error.kind, error.code, error.message, error.stackError);
}

}  // namespace tqble::python
