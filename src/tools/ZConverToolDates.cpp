// Dates of ZConverTool: display texts of seconds, the relative-day label and whole-hour
// periods of the current day.
#include "platform/DateFormat.h"
#include "tqble/ZConverTool.h"

namespace tqble {
namespace {

constexpr double kOneDay = 86400.0;

double todayAtHour(std::int64_t hour) {
  const detail::CalendarFields today = detail::gregorianFields(detail::nowSeconds());
  return detail::gregorianSeconds(today.year, today.month, today.day,
                                  static_cast<std::int32_t>(hour), 0, 0);
}

}  // namespace

std::string ZConverTool::timeStr(double time) {
  return detail::formatDate(time, "MM月dd日 HH:mm");
}

std::string ZConverTool::finishTimeStr(double time) { return detail::formatDate(time, "HH:mm"); }

std::string ZConverTool::formateDateWith(std::int32_t time) {
  const double date = time;
  // A round trip through whole-second text, as the label has always been measured.
  const char* kFull = "yyyy-MM-dd HH:mm:ss";
  const double wholeSeconds = detail::parseDate(detail::formatDate(date, kFull), kFull).value_or(date);
  const double now = detail::nowSeconds();
  if (now - wholeSeconds <= kOneDay) {
    // Anything in the future also lands here; a different day reads "昨天" either way.
    const char* kDay = "YYYY-MM-dd";
    return detail::formatDate(now, kDay) == detail::formatDate(date, kDay) ? "今天" : "昨天";
  }
  if (detail::formatDate(now, "yyyy") == detail::formatDate(date, "yyyy")) {
    return detail::formatDate(date, "MM月dd日");
  }
  return detail::formatDate(date, "yyyy年MM月dd日");
}

std::string ZConverTool::startTimeWith(std::int32_t time) {
  return detail::formatDate(time, "MM月dd日");
}

std::string ZConverTool::converYearmonth(std::int64_t time) {
  return detail::formatDate(static_cast<double>(time), "yyyy-MM-dd");
}

std::chrono::system_clock::time_point ZConverTool::getCustomDateWithHour(std::int64_t hour) {
  using namespace std::chrono;
  return system_clock::time_point(
      duration_cast<system_clock::duration>(duration<double>(todayAtHour(hour))));
}

bool ZConverTool::isBetweenFromHour(std::int64_t fromHour, std::int64_t toHour) {
  const double now = detail::nowSeconds();
  return now > todayAtHour(fromHour) && now < todayAtHour(toHour);
}

bool ZConverTool::isBigToHour(std::int64_t hour) { return detail::nowSeconds() > todayAtHour(hour); }

}  // namespace tqble
