#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <variant>
#include <vector>

namespace tqble {

/// A byte buffer: frames, chunks and characteristic values.
using Bytes = std::vector<std::uint8_t>;

/// A loosely typed value, as kept in user-info dictionaries and user defaults.
/// std::monostate stands for the platform's null object.
using Value = std::variant<std::monostate, bool, std::int64_t, double, std::string, Bytes,
                           std::vector<std::string>>;

/// A dictionary of loosely typed values (notification and error user-info).
using Dictionary = std::map<std::string, Value>;

}  // namespace tqble
