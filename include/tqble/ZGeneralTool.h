#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tqble/platform/HostAdapters.h"
#include "tqble/platform/Value.h"

namespace tqble {

/// Display, date and application helpers. Stateless.
class ZGeneralTool {
 public:
  ZGeneralTool() = delete;

  // Post time.

  /// Seconds since 1970 as "yyyy-MM-dd HH:mm:ss" in the device's time zone.
  static std::string coverToBleDatematterFromTimeInterval(std::int64_t timeInterval);

  // Dates, in the device's time zone, locale and calendar.

  /// Seconds since 1970 as "yyyy-MM-dd".
  static std::string coverToDatematterFromTimeInterval(std::int64_t timeInterval);
  /// Seconds since 1970 as "yyyy-MM-dd HH:mm".
  static std::string coverToDateMinitematterFromTimeInterval(std::int64_t timeInterval);
  /// "yyyy-MM-dd HH:mm:ss" texts, newest first within each run of dated texts; a nullopt
  /// or unparseable element stays in place and nothing moves across it. Stable.
  static std::vector<std::optional<std::string>> sortWithTimeIntervalFromTimeStrs(
      const std::vector<std::optional<std::string>>& timeStrs);
  /// A "YYYY-MM-dd HH:mm:ss" text (week-based year) as decimal seconds; "0" when unparseable.
  static std::string cTimestampFromString(const std::string& timeStr);
  /// A component of now: 0 hour, 1 day, 2 week of year, 3 month, 4 year; 0 otherwise.
  static std::int32_t getCurrentDateWithType(std::int64_t type);
  /// Today as "yyyy年MM月dd日".
  static std::string getCurrentDate();
  /// A "yyyy年MM月dd日" text as "yyyy-MM-dd"; nullopt when it does not parse.
  static std::optional<std::string> coverDateFromFormatter(const std::string& dateStr);
  /// Days in `month` of `selectedYear` (31 for a month outside 1..12); logs both inputs.
  static std::int64_t getDaysWithSelectedMonth(std::int64_t month, std::int64_t selectedYear);
  /// "2018年3月5日" as "2018-3-5" (digits kept as written); logs the result.
  /// @throws std::out_of_range when 年, 月 or 日 is missing or misplaced.
  static std::string coverDateFamaterWithDateStr(const std::string& dateStr);

  // Display and application helpers.

  /// Fen as "%.2f元" of yuan.
  static std::string coverToYuanFromeFen(std::int64_t fen);
  /// The same text as coverToYuanFromeFen.
  static std::string coverPackageToYuanFromeFen(std::int64_t fen);
  /// Hands "tel:<phoneNum>" to the host's dial hook, with `view` as the presenting view.
  static void callPhoneWithPhoneNum(const std::string& phoneNum, const std::shared_ptr<View>& view);
  /// A separator view with frame `rect` in the separator grey, added to `view` (if any).
  static std::shared_ptr<View> addLineInView(const std::shared_ptr<View>& view, const Rect& rect);
  /// As addLineInView, with the height forced to 0.8.
  static std::shared_ptr<View> creatSeparateLineWithRect(const Rect& rect,
                                                        const std::shared_ptr<View>& view);
  /// Height of `text` wrapped to `width`, measured by the host's text hook; 0 for nullopt.
  static double targetStr(const std::optional<std::string>& text, const Dictionary& attribute,
                          double width);
  /// UTF-16 index of the first single character of `content` equal to `needle`; 0 when none.
  static std::int32_t getLocationWithStr(const std::string& needle, const std::string& content);
  /// The texts joined with ",".
  static std::string coverToStrFromArr(const std::vector<std::string>& array);
  /// The text split at every "," (empty pieces kept).
  static std::vector<std::string> coverToArrFromStr(const std::string& text);
  /// Stores `value` under `key` in the standard user defaults and writes them to disk.
  static void userDefaultSaveValue(const Value& value, const std::string& key);
  /// The standard user defaults' value for `key`; std::monostate when none.
  static Value userDefaultObjiectForKey(const std::string& key);
  /// True when nothing, an empty text or empty bytes are stored under `key`.
  static bool isFirstWith(const std::string& key);
  /// Stores `key` under itself in the standard user defaults, without writing to disk.
  static void savePageFlag(const std::string& key);
  /// False when the host reports the photo library restricted (1) or denied (2).
  static bool isOpenLiberyAuthority();
  /// False when the host reports the camera restricted (1) or denied (2).
  static bool isOpenCamaraAuthority();
};

}  // namespace tqble
