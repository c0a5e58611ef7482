#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// General text is measured and cut in UTF-16 code units, as the host platform counts it.
namespace tqble::detail {

/// The text's length in UTF-16 code units.
std::size_t utf16Length(const std::string& text);

/// The text's UTF-16 code units.
std::u16string toUtf16(const std::string& text);

/// UTF-16 units as UTF-8; an unpaired surrogate becomes U+FFFD.
std::string toUtf8(std::u16string_view units);

/// The UTF-16 position of the first occurrence of `needle`, or std::string::npos.
std::size_t utf16Find(const std::string& text, const std::string& needle);

/// The `length` UTF-16 units of `text` from `from`, as UTF-8. A position inside a
/// surrogate pair falls back to the start of that character.
/// @throws std::out_of_range when the cut starts or ends past the text's end.
std::string cut16(const std::string& text, std::size_t from, std::size_t length);

/// The UTF-16 units of `text` from `from` to its end.
/// @throws std::out_of_range when `from` lies past the end.
std::string cutFrom16(const std::string& text, std::size_t from);

}  // namespace tqble::detail
