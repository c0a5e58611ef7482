// Dates of ZGeneralTool: display texts of seconds, parsing back, sorting time texts,
// components of now and month lengths.
#include <cmath>
#include <cstddef>
#include <limits>
#include <utility>

#include "platform/DateFormat.h"
#include "tools/Printf.h"
#include "tools/Utf16.h"
#include "tqble/ZGeneralTool.h"
#include "tqble/platform/Log.h"

namespace tqble {
namespace {

enum class Order { Ascending = -1, Same = 0, Descending = 1 };

// Sorts stably by insertion, moving an element forward only while the comparator says
// its predecessor is "descending" relative to it. Unlike std::sort this is well defined
// for a comparator that is not a strict weak order.
template <typename T, typename Compare>
void insertionSort(std::vector<T>& items, Compare compare) {
  for (std::size_t i = 1; i < items.size(); ++i) {
    for (std::size_t j = i; j > 0 && compare(items[j - 1], items[j]) == Order::Descending; --j) {
      std::swap(items[j - 1], items[j]);
    }
  }
}

// A missing element reads as the zero date, which never parses.
std::optional<double> sortDate(const std::optional<std::string>& text) {
  return detail::parseDate(text.value_or("0000-00-00 00:00:00"), "yyyy-MM-dd HH:mm:ss");
}

// Maps a position that went below zero to one no text reaches, as unsigned arithmetic would.
std::size_t position(std::int64_t at) {
  return at < 0 ? std::numeric_limits<std::size_t>::max() : static_cast<std::size_t>(at);
}

}  // namespace

std::string ZGeneralTool::coverToDatematterFromTimeInterval(std::int64_t timeInterval) {
  return detail::formatDate(static_cast<double>(timeInterval), "yyyy-MM-dd");
}

std::string ZGeneralTool::coverToDateMinitematterFromTimeInterval(std::int64_t timeInterval) {
  return detail::formatDate(static_cast<double>(timeInterval), "yyyy-MM-dd HH:mm");
}

std::vector<std::optional<std::string>> ZGeneralTool::sortWithTimeIntervalFromTimeStrs(
    const std::vector<std::optional<std::string>>& timeStrs) {
  // The comparator only ever says "descending" (a is older than b) or "same"; dates are
  // parsed once up front since parsing is the costly part.
  std::vector<std::pair<std::optional<double>, std::size_t>> keyed;
  for (std::size_t i = 0; i < timeStrs.size(); ++i) keyed.emplace_back(sortDate(timeStrs[i]), i);
  insertionSort(keyed, [](const auto& a, const auto& b) {
    return a.first && b.first && *a.first < *b.first ? Order::Descending : Order::Same;
  });
  std::vector<std::optional<std::string>> sorted;
  sorted.reserve(keyed.size());
  for (const auto& [date, index] : keyed) sorted.push_back(timeStrs[index]);
  return sorted;
}

std::string ZGeneralTool::cTimestampFromString(const std::string& timeStr) {
  // Week-based year "YYYY" is what the callers have always been given; kept on purpose.
  const auto seconds = detail::parseDate(timeStr, "YYYY-MM-dd HH:mm:ss");
  return detail::printf("%ld", static_cast<long>(seconds ? std::trunc(*seconds) : 0.0));
}

std::int32_t ZGeneralTool::getCurrentDateWithType(std::int64_t type) {
  const detail::CalendarFields now = detail::calendarFields(detail::nowSeconds());
  switch (type) {
    case 0: return now.hour;
    case 1: return now.day;
    case 2: return now.weekOfYear;
    case 3: return now.month;
    case 4: return now.year;
    default: return 0;
  }
}

std::string ZGeneralTool::getCurrentDate() {
  return detail::formatDate(detail::nowSeconds(), "yyyy年MM月dd日");
}

std::optional<std::string> ZGeneralTool::coverDateFromFormatter(const std::string& dateStr) {
  const auto seconds = detail::parseDate(dateStr, "yyyy年MM月dd日");
  if (!seconds) return std::nullopt;
  return detail::formatDate(*seconds, "yyyy-MM-dd");
}

std::int64_t ZGeneralTool::getDaysWithSelectedMonth(std::int64_t month,
                                                    std::int64_t selectedYear) {
  TQLog("所选择的月份: %ld", static_cast<long>(month));
  // The second line has always shown the month again; log readers expect it.
  TQLog("所选择的年份: %ld", static_cast<long>(month));
  switch (month) {
    case 4: case 6: case 9: case 11:
      return 30;
    case 2: {
      const bool leap = selectedYear % 400 == 0 || (selectedYear % 4 == 0 && selectedYear % 100 != 0);
      return leap ? 29 : 28;
    }
    default:
      return 31;
  }
}

std::string ZGeneralTool::coverDateFamaterWithDateStr(const std::string& dateStr) {
  const std::int64_t yearAt = getLocationWithStr("年", dateStr);
  const std::int64_t monthAt = getLocationWithStr("月", dateStr);
  const std::int64_t dayAt = getLocationWithStr("日", dateStr);
  const std::int64_t monthLength = monthAt - yearAt == 2 ? 1 : 2;
  const std::int64_t dayLength = dayAt - monthAt == 2 ? 1 : 2;
  const std::string year = detail::cut16(dateStr, 0, 4);
  const std::string month =
      detail::cut16(dateStr, position(monthAt - monthLength), static_cast<std::size_t>(monthLength));
  const std::string day =
      detail::cut16(dateStr, position(dayAt - dayLength), static_cast<std::size_t>(dayLength));
  std::string text = year + "-" + month + "-" + day;
  TQLog("%s", text.c_str());
  return text;
}

}  // namespace tqble
