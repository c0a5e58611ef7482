#pragma once

#include <cstdio>
#include <string>

namespace tqble::detail {

/// printf-style formatting into a text; the helpers' format strings are their behaviour.
template <typename... Args>
std::string printf(const char* format, Args... args) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
  const int length = std::snprintf(nullptr, 0, format, args...);
  std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
  if (length > 0) std::snprintf(text.data(), text.size() + 1, format, args...);
#pragma GCC diagnostic pop
  return text;
}

}  // namespace tqble::detail
