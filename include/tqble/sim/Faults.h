#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tqble/TQError.h"

namespace tqble::sim {

/// Misbehaviour a test can switch on for one virtual post. Everything is off by default;
/// a setting stays until changed unless it says otherwise.
struct Faults {
  // ---- Answers ----
  /// Command codes whose acknowledgement says "refused" (body byte 01).
  std::set<std::uint8_t> refuse;
  /// The state query gets the 12-byte fault answer with this code, whatever the gun does.
  std::optional<std::uint16_t> faultAnswer;
  /// Sizes of the notifications an answer is cut into, in order; bytes left over go in
  /// pieces of 20, and a size past the end is cut short. Empty: pieces of 20.
  std::vector<std::size_t> chunkSizes;
  /// Indices (0-based, within each answer) of notifications that never arrive.
  std::set<std::size_t> lostNotifications;
  /// Extra delay before the notification with this index; later ones wait behind it.
  std::map<std::size_t, std::chrono::nanoseconds> lateNotifications;
  /// Lets a history answer end in a piece of exactly 20 bytes instead of adding one byte.
  bool allowTwentyByteTail = false;
  /// The post reads requests but answers none.
  bool mute = false;

  // ---- Attributes ----
  bool missingService = false;         ///< no "FFF0" service
  bool missingWriteCharacteristic = false;  ///< no "FFF3"
  bool missingReadCharacteristic = false;   ///< no "FFF4"
  /// Identifiers ("FFF0", "FFF3", "FFF4") the post presents in lower case.
  std::set<std::string> lowerCaseIdentifiers;
  /// Presents "FFF4" before "FFF3" (the usual order is "FFF3", "FFF4").
  bool readCharacteristicFirst = false;
  std::optional<TQError> serviceDiscoveryError;
  std::optional<TQError> characteristicDiscoveryError;
  /// Reads of "FFF4" fail with this error.
  std::optional<TQError> readError;

  // ---- Link ----
  /// Connection attempts fail with this error.
  std::optional<TQError> connectionError;
  /// The link is lost after this many notifications of the next answer (then cleared).
  std::optional<std::size_t> dropLinkAfterNotifications;
};

}  // namespace tqble::sim
