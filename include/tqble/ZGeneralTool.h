#pragma once

#include <cstdint>
#include <string>

namespace tqble {

/// Display, date and application helpers. Stateless.
class ZGeneralTool {
 public:
  ZGeneralTool() = delete;

  /// Seconds since 1970 as "yyyy-MM-dd HH:mm:ss" in the device's time zone.
  static std::string coverToBleDatematterFromTimeInterval(std::int64_t timeInterval);
};

}  // namespace tqble
