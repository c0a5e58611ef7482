#include "AnswerJson.h"

#include <cstdio>

namespace tqble::cli {

Json text(const OptionalText& value) {
  return value ? Json(*value) : Json(nullptr);
}

Json toJson(const TQBleChargeHistory& entry) {
  Json json = chargeFields(entry);
  json["startTime"] = text(entry.startTime);
  json["endTime"] = text(entry.endTime);
  return json;
}

Json toJson(const TQBleErrorListLog& entry) {
  return Json{{"date", text(entry.date)}, {"errorCode", entry.errorCode}};
}

Json toJson(const TQBleRunDiagnosticInfo& d) {
  return Json{{"startMode", d.startMode},
              {"versionNum", text(d.versionNum)},
              {"ammeterState", text(d.ammeterState)},
              {"startTime", text(d.startTime)},
              {"chargeState", text(d.chargeState)},
              {"voltage", text(d.voltage)},
              {"elec", text(d.elec)},
              {"errorInfo", text(d.errorInfo)},
              {"netConnectState", text(d.netConnectState)},
              {"screenWorkingState", text(d.screenWorkingState)},
              {"elecLockState", text(d.elecLockState)}};
}

Json toJson(const SettingResult& result) {
  return Json{{"resultType", result.resultType}};
}

Json toJson(const ChargerState& state) {
  return chargeFields(state.record);
}

Json toJson(const SystemInfo& info) {
  Json rows = Json::array();
  for (const auto& row : info.rows) rows.push_back(Json{{"title", row.title}, {"content", row.content}});
  return rows;
}

Json toJson(const ChargingSession& session) {
  return toJson(session.record);
}

Json toJson(const ErrorLogEntry& entry) {
  return toJson(entry.record);
}

Json toJson(const Diagnostics& d) {
  return toJson(d.record);
}

Json toJson(const CumulativeEnergy& energy) {
  return Json{{"cumulativeEnergy", energy.raw}};
}

namespace {

template <typename T>
Json optional(const std::optional<T>& value) {
  return value ? Json(*value) : Json(nullptr);
}

// "fault" (a name or null) and "fault_code" into `json`.
void putFault(Json& json, const std::optional<Fault>& fault) {
  json["fault"] = fault ? Json(name(fault->kind)) : Json(nullptr);
  json["fault_code"] = fault ? Json(fault->code) : Json(nullptr);
}

}  // namespace

Json typedJson(const SettingResult& result) {
  return Json{{"accepted", result.accepted()}, {"result_type", result.resultType}};
}

Json typedJson(const ChargerState& state) {
  Json json{{"gun_state", name(state.gunState)}, {"gun_code", state.gunCode}};
  putFault(json, state.fault);
  json.update(Json{{"serial_number", state.serialNumber},
                   {"voltage_v", state.volts},
                   {"current_a", state.amperes},
                   {"energy_kwh", state.kilowattHours},
                   {"duration_s", state.duration.count()}});
  return json;
}

Json typedJson(const SystemInfo& info) {
  return Json{{"post_number", info.postNumber},
              {"type", name(info.type)},
              {"type_code", info.typeCode},
              {"manufacturer", info.manufacturer},
              {"manufacturer_code", info.manufacturerCode},
              {"magic_number", info.magicNumber},
              {"protocol_version", info.protocolVersion},
              {"firmware_version", info.firmwareVersion},
              {"firmware_model", info.firmwareModel},
              {"charging_mode", name(info.chargingMode)},
              {"volume", info.volume},
              {"clock_utc", isoUtc(info.clock)},
              {"gun_state", name(info.gunState)},
              {"gun_code", info.gunCode}};
}

Json typedJson(const CumulativeEnergy& energy) {
  return Json{{"energy_total_kwh", energy.kilowattHours}};
}

Json typedJson(const ChargingSession& session) {
  return Json{{"serial", session.serial},
              {"energy_kwh", session.kilowattHours},
              {"start_utc", isoUtc(session.start)},
              {"end_utc", isoUtc(session.end)},
              {"duration_s", session.duration.count()}};
}

Json typedJson(const ErrorLogEntry& entry) {
  return Json{{"time_utc", isoUtc(entry.time)},
              {"code", entry.code},
              {"kind", entry.kind ? Json(name(*entry.kind)) : Json(nullptr)}};
}

Json typedJson(const Diagnostics& d) {
  Json json{{"stage", name(d.stage)}, {"stage_code", d.stageCode}};
  putFault(json, d.fault);
  const auto minutes = d.startTime.count();
  char start[8];
  std::snprintf(start, sizeof start, "%02d:%02d", static_cast<int>(minutes / 60 % 100),
                static_cast<int>(minutes % 60));
  json.update(Json{{"supply_voltage_v", d.supplyVolts},
                   {"rated_current_a", optional(d.ratedAmperes)},
                   {"network", name(d.network)},
                   {"network_code", d.networkCode},
                   {"meter_ok", d.meterOk},
                   {"screen_ok", d.screenOk},
                   {"gun_locked", d.gunLocked},
                   {"start_mode", d.startMode ? Json(name(*d.startMode)) : Json(nullptr)},
                   {"start_time", start},
                   {"firmware_version", d.firmwareVersion}});
  return json;
}

}  // namespace tqble::cli
