// The three time conversions the charger protocol uses: the phone's clock to post
// seconds, and post seconds to display text.
#include <cstdio>

#include "platform/DateFormat.h"
#include "tqble/ZConverTool.h"
#include "tqble/ZGeneralTool.h"

namespace tqble {

std::string ZConverTool::getCurrentTimeInterval() {
  char text[32];
  std::snprintf(text, sizeof text, "%0.f", detail::nowSeconds());
  return text;
}

std::string ZGeneralTool::coverToBleDatematterFromTimeInterval(std::int64_t timeInterval) {
  return detail::formatPostTime(timeInterval);
}

std::string ZConverTool::converFormatTimeWithTimeValue(std::int64_t timeValue) {
  return detail::formatPostTime(timeValue);
}

}  // namespace tqble
