#pragma once

#include <cctype>
#include <string>

#include "tqble/platform/Value.h"

namespace tqble::test {

/// Bytes from hex text; blanks and "|" between bytes are ignored ("68 b5 00 | 01").
inline Bytes hex(const std::string& text) {
  std::string digits;
  for (char c : text)
    if (std::isxdigit(static_cast<unsigned char>(c))) digits.push_back(c);
  Bytes bytes;
  for (std::size_t i = 0; i + 1 < digits.size(); i += 2)
    bytes.push_back(static_cast<std::uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  return bytes;
}

/// Upper-case hex of bytes, spaced for readable failure messages ("68 B5 00") or with another gap.
inline std::string spaced(const Bytes& bytes, const char* gap = " ") {
  static const char kDigits[] = "0123456789ABCDEF";
  std::string text;
  for (std::uint8_t b : bytes) text += (text.empty() ? "" : gap) + std::string{kDigits[b >> 4], kDigits[b & 15]};
  return text;
}

}  // namespace tqble::test
