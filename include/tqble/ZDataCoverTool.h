#pragma once

#include <any>
#include <cstdint>
#include <optional>
#include <string>

#include "tqble/platform/Value.h"

namespace tqble {

/// Conversions between text, hexadecimal text, byte buffers and integers. Stateless.
class ZDataCoverTool {
 public:
  ZDataCoverTool() = delete;

  /// Each byte as two lower-case hex digits, no separators.
  static std::string coverFromDataToHexStr(const Bytes& data);
  /// Base-16 parse (strtoul): stops at the first non-hex character, saturates, 0 if none.
  static std::uint64_t coverFromHexStrToInt(const std::string& hex);
  /// The first 8 characters as a little-endian 32-bit value.
  /// @throws std::out_of_range when shorter than 8 characters.
  static std::int32_t coverToIntFrome4BytesHexStr(const std::string& hex);
  /// Pads an odd text with "0" at its end, then reverses the order of the byte pairs.
  static std::string coverToLowFromFrontHightByteStr(const std::string& hex);
  /// Each hex pair written as a decimal number, concatenated; odd length gives nullopt.
  static std::optional<std::string> coverFromHexStringToStr(const std::string& hex);
  /// The four bytes of `value`, least significant first.
  static Bytes coverToByteWithData(std::int32_t value);
  /// One byte per complete hex pair; a trailing odd character is ignored.
  static Bytes hexToBytes(const std::string& hex);

  /// As coverFromDataToHexStr, but an empty buffer gives nullopt.
  static std::optional<std::string> coverFromHexDataToStr(const Bytes& data);
  /// The text's UTF-8 bytes.
  static Bytes coverFromStringToHexData(const std::string& text);
  /// UTF-8 bytes as lower-case hex in groups of 8 digits separated by single spaces.
  static std::string coverFromStringToHexStr(const std::string& text);
  /// Appends one space when the last space-separated group is exactly 8 characters.
  static std::string stringAppendSpace(const std::string& text);
  /// Decodes hex pairs into a fixed 128-byte buffer (zero tail), logging each byte.
  /// @throws std::out_of_range on odd length or more than 256 characters.
  static Bytes coverFromHexStrToData(const std::string& hex);
  /// Always the ASCII bytes of "123456789ABCDEFG" as "%02x " pieces; the argument is ignored.
  static std::string coverFromStringToAsciiStr(const std::string& text);
  /// Upper-case hex digits, at most 9, a single digit padded to two.
  static std::string coverFromIntToHex(std::int64_t value);
  /// The four bytes of `value`, most significant first.
  static Bytes setId(std::int32_t value);
  /// The low four bytes of `value`, least significant first.
  static Bytes coverToBytesWtinDataFromLongData(std::int64_t value);
  /// The first 4 bytes, big-endian.  @throws std::out_of_range when shorter.
  static std::int32_t setDa(const Bytes& data);
  /// The first 2 bytes, big-endian, zero-extended.  @throws std::out_of_range when shorter.
  static std::int32_t coverTo2ByteIntWithDa(const Bytes& data);
  /// The first byte, sign-extended.  @throws std::out_of_range when empty.
  static std::int32_t coverTo1ByteIntWithDa(const Bytes& data);
  /// Demonstration: logs a fixed 24-byte buffer.
  static void coverFromBytesArrToData();
  /// Demonstration: logs the hex form of "1234abcd".
  static void coverFromBytesArrToHexStr();
  /// Does nothing.
  static void coverTest(const std::any& object);
};

}  // namespace tqble
