#pragma once

// The one place where the client's answers become the bridge's values: JSON documents
// whose scalar fields are also published one per topic (the field name is the topic's
// last level, with its unit in the name). Everything else in the bridge reads these.

#include <nlohmann/json.hpp>

#include "tqble/client/ChargerClient.h"

namespace tqble::bridge {

using Json = nlohmann::ordered_json;

/// Every gun state, in declaration order (the discovery's options).
const std::vector<GunState>& gunStates();
/// The charging status letter of IEC 61851 that energy managers read: A no car,
/// B car plugged in, C charging, E fault, F not known.
const char* chargingStatus(GunState state);

/// The live state from a state answer: gun_state, gun_code, status, enabled, fault
/// ("none", "over_current"...), fault_code, voltage_v, current_a, power_w,
/// session_energy_kwh, session_duration_s, session_serial.
Json stateValues(const ChargerState& state);
/// What the post says about itself: post number, type, manufacturer, versions, charging
/// mode, volume, clock (UTC).
Json infoValues(const SystemInfo& info);
/// {"energy_total_kwh": ...}
Json energyValues(const CumulativeEnergy& energy);
/// {"sessions": [{serial, energy_kwh, duration_s, start, end}]} with UTC times.
Json sessionValues(const ChargingHistory& history);
/// {"errors": [{time, code, kind}]} with UTC times.
Json errorValues(const ErrorLog& log);

/// Now, as UTC ISO 8601.
std::string utcNow();

}  // namespace tqble::bridge
