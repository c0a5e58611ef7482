#pragma once

#include <string>

namespace tqble::detail {

/// printf-style formatting into a text; the helpers' format strings are their behaviour.
std::string printf(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace tqble::detail
