// Durations of ZConverTool: whole seconds written as hours and minutes, and "2时30分"
// texts read back.
#include <cstdlib>

#include "platform/Text.h"
#include "tools/Printf.h"
#include "tools/Utf16.h"
#include "tqble/ZConverTool.h"

namespace tqble {
namespace {

struct HoursMinutes {
  std::int64_t hours;
  std::int64_t minutes;
};

// Integer division truncating toward zero, as the display has always computed it.
HoursMinutes split(std::int64_t seconds) { return {seconds / 3600, seconds % 3600 / 60}; }

// @throws std::out_of_range when 时 or 分 is missing.
HoursMinutes parseHoursMinutes(const std::string& text) {
  const std::size_t hourMark = detail::utf16Find(text, "时");
  const std::int64_t hours = detail::integerValue(detail::cut16(text, 0, hourMark));
  const std::string rest = detail::cutFrom16(text, hourMark + 1);
  const std::int64_t minutes = detail::integerValue(detail::cut16(rest, 0, detail::utf16Find(rest, "分")));
  return {hours, minutes};
}

}  // namespace

std::string ZConverTool::timeWithChargeDuration(std::int32_t duration) {
  const auto [hours, minutes] = split(duration);
  if (duration < 3600) return detail::printf("%d分钟", static_cast<int>(minutes));
  return detail::printf("%d小时%d分", static_cast<int>(hours), static_cast<int>(minutes));
}

std::string ZConverTool::maptimeWithChargeDuration(std::int32_t duration) {
  return detail::printf("%d", duration / 60);
}

std::string ZConverTool::converWitnNum(std::int32_t num) {
  const auto [hours, minutes] = split(num);
  return detail::printf("%02d:%02d", static_cast<int>(hours), static_cast<int>(minutes));
}

std::string ZConverTool::convertTimeWhihNum(std::int32_t num) {
  const auto [hours, minutes] = split(num);
  return detail::printf("%d小时%d分", static_cast<int>(hours), static_cast<int>(minutes));
}

std::int64_t ZConverTool::converHours(std::int32_t time) { return split(time).hours; }

std::int64_t ZConverTool::converMinute(std::int32_t time) { return split(time).minutes; }

std::string ZConverTool::converHourAndMinuteWith(std::int64_t time) {
  const auto [hours, minutes] = split(time);
  return detail::printf("%ld时%ld分", static_cast<long>(hours), static_cast<long>(minutes));
}

std::int64_t ZConverTool::converTimeWith(const std::optional<std::string>& timeStr) {
  if (!timeStr) return 0;
  const auto [hours, minutes] = parseHoursMinutes(*timeStr);
  // Word arithmetic: saturated inputs wrap rather than overflow.
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(hours) * 3600 +
                                   static_cast<std::uint64_t>(minutes) * 60);
}

std::int64_t ZConverTool::subHourMinuteWithTimeStr(const std::optional<std::string>& timeStr,
                                                   std::int64_t type) {
  if (!timeStr) return 0;
  const auto [hours, minutes] = parseHoursMinutes(*timeStr);
  return type == 0 ? hours : minutes;
}

}  // namespace tqble
