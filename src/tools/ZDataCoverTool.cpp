#include "tqble/ZDataCoverTool.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string_view>
#include <type_traits>
#include <utility>

#include "platform/Hex.h"
#include "platform/Text.h"
#include "tools/Utf16.h"
#include "tqble/platform/Log.h"

namespace tqble {
namespace {

// Hex text is measured and cut in UTF-16 units, as the platform counts. ASCII text, the
// usual case, is its own UTF-16 form; anything else is converted once. `fn` takes a
// std::string_view or a std::u16string_view.
template <typename Fn>
auto onUnits(const std::string& text, Fn&& fn) {
  if (std::all_of(text.begin(), text.end(), [](char c) { return (c & 0x80) == 0; })) {
    return fn(std::string_view(text));
  }
  const std::u16string units = detail::toUtf16(text);
  return fn(std::u16string_view(units));
}

std::string utf8(std::string_view units) {
  return std::string(units);
}
std::string utf8(std::string&& units) {
  return std::move(units);
}
std::string utf8(std::u16string_view units) {
  return detail::toUtf8(units);
}

// The range-checked substring of the units.
template <typename View>
View piece(View units, std::size_t from, std::size_t length) {
  detail::checkCut(units.size(), from, length);
  return units.substr(from, length);
}

}  // namespace

std::string ZDataCoverTool::coverFromDataToHexStr(const Bytes& data) {
  return detail::hexText(data);
}

std::uint64_t ZDataCoverTool::coverFromHexStrToInt(const std::string& hex) {
  // The C library's conversion is the rule: white space, sign, 0x prefix, saturation.
  return std::strtoul(hex.c_str(), nullptr, 16);
}

std::int32_t ZDataCoverTool::coverToIntFrome4BytesHexStr(const std::string& hex) {
  return onUnits(hex, [](auto units) {
    std::basic_string<typename decltype(units)::value_type> reversed;
    for (int i = 3; i >= 0; --i) reversed += piece(units, static_cast<std::size_t>(i) * 2, 2);
    return static_cast<std::int32_t>(coverFromHexStrToInt(utf8(std::move(reversed))));
  });
}

std::string ZDataCoverTool::coverToLowFromFrontHightByteStr(const std::string& hex) {
  return onUnits(hex, [](auto units) {
    std::basic_string<typename decltype(units)::value_type> reversed;
    reversed.reserve(units.size() + 1);
    for (std::size_t n = (units.size() + 1) / 2; n > 0; --n) {
      reversed += units.substr((n - 1) * 2, 2);
      if (reversed.size() % 2) reversed.push_back('0');  // an odd text's last character, padded
    }
    return utf8(std::move(reversed));
  });
}

std::optional<std::string> ZDataCoverTool::coverFromHexStringToStr(const std::string& hex) {
  return onUnits(hex, [](auto units) -> std::optional<std::string> {
    if (units.size() % 2) return std::nullopt;
    std::string text;
    for (std::size_t i = 0; i < units.size(); i += 2) {
      long value = 0;
      std::sscanf(utf8(units.substr(i, 2)).c_str(), "%lx",
                  reinterpret_cast<unsigned long*>(&value));
      text += std::to_string(value);
    }
    return text;
  });
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
    value = value * 16 + static_cast<std::uint32_t>(detail::hexDigitValue(text[i]));
  }
  result = value;
  return true;
}

}  // namespace

Bytes ZDataCoverTool::hexToBytes(const std::string& hex) {
  return onUnits(hex, [](auto units) {
    Bytes bytes;
    std::uint32_t scanned = 0;  // kept between pairs: a failed scan repeats the last byte
    for (std::size_t i = 0; i + 2 <= units.size(); i += 2) {
      scanHexInt(utf8(units.substr(i, 2)), scanned);
      bytes.push_back(static_cast<std::uint8_t>(scanned & 0xFF));
    }
    return bytes;
  });
}

namespace {

// The platform's description of a byte buffer: "<" + lower-case hex in groups of four
// bytes separated by single spaces + ">". Log lines show buffers this way.
std::string describeData(const Bytes& data) {
  const std::string hex = ZDataCoverTool::coverFromDataToHexStr(data);
  std::string text = "<";
  for (std::size_t i = 0; i < hex.size(); i += 8) {
    if (i > 0) text.push_back(' ');
    text += hex.substr(i, 8);
  }
  return text + ">";
}

// The first `count` bytes; the shared checked cut rejects a shorter buffer.
std::string leadingBytes(const Bytes& data, std::size_t count) {
  const std::string head(data.begin(), data.begin() + std::min(data.size(), count));
  return detail::cut(head, 0, count);
}

}  // namespace

std::optional<std::string> ZDataCoverTool::coverFromHexDataToStr(const Bytes& data) {
  if (data.empty()) return std::nullopt;
  return coverFromDataToHexStr(data);
}

Bytes ZDataCoverTool::coverFromStringToHexData(const std::string& text) {
  return Bytes(text.begin(), text.end());
}

std::string ZDataCoverTool::coverFromStringToHexStr(const std::string& text) {
  // The text's C string: it ends at the first NUL, like the platform's UTF8String.
  std::string described = describeData(coverFromStringToHexData(text.c_str()));
  std::erase(described, '<');
  std::erase(described, '>');
  return described;
}

std::string ZDataCoverTool::stringAppendSpace(const std::string& text) {
  const std::size_t length = detail::utf16Length(text);
  if (length < 8) return text;
  if (length == 8) return text + " ";
  // The last group starts after the last space; without a space it starts at 1, so a
  // 9-character text without spaces also counts as ending in a full group.
  const std::size_t lastSpace = text.rfind(' ');
  const std::size_t groupStart =
      lastSpace == std::string::npos ? 1 : detail::utf16Length(text.substr(0, lastSpace)) + 1;
  return length - groupStart == 8 ? text + " " : text;
}

Bytes ZDataCoverTool::coverFromHexStrToData(const std::string& hex) {
  return onUnits(hex, [](auto units) {
    constexpr std::size_t kCapacity = 128;
    if (units.size() > kCapacity * 2) {
      throw std::out_of_range("hex text of " + std::to_string(units.size()) +
                              " characters exceeds the 128-byte buffer");
    }
    using Unit = std::make_unsigned_t<typename decltype(units)::value_type>;
    Bytes bytes(kCapacity, 0);
    std::size_t j = 0;
    for (std::size_t i = 0; i < units.size(); i += 2) {
      const int c1 = static_cast<Unit>(units[i]);
      const int c2 = static_cast<Unit>(piece(units, i + 1, 1)[0]);
      const bool upper1 = c1 >= 'A' && c1 <= 'F';
      int high = c1 >= '0' && c1 <= '9' ? c1 - 48 : upper1 ? c1 - 55 : c1 - 87;
      high *= 16;
      // The letter case of the low digit is taken from the first character.
      const int low = c2 >= '0' && c2 <= '9' ? c2 - 48 : upper1 ? c2 - 55 : c2 - 87;
      const int value = high + low;
      TQLog("int_ch=%d", value);
      bytes[j++] = static_cast<std::uint8_t>(value);
    }
    return bytes;
  });
}

std::string ZDataCoverTool::coverFromStringToAsciiStr(const std::string& /*text*/) {
  // Always the fixed sample text; the argument is not read.
  static const char kSample[] = "123456789ABCDEFG";
  std::string text;
  char piece[4];
  for (const char* c = kSample; *c; ++c) {
    std::snprintf(piece, sizeof piece, "%02x ", static_cast<unsigned char>(*c));
    text += piece;
  }
  return text;
}

std::string ZDataCoverTool::coverFromIntToHex(std::int64_t value) {
  std::string hex;
  for (int round = 0; round < 9; ++round) {
    const std::int64_t digit = value % 16;  // negative for negative values
    value /= 16;
    if (digit >= 10) {
      hex.insert(hex.begin(), static_cast<char>('A' + digit - 10));
    } else {
      char piece[24];
      std::snprintf(piece, sizeof piece, "%lli", static_cast<long long>(digit));
      hex.insert(0, piece);
    }
    if (value == 0) break;
  }
  return hex.size() == 1 ? "0" + hex : hex;
}

Bytes ZDataCoverTool::setId(std::int32_t value) {
  Bytes bytes = coverToByteWithData(value);
  return {bytes.rbegin(), bytes.rend()};
}

Bytes ZDataCoverTool::coverToBytesWtinDataFromLongData(std::int64_t value) {
  return coverToByteWithData(static_cast<std::int32_t>(static_cast<std::uint32_t>(value)));
}

std::int32_t ZDataCoverTool::setDa(const Bytes& data) {
  const std::string b = leadingBytes(data, 4);
  std::uint32_t value = 0;
  for (char c : b) value = value << 8 | static_cast<unsigned char>(c);
  return static_cast<std::int32_t>(value);
}

std::int32_t ZDataCoverTool::coverTo2ByteIntWithDa(const Bytes& data) {
  const std::string b = leadingBytes(data, 2);
  return static_cast<unsigned char>(b[0]) << 8 | static_cast<unsigned char>(b[1]);
}

std::int32_t ZDataCoverTool::coverTo1ByteIntWithDa(const Bytes& data) {
  return static_cast<std::int8_t>(leadingBytes(data, 1)[0]);
}

void ZDataCoverTool::coverFromBytesArrToData() {
  Bytes bytes(24);
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::uint8_t>(i);
  TQLog("字节数组转换的data 数据为: %s", describeData(bytes).c_str());
}

void ZDataCoverTool::coverFromBytesArrToHexStr() {
  static const char kSample[] = "1234abcd";
  const Bytes bytes = coverFromStringToHexData(kSample);
  TQLog("%s", kSample);
  std::string hex;
  for (std::uint8_t byte : bytes) {
    char piece[4];
    std::snprintf(piece, sizeof piece, "%x", byte);
    // A one-digit piece gets its leading zero.
    hex += piece[1] == '\0' ? std::string("0") + piece : std::string(piece);
  }
  TQLog("bytes 的16进制数为:%s", hex.c_str());
  TQLog("data 的16进制数为:%s", describeData(bytes).c_str());
}

void ZDataCoverTool::coverTest(const std::any& /*object*/) {}

}  // namespace tqble
