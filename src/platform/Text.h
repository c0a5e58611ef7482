#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string>

namespace tqble::detail {

/// The `length` characters of `text` from `from`, like the platform's range-checked
/// substring: a cut that starts or ends past the text's end throws, never clamps.
/// @throws std::out_of_range
std::string cut(const std::string& text, std::size_t from, std::size_t length);

/// Throws the range error of a cut that does not fit a text of `size` characters.
/// @throws std::out_of_range always
[[noreturn]] void throwCutOutOfRange(std::size_t size, std::size_t from, std::size_t length);

/// The range check of cut() for a text of `size` characters.
/// @throws std::out_of_range when the cut starts or ends past the end.
inline void checkCut(std::size_t size, std::size_t from, std::size_t length) {
  if (from > size || length > size - from) throwCutOutOfRange(size, from, length);
}

/// The characters of `text` from `from` to its end.
/// @throws std::out_of_range when `from` lies past the end.
std::string cutFrom(const std::string& text, std::size_t from);

/// The platform's integerValue of text: leading blanks, an optional sign, decimal digits;
/// 0 when there are none; saturates at the 64-bit range.
std::int64_t integerValue(const std::string& text);

/// The platform's intValue of text: as integerValue, saturating at the 32-bit range.
std::int32_t intValue(const std::string& text);

/// vsnprintf into a text of the right size.
std::string vformat(const char* format, va_list args);

}  // namespace tqble::detail
