#include "AnswerJson.h"

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

}  // namespace tqble::cli
