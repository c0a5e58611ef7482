#include "tools/Utf16.h"

#include <unicode/unistr.h>
#include <unicode/utf8.h>

#include <limits>

#include "platform/Text.h"

namespace tqble::detail {
namespace {

// The UTF-8 byte offset of UTF-16 position `unit`. Positions past the end map past the
// byte end by the same distance, so the shared checked cut rejects them.
std::size_t byteOffset(const std::string& text, std::size_t unit) {
  std::size_t units = 0;
  std::int32_t i = 0;
  const auto size = static_cast<std::int32_t>(text.size());
  while (i < size) {
    std::int32_t next = i;
    UChar32 c;
    U8_NEXT(text.data(), next, size, c);
    const std::size_t width = c >= 0x10000 ? 2 : 1;
    if (units + width > unit) return static_cast<std::size_t>(i);
    units += width;
    i = next;
  }
  const std::size_t beyond = unit - units;
  if (beyond > std::numeric_limits<std::size_t>::max() - text.size()) {
    return std::numeric_limits<std::size_t>::max();
  }
  return text.size() + beyond;
}

}  // namespace

std::size_t utf16Length(const std::string& text) {
  return static_cast<std::size_t>(icu::UnicodeString::fromUTF8(text).length());
}

std::u16string toUtf16(const std::string& text) {
  const icu::UnicodeString units = icu::UnicodeString::fromUTF8(text);
  return {units.getBuffer(), static_cast<std::size_t>(units.length())};
}

std::string toUtf8(std::u16string_view units) {
  std::string text;
  icu::UnicodeString(false, units.data(), static_cast<std::int32_t>(units.size()))
      .toUTF8String(text);
  return text;
}

std::size_t utf16Find(const std::string& text, const std::string& needle) {
  const std::int32_t at =
      icu::UnicodeString::fromUTF8(text).indexOf(icu::UnicodeString::fromUTF8(needle));
  return at < 0 ? std::string::npos : static_cast<std::size_t>(at);
}

std::string cut16(const std::string& text, std::size_t from, std::size_t length) {
  const std::size_t start = byteOffset(text, from);
  const std::size_t end = length > std::numeric_limits<std::size_t>::max() - from
                              ? std::numeric_limits<std::size_t>::max()
                              : byteOffset(text, from + length);
  return cut(text, start, end >= start ? end - start : 0);
}

std::string cutFrom16(const std::string& text, std::size_t from) {
  return cutFrom(text, byteOffset(text, from));
}

}  // namespace tqble::detail
