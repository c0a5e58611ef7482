#include "PostValues.h"

#include <cmath>
#include <ctime>
#include <string_view>

namespace tqble::bridge {
namespace {

// Rows of the system information, by position.
enum Row { kType = 1, kMaker, kMagic, kProtocol, kFirmware, kModel, kVolume, kClock, kGun };

// The gun-state texts of the system information. The manager shows "--" for a post in
// fault; the state answer tells the fault itself.
constexpr std::pair<std::string_view, GunState> kGunTexts[] = {
    {"空闲中", GunState::Idle},
    {"插枪未充电", GunState::PluggedIn},
    {"充电中", GunState::Charging},
    {"充电结束未拔枪", GunState::Finished},
    {"故障中", GunState::Fault}};

constexpr std::pair<std::string_view, const char*> kFaultTexts[] = {
    {"过流", "over_current"},
    {"过压", "over_voltage"},
    {"欠压", "under_voltage"},
    {"急停按下", "emergency_stop"}};

GunState gunOf(const SystemInfo& info, const ChargerState& state) {
  if (state.fault()) return GunState::Fault;
  for (const auto& [text, gun] : kGunTexts)
    if (info[kGun].content == text) return gun;
  return GunState::Unknown;
}

double rounded(double value, int digits) {
  const double scale = std::pow(10.0, digits);
  return std::round(value * scale) / scale;
}

std::string iso(std::time_t t) {
  std::tm tm{};
  gmtime_r(&t, &tm);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm);
  return text;
}

}  // namespace

const char* gunStateName(GunState state) {
  switch (state) {
    case GunState::Idle: return "idle";
    case GunState::PluggedIn: return "plugged_in";
    case GunState::Charging: return "charging";
    case GunState::Finished: return "finished";
    case GunState::Fault: return "fault";
    case GunState::Unknown: break;
  }
  return "unknown";
}

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

Json stateValues(const SystemInfo& info, const ChargerState& state) {
  const GunState gun = gunOf(info, state);
  const auto& d = state.data;
  Json fault = "none";
  if (state.fault()) {
    fault = "other";
    for (const auto& [text, name] : kFaultTexts)
      if (d.failureReason == text) fault = name;
  }
  const double volts = units::volts(d.voltage), amperes = units::amperes(d.electric);
  return Json{{"gun_state", gunStateName(gun)},
              {"status", chargingStatus(gun)},
              {"enabled", gun == GunState::Charging},
              {"fault", fault},
              {"voltage_v", volts},
              {"current_a", amperes},
              {"power_w", rounded(volts * amperes, 1)},
              {"session_energy_kwh", units::kilowattHours(d.elecQuantity)},
              {"session_duration_s", units::seconds(d.duration)},
              {"session_serial", d.serialNumber ? Json(*d.serialNumber) : Json(nullptr)}};
}

Json infoValues(const SystemInfo& info) {
  return Json{{"type", info[kType].content},
              {"manufacturer", info[kMaker].content},
              {"magic_number", info[kMagic].content},
              {"protocol_version", info[kProtocol].content},
              {"firmware_version", info[kFirmware].content},
              {"firmware_model", info[kModel].content},
              {"volume", std::atoi(info[kVolume].content.c_str())},
              {"clock", utcTime(info[kClock].content)}};
}

Json energyValues(const CumulativeEnergy& energy) {
  return Json{{"energy_total_kwh", units::kilowattHours(static_cast<std::uint32_t>(energy.raw))}};
}

Json sessionValues(const ChargingHistory& history) {
  Json list = Json::array();
  for (const auto& s : history) {
    list.push_back(Json{{"serial", s.serialNumber ? Json(*s.serialNumber) : Json(nullptr)},
                        {"energy_kwh", units::kilowattHours(s.elecQuantity)},
                        {"duration_s", units::seconds(s.duration)},
                        {"start", utcTime(s.startTime)},
                        {"end", utcTime(s.endTime)}});
  }
  return Json{{"sessions", list}};
}

Json errorValues(const ErrorLog& log) {
  Json list = Json::array();
  for (const auto& e : log) list.push_back(Json{{"time", utcTime(e.date)}, {"code", e.errorCode}});
  return Json{{"errors", list}};
}

Json utcTime(const OptionalText& localText) {
  if (!localText) return nullptr;
  std::tm tm{};
  const char* end = strptime(localText->c_str(), "%Y-%m-%d %H:%M:%S", &tm);
  if (!end || *end != '\0') return nullptr;
  tm.tm_isdst = -1;
  const std::time_t t = std::mktime(&tm);
  return t == -1 ? Json(nullptr) : Json(iso(t));
}

std::string utcNow() {
  return iso(std::time(nullptr));
}

}  // namespace tqble::bridge
