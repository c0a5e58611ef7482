#pragma once

// Answers as JSON, the same for `tqble decode`, `tqble capture` and the commands that ask a
// post: the typed answers (units in the field names, codes as lower-case names beside their
// raw values, UTC ISO 8601 times), and the manager's records with their field names, lists
// for history and error log, the ten display rows (`--raw`).

#include <nlohmann/json.hpp>

#include "tqble/Models.h"
#include "tqble/client/ChargerClient.h"

namespace tqble::cli {

using Json = nlohmann::ordered_json;

/// A text field, null when absent.
Json text(const OptionalText& value);

/// The charge fields a state answer and a history entry share.
template <typename Record>
Json chargeFields(const Record& r) {
  return Json{{"serialNumber", text(r.serialNumber)},
              {"elecQuantity", r.elecQuantity},
              {"voltage", r.voltage},
              {"electric", r.electric},
              {"duration", r.duration},
              {"gunStatus", text(r.gunStatus)},
              {"failureReason", text(r.failureReason)}};
}

Json toJson(const TQBleChargeHistory& entry);
Json toJson(const TQBleErrorListLog& entry);
Json toJson(const TQBleRunDiagnosticInfo& d);
Json toJson(const SettingResult& result);
Json toJson(const ChargerState& state);
Json toJson(const SystemInfo& info);
Json toJson(const CumulativeEnergy& energy);
Json toJson(const ChargingSession& session);
Json toJson(const ErrorLogEntry& entry);
Json toJson(const Diagnostics& d);

/// A list answer as a JSON array.
template <typename Entry>
Json toJson(const std::vector<Entry>& entries) {
  Json list = Json::array();
  for (const auto& entry : entries) list.push_back(toJson(entry));
  return list;
}

/// The typed answers: {"accepted", "result_type"}; {"gun_state", "gun_code", "fault",
/// "fault_code", "voltage_v", "current_a", "energy_kwh", "duration_s"...}; and so on.
Json typedJson(const SettingResult& result);
Json typedJson(const ChargerState& state);
Json typedJson(const SystemInfo& info);
Json typedJson(const CumulativeEnergy& energy);
Json typedJson(const ChargingSession& session);
Json typedJson(const ErrorLogEntry& entry);
Json typedJson(const Diagnostics& d);

/// A typed list answer as a JSON array.
template <typename Entry>
Json typedJson(const std::vector<Entry>& entries) {
  Json list = Json::array();
  for (const auto& entry : entries) list.push_back(typedJson(entry));
  return list;
}

/// The typed answer, or with `raw` the manager's record.
template <typename Answer>
Json answerJson(const Answer& answer, bool raw) {
  return raw ? toJson(answer) : typedJson(answer);
}

}  // namespace tqble::cli
