#include "tqble/ZDataCoverTool.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>

#include "platform/Text.h"

namespace tqble {

std::string ZDataCoverTool::coverFromDataToHexStr(const Bytes& data) {
  static const char kDigits[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(data.size() * 2);
  for (std::uint8_t byte : data) {
    hex.push_back(kDigits[byte >> 4]);
    hex.push_back(kDigits[byte & 0x0F]);
  }
  return hex;
}

std::uint64_t ZDataCoverTool::coverFromHexStrToInt(const std::string& hex) {
  // The C library's conversion is the rule: white space, sign, 0x prefix, saturation.
  return std::strtoul(hex.c_str(), nullptr, 16);
}

std::int32_t ZDataCoverTool::coverToIntFrome4BytesHexStr(const std::string& hex) {
  std::string reversed;
  for (int i = 3; i >= 0; --i) reversed += detail::cut(hex, static_cast<std::size_t>(i) * 2, 2);
  return static_cast<std::int32_t>(coverFromHexStrToInt(reversed));
}

std::string ZDataCoverTool::coverToLowFromFrontHightByteStr(const std::string& hex) {
  const std::string even = hex.size() % 2 ? hex + "0" : hex;
  std::string reversed;
  reversed.reserve(even.size());
  for (std::size_t n = even.size() / 2; n > 0; --n) reversed += even.substr((n - 1) * 2, 2);
  return reversed;
}

std::optional<std::string> ZDataCoverTool::coverFromHexStringToStr(const std::string& hex) {
  if (hex.size() % 2) return std::nullopt;
  std::string text;
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    long value = 0;
    std::sscanf(hex.substr(i, 2).c_str(), "%lx", reinterpret_cast<unsigned long*>(&value));
    text += std::to_string(value);
  }
  return text;
}

Bytes ZDataCoverTool::coverToByteWithData(std::int32_t value) {
  const auto bits = static_cast<std::uint32_t>(value);
  return {static_cast<std::uint8_t>(bits), static_cast<std::uint8_t>(bits >> 8),
          static_cast<std::uint8_t>(bits >> 16), static_cast<std::uint8_t>(bits >> 24)};
}

namespace {

// The platform's hex scanner: skips leading white space, accepts an optional "0x", then
// at least one hex digit. Leaves `result` untouched when nothing scans.
bool scanHexInt(const std::string& text, std::uint32_t& result) {
  std::size_t i = 0;
  while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
  if (i + 1 < text.size() && text[i] == '0' && (text[i + 1] == 'x' || text[i + 1] == 'X') &&
      i + 2 < text.size() && std::isxdigit(static_cast<unsigned char>(text[i + 2]))) {
    i += 2;
  }
  if (i >= text.size() || !std::isxdigit(static_cast<unsigned char>(text[i]))) return false;
  std::uint32_t value = 0;
  for (; i < text.size() && std::isxdigit(static_cast<unsigned char>(text[i])); ++i) {
    const char c = static_cast<char>(std::tolower(static_cast<unsigned char>(text[i])));
    value = value * 16 + static_cast<std::uint32_t>(c <= '9' ? c - '0' : c - 'a' + 10);
  }
  result = value;
  return true;
}

}  // namespace

Bytes ZDataCoverTool::hexToBytes(const std::string& hex) {
  Bytes bytes;
  std::uint32_t scanned = 0;  // kept between pairs: a failed scan repeats the last byte
  for (std::size_t i = 0; i + 2 <= hex.size(); i += 2) {
    scanHexInt(hex.substr(i, 2), scanned);
    bytes.push_back(static_cast<std::uint8_t>(scanned & 0xFF));
  }
  return bytes;
}

}  // namespace tqble
