#include "platform/Text.h"

#include <stdexcept>

namespace tqble::detail {

std::string cut(const std::string& text, std::size_t from, std::size_t length) {
  if (from > text.size() || length > text.size() - from) {
    throw std::out_of_range("range {" + std::to_string(from) + ", " + std::to_string(length) +
                            "} out of bounds; length " + std::to_string(text.size()));
  }
  return text.substr(from, length);
}

std::string cutFrom(const std::string& text, std::size_t from) {
  return cut(text, from, from <= text.size() ? text.size() - from : 0);
}

}  // namespace tqble::detail
