#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace tqble::detail {

/// Formats an instant (seconds since 1970, UTC) with ICU date-format pattern letters,
/// in the device's time zone and locale, like a fresh platform date formatter.
std::string formatDate(double secondsSince1970, const std::string& pattern);

/// "yyyy-MM-dd HH:mm:ss" of post seconds in the device's time zone: the text formatDate
/// gives, made from cached zone offsets where the device's calendar is Gregorian.
std::string formatPostTime(std::int64_t secondsSince1970);

/// The same text, always through the ICU formatter.
std::string formatPostTimeSlowly(std::int64_t secondsSince1970);

/// Whether formatPostTime() writes post clocks from cached offsets in the device's current
/// zone and locale (false: through the ICU formatter).
bool postTimesFromZoneOffsets();

/// Parses text with the same rules; nullopt when it does not parse.
std::optional<double> parseDate(const std::string& text, const std::string& pattern);

/// The current time as seconds since 1970.
double nowSeconds();

/// Replaces the wall clock read by nowSeconds(); an empty source restores the system clock.
void setNowSource(std::function<double()> source);

/// Calendar fields of an instant in the device's time zone.
struct CalendarFields {
  std::int32_t year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0, weekOfYear = 0;
};

/// The fields of `secondsSince1970` in the calendar of the device's locale.
CalendarFields calendarFields(double secondsSince1970);

/// The instant a Gregorian calendar in the device's time zone makes of the fields
/// (lenient: an hour of 24 is midnight of the next day).
double gregorianSeconds(std::int32_t year, std::int32_t month, std::int32_t day,
                        std::int32_t hour, std::int32_t minute, std::int32_t second);

/// Year, month and day of `secondsSince1970` in the Gregorian calendar.
CalendarFields gregorianFields(double secondsSince1970);

/// Re-reads the device's time zone (after TZ changed in the environment).
void refreshTimeZone();

}  // namespace tqble::detail
