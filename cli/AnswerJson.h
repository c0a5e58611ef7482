#pragma once

// Answers as JSON, the same for `tqble decode` and the commands that ask a post: records
// with their field names, lists for history and error log, the ten display rows.

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

}  // namespace tqble::cli
