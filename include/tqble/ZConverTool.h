#pragma once

#include <cstdint>
#include <string>

namespace tqble {

/// Conversion, date and application helpers. Stateless.
class ZConverTool {
 public:
  /// The current time as seconds since 1970, decimal text without a fraction (rounded).
  static std::string getCurrentTimeInterval();
  /// Seconds since 1970 as "yyyy-MM-dd HH:mm:ss" in the device's time zone.
  static std::string converFormatTimeWithTimeValue(std::int64_t timeValue);
};

}  // namespace tqble
