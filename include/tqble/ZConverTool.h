#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace tqble {

/// Conversion, date and application helpers. Stateless; three methods need an instance.
class ZConverTool {
 public:
  // Post time.

  /// The current time as seconds since 1970, decimal text without a fraction (rounded).
  static std::string getCurrentTimeInterval();
  /// Seconds since 1970 as "yyyy-MM-dd HH:mm:ss" in the device's time zone.
  static std::string converFormatTimeWithTimeValue(std::int64_t timeValue);

  // Dates, in the device's time zone, locale and calendar.

  /// Seconds since 1970 as "MM月dd日 HH:mm".
  static std::string timeStr(double time);
  /// Seconds since 1970 as "HH:mm".
  static std::string finishTimeStr(double time);
  /// "今天" or "昨天" within a day of now (or in the future), else "MM月dd日" this year
  /// and "yyyy年MM月dd日" in another year.
  static std::string formateDateWith(std::int32_t time);
  /// Seconds since 1970 as "MM月dd日".
  static std::string startTimeWith(std::int32_t time);
  /// Seconds since 1970 as "yyyy-MM-dd".
  static std::string converYearmonth(std::int64_t time);
  /// Today at `hour`:00:00 in the device's time zone (Gregorian; 24 is the next midnight).
  std::chrono::system_clock::time_point getCustomDateWithHour(std::int64_t hour);
  /// True when now lies strictly between today at `fromHour` and today at `toHour`.
  bool isBetweenFromHour(std::int64_t fromHour, std::int64_t toHour);
  /// True when now is later than today at `hour`.
  bool isBigToHour(std::int64_t hour);

  // Durations in whole seconds.

  /// "%d分钟" under an hour, else "%d小时%d分".
  static std::string timeWithChargeDuration(std::int32_t duration);
  /// Whole minutes as "%d".
  static std::string maptimeWithChargeDuration(std::int32_t duration);
  /// Hours and minutes as "%02d:%02d".
  static std::string converWitnNum(std::int32_t num);
  /// Hours and minutes as "%d小时%d分".
  std::string convertTimeWhihNum(std::int32_t num);
  /// Whole hours.
  static std::int64_t converHours(std::int32_t time);
  /// Minutes within the hour.
  static std::int64_t converMinute(std::int32_t time);
  /// Hours and minutes as "%ld时%ld分".
  static std::string converHourAndMinuteWith(std::int64_t time);
  /// Seconds of a "2时30分" text; 0 for nullopt.
  /// @throws std::out_of_range when 时 or 分 is missing.
  static std::int64_t converTimeWith(const std::optional<std::string>& timeStr);
  /// The hours (type 0) or minutes (any other type) of a "2时30分" text; 0 for nullopt.
  /// @throws std::out_of_range when 时 or 分 is missing.
  static std::int64_t subHourMinuteWithTimeStr(const std::optional<std::string>& timeStr,
                                               std::int64_t type);

  // Display and application helpers.

  /// "未知" below 0, "%.0lf米" up to 1000 metres, else "%.1lf千米".
  static std::string converDistance(double distance);
  /// "%.1f" of 6 × kilometres.
  static std::string addDistance(double distance);
  /// The same text as addDistance (one decimal included).
  static std::string addDistanceWithNoPoint(double distance);
  /// True when the whole text matches the mobile-number pattern.
  static bool isPhoneNum(const std::string& phoneNum);
  /// The first 3 characters, "****", then the characters from index 7 (UTF-16 units).
  /// @throws std::out_of_range when shorter than 7 characters.
  static std::string coverPhoneNumber(const std::string& phoneNum);
  /// True when nothing, an empty text or empty bytes are stored under `key`.
  static bool isFirstWith(const std::string& key);
  /// Stores `key` under itself in the standard user defaults, without writing to disk.
  static void savePageFlag(const std::string& key);
};

}  // namespace tqble
