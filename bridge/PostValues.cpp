#include "PostValues.h"

#include <cmath>

namespace tqble::bridge {
namespace {

double rounded(double value, int digits) {
  const double scale = std::pow(10.0, digits);
  return std::round(value * scale) / scale;
}

Json orNull(const std::string& text) {
  return text.empty() ? Json(nullptr) : Json(text);
}

}  // namespace

const std::vector<GunState>& gunStates() {
  static const std::vector<GunState> all{GunState::Idle,     GunState::PluggedIn,
                                         GunState::Charging, GunState::Finished,
                                         GunState::Fault,    GunState::Unknown};
  return all;
}

const char* chargingStatus(GunState state) {
  switch (state) {
    case GunState::Idle: return "A";
    case GunState::PluggedIn:
    case GunState::Finished: return "B";
    case GunState::Charging: return "C";
    case GunState::Fault: return "E";
    case GunState::Unknown: break;
  }
  return "F";
}

Json stateValues(const ChargerState& state) {
  const GunState gun = state.gunState;
  return Json{{"gun_state", name(gun)},
              {"gun_code", state.gunCode},
              {"status", chargingStatus(gun)},
              {"enabled", gun == GunState::Charging},
              {"fault", state.fault ? name(state.fault->kind) : "none"},
              {"fault_code", state.fault ? Json(state.fault->code) : Json(nullptr)},
              {"voltage_v", state.volts},
              {"current_a", state.amperes},
              {"power_w", rounded(state.volts * state.amperes, 1)},
              {"session_energy_kwh", state.kilowattHours},
              {"session_duration_s", state.duration.count()},
              {"session_serial", orNull(state.serialNumber)}};
}

Json infoValues(const SystemInfo& info) {
  return Json{{"post_number", info.postNumber},
              {"type", name(info.type)},
              {"manufacturer", info.manufacturer.empty() ? Json(info.manufacturerCode) : Json(info.manufacturer)},
              {"magic_number", info.magicNumber},
              {"protocol_version", info.protocolVersion},
              {"firmware_version", info.firmwareVersion},
              {"firmware_model", info.firmwareModel},
              {"charging_mode", name(info.chargingMode)},
              {"volume", info.volume},
              {"clock", isoUtc(info.clock)}};
}

Json energyValues(const CumulativeEnergy& energy) {
  return Json{{"energy_total_kwh", energy.kilowattHours}};
}

Json sessionValues(const ChargingHistory& history) {
  Json list = Json::array();
  for (const auto& s : history) {
    list.push_back(Json{{"serial", s.serial},
                        {"energy_kwh", s.kilowattHours},
                        {"duration_s", s.duration.count()},
                        {"start", isoUtc(s.start)},
                        {"end", isoUtc(s.end)}});
  }
  return Json{{"sessions", list}};
}

Json errorValues(const ErrorLog& log) {
  Json list = Json::array();
  for (const auto& e : log)
    list.push_back(Json{{"time", isoUtc(e.time)},
                        {"code", e.code},
                        {"kind", e.kind ? Json(name(*e.kind)) : Json(nullptr)}});
  return Json{{"errors", list}};
}

std::string utcNow() {
  return isoUtc(std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now()));
}

}  // namespace tqble::bridge
