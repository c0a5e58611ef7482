#pragma once

// The answer decoders as plain functions: whole answer frame (header included) in,
// records out. The manager's analysis... operations call these and keep or drop the
// result as they must; an application can call them on answers it observes itself.
// Each writes the same log lines as the manager's decoder.

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "tqble/Models.h"
#include "tqble/platform/Value.h"

namespace tqble::decode {

/// System information: the ten display-row contents, in row order.
/// @throws std::out_of_range when the answer is shorter than 67 bytes.
std::array<std::string, 10> systemInfo(const Bytes& answer);

/// Charger state: full (26 bytes), short fault (12 bytes), or empty for other lengths.
TQBleChargingData chargerState(const Bytes& answer);

/// Live charging data (big-endian layout).
/// @throws std::out_of_range when the answer is shorter than 32 bytes.
TQBleChargingData chargingData(const Bytes& answer);

/// Setting acknowledgement: body byte 0 "01" fails, anything else succeeds, no body fails.
TQBleSetResult setResult(const Bytes& answer);

/// Charging history: 19-byte entries from byte 12; a trailing partial entry is ignored.
/// @throws std::out_of_range when the answer is shorter than 12 bytes (a refusal, say).
std::vector<TQBleChargeHistory> chargingHistory(const Bytes& answer);

/// Cumulative energy: body bytes 0-3, little-endian signed 32-bit.
/// @throws std::out_of_range when the answer is shorter than 12 bytes.
std::int32_t cumulativeEnergy(const Bytes& answer);

/// Error log: the count at byte 10 is trusted, 8-byte entries from byte 11.
/// @throws std::out_of_range when shorter than 11 bytes or the count exceeds the entries.
std::vector<TQBleErrorListLog> errorLog(const Bytes& answer);

/// Running diagnostics.
/// @throws std::out_of_range when the answer is shorter than 54 bytes.
TQBleRunDiagnosticInfo runningDiagnosis(const Bytes& answer);

}  // namespace tqble::decode
