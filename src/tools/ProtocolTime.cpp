// The three time conversions the charger protocol uses: the phone's clock to post
// seconds, and post seconds to display text.
#include <cstdio>

#include "platform/DateFormat.h"
#include "tqble/ZConverTool.h"
#include "tqble/ZGeneralTool.h"

namespace tqble {
namespace {

constexpr char kPostTimePattern[] = "yyyy-MM-dd HH:mm:ss";

}  // namespace

std::string ZConverTool::getCurrentTimeInterval() {
  char text[32];
  std::snprintf(text, sizeof text, "%0.f", detail::nowSeconds());
  return text;
}

std::string ZGeneralTool::coverToBleDatematterFromTimeInterval(std::int64_t timeInterval) {
  return detail::formatDate(static_cast<double>(timeInterval), kPostTimePattern);
}

std::string ZConverTool::converFormatTimeWithTimeValue(std::int64_t timeValue) {
  return detail::formatDate(static_cast<double>(timeValue), kPostTimePattern);
}

}  // namespace tqble
