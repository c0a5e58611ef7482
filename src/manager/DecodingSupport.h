#pragma once

// What the answer decoders share: fixed-position field reads on the answer's hex text
// and table look-ups. Positions are hex characters (frame byte k is at 2k), as the
// decoders document their layouts.

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "platform/Text.h"
#include "protocol/Fields.h"
#include "tools/Printf.h"
#include "tqble/ZConverTool.h"
#include "tqble/ZDataCoverTool.h"

namespace tqble::detail {

/// The hex field at [from, from + length) parsed base 16.
/// @throws std::out_of_range when the field lies past the text's end.
inline std::uint64_t hexField(const std::string& hex, std::size_t from, std::size_t length) {
  return ZDataCoverTool::coverFromHexStrToInt(cut(hex, from, length));
}

/// The hex text of `field`, `base` characters into `hex`.
/// @throws std::out_of_range when the field lies past the text's end.
inline std::string cut(const std::string& hex, const protocol::Field& field, std::size_t base = 0) {
  return cut(hex, base + field.hexFrom(), field.hexLength());
}

/// The hex text of `field` parsed base 16 as it stands (first byte most significant).
/// @throws std::out_of_range when the field lies past the text's end.
inline std::uint64_t hexField(const std::string& hex, const protocol::Field& field,
                              std::size_t base = 0) {
  return hexField(hex, base + field.hexFrom(), field.hexLength());
}

/// A value cut to signed 32 bits and widened again: 0xffffffff becomes all 64 bits set.
inline std::uint64_t widen32(std::uint64_t value) {
  return static_cast<std::uint64_t>(
      static_cast<std::int64_t>(static_cast<std::int32_t>(static_cast<std::uint32_t>(value))));
}

/// Post seconds (8 hex characters, little-endian signed 32-bit) as display text.
/// @throws std::out_of_range when fewer than 8 characters follow `from`.
inline std::string postTimeAt(const std::string& hex, std::size_t from) {
  return ZConverTool::converFormatTimeWithTimeValue(
      ZDataCoverTool::coverToIntFrome4BytesHexStr(cut(hex, from, 8)));
}

/// Byte-pair reversal without padding: texts of 2 characters or fewer come back as they
/// are, an odd text loses its last character ("abcde" gives "cdab").
inline std::string reverseBytePairs(const std::string& hex) {
  if (hex.size() <= 2) return hex;
  return ZDataCoverTool::coverToLowFromFrontHightByteStr(cut(hex, 0, hex.size() / 2 * 2));
}

/// The text paired with `key`, or `fallback`; the first match wins.
template <typename Key, std::size_t N>
const char* lookup(const std::pair<Key, const char*> (&table)[N], const Key& key,
                   const char* fallback) {
  for (const auto& [code, text] : table) {
    if (code == key) return text;
  }
  return fallback;
}

/// %llu wants unsigned long long; std::uint64_t is unsigned long on LP64.
inline unsigned long long ull(std::uint64_t value) {
  return value;
}

}  // namespace tqble::detail
