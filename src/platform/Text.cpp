#include "platform/Text.h"

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace tqble::detail {

void throwCutOutOfRange(std::size_t size, std::size_t from, std::size_t length) {
  throw std::out_of_range("range {" + std::to_string(from) + ", " + std::to_string(length) +
                          "} out of bounds; length " + std::to_string(size));
}

std::string cut(const std::string& text, std::size_t from, std::size_t length) {
  checkCut(text.size(), from, length);
  return text.substr(from, length);
}

std::string cutFrom(const std::string& text, std::size_t from) {
  return cut(text, from, from <= text.size() ? text.size() - from : 0);
}

std::int64_t integerValue(const std::string& text) {
  return std::strtoll(text.c_str(), nullptr, 10);
}

std::int32_t intValue(const std::string& text) {
  const std::int64_t value = integerValue(text);
  if (value > INT32_MAX) return INT32_MAX;
  if (value < INT32_MIN) return INT32_MIN;
  return static_cast<std::int32_t>(value);
}

std::string vformat(const char* format, va_list args) {
  va_list copy;
  va_copy(copy, args);
  const int length = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
  if (length > 0) std::vsnprintf(text.data(), text.size() + 1, format, args);
  return text;
}

}  // namespace tqble::detail
