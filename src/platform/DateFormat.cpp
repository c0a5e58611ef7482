#include "platform/DateFormat.h"

#include <unicode/basictz.h>
#include <unicode/calendar.h>
#include <unicode/gregocal.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <vector>

namespace tqble::detail {
namespace {

// Bumped whenever the device's time zone is re-read, so cached formatters follow it.
std::uint64_t& zoneGeneration() {
  static std::uint64_t generation = 0;
  return generation;
}

// Building an ICU formatter costs tens of microseconds; a decoder formats one date per
// history or error-log entry. Formatters are kept per thread, by pattern and locale, and
// dropped when the time zone changes, which gives the texts of a fresh formatter.
icu::SimpleDateFormat* formatterFor(const std::string& pattern) {
  struct Cache {
    std::uint64_t generation = 0;
    std::map<std::pair<std::string, std::string>, std::unique_ptr<icu::SimpleDateFormat>> byKey;
  };
  thread_local Cache cache;
  if (cache.generation != zoneGeneration()) {
    cache.byKey.clear();
    cache.generation = zoneGeneration();
  }
  const icu::Locale& locale = icu::Locale::getDefault();
  auto& slot = cache.byKey[{pattern, locale.getName()}];
  if (!slot) {
    UErrorCode status = U_ZERO_ERROR;
    auto formatter = std::make_unique<icu::SimpleDateFormat>(icu::UnicodeString::fromUTF8(pattern),
                                                             locale, status);
    if (U_FAILURE(status)) return nullptr;
    formatter->setLenient(false);  // parsing only; formatting is unaffected
    slot = std::move(formatter);
  }
  return slot.get();
}

}  // namespace

std::string formatDate(double secondsSince1970, const std::string& pattern) {
  const auto* formatter = formatterFor(pattern);
  if (!formatter) return {};
  icu::UnicodeString text;
  formatter->format(static_cast<UDate>(secondsSince1970 * 1000.0), text);
  std::string utf8;
  text.toUTF8String(utf8);
  return utf8;
}

namespace {

constexpr char kPostTimePattern[] = "yyyy-MM-dd HH:mm:ss";

// The zone's offsets over the post clock's range (signed 32-bit seconds), taken from ICU's
// own transitions and offsets, so the fields match its formatter's.
struct ZoneOffsets {
  std::uint64_t generation = ~std::uint64_t{0};
  std::string locale;
  bool usable = false;
  // offsets[i] (seconds east of UTC) holds from starts[i] on; starts[0] is the range's start.
  std::vector<std::int64_t> starts;
  std::vector<std::int32_t> offsets;
};

constexpr std::int64_t kFirst = INT32_MIN;
constexpr std::int64_t kLast = INT32_MAX;

std::int32_t offsetAt(const icu::TimeZone& zone, double millis) {
  UErrorCode status = U_ZERO_ERROR;
  std::int32_t raw = 0, dst = 0;
  zone.getOffset(millis, false, raw, dst, status);
  return (raw + dst) / 1000;
}

// Civil date and time of local seconds, written as the pattern above.
std::string writePostTime(std::int64_t local) {
  std::int64_t days = local / 86400, second = local % 86400;
  if (second < 0) second += 86400, --days;
  // Days since 1970-01-01 to year, month, day in the proleptic Gregorian calendar.
  days += 719468;
  const std::int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  const std::int64_t dayOfEra = days - era * 146097;
  const std::int64_t yearOfEra =
      (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const std::int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const std::int64_t shifted = (5 * dayOfYear + 2) / 153;
  const std::int64_t day = dayOfYear - (153 * shifted + 2) / 5 + 1;
  const std::int64_t month = shifted < 10 ? shifted + 3 : shifted - 9;
  const std::int64_t year = yearOfEra + era * 400 + (month <= 2);

  char text[] = "0000-00-00 00:00:00";
  const auto put = [&text](std::size_t at, std::int64_t value, int digits) {
    for (int i = digits - 1; i >= 0; --i, value /= 10)
      text[at + i] = static_cast<char>('0' + value % 10);
  };
  put(0, year, 4);
  put(5, month, 2);
  put(8, day, 2);
  put(11, second / 3600, 2);
  put(14, second / 60 % 60, 2);
  put(17, second % 60, 2);
  return std::string(text, sizeof text - 1);
}

std::string fromTable(const ZoneOffsets& table, std::int64_t seconds) {
  const auto next = std::upper_bound(table.starts.begin(), table.starts.end(), seconds);
  return writePostTime(seconds +
                       table.offsets[static_cast<std::size_t>(next - table.starts.begin()) - 1]);
}

void build(ZoneOffsets& table) {
  table.usable = false;
  table.starts.clear();
  table.offsets.clear();
  const auto* formatter = formatterFor(kPostTimePattern);
  // Other calendars (Buddhist, Japanese, ...) and other digits keep ICU's formatter.
  if (!formatter || std::strcmp(formatter->getCalendar()->getType(), "gregorian") != 0) return;
  const std::unique_ptr<icu::TimeZone> zone(icu::TimeZone::createDefault());
  const auto* basic = dynamic_cast<const icu::BasicTimeZone*>(zone.get());
  if (!basic) return;
  table.starts.push_back(kFirst);
  table.offsets.push_back(offsetAt(*zone, kFirst * 1000.0));
  icu::TimeZoneTransition transition;
  for (double base = kFirst * 1000.0;
       basic->getNextTransition(base, false, transition) && transition.getTime() <= kLast * 1000.0;
       base = transition.getTime()) {
    const std::int32_t offset = offsetAt(*zone, transition.getTime());
    if (offset == table.offsets.back()) continue;
    table.starts.push_back(static_cast<std::int64_t>(std::ceil(transition.getTime() / 1000.0)));
    table.offsets.push_back(offset);
  }
  table.usable = true;
  for (std::int64_t probe : {kFirst, std::int64_t{-1}, std::int64_t{1'234'567'890}, kLast}) {
    if (fromTable(table, probe) != formatPostTimeSlowly(probe)) table.usable = false;
  }
}

}  // namespace

std::string formatPostTimeSlowly(std::int64_t secondsSince1970) {
  return formatDate(static_cast<double>(secondsSince1970), kPostTimePattern);
}

namespace {

// The table for the device's zone and locale, rebuilt when either changes.
const ZoneOffsets& zoneOffsets() {
  thread_local ZoneOffsets table;
  const char* locale = icu::Locale::getDefault().getName();
  if (table.generation != zoneGeneration() || table.locale != locale) {
    table.generation = zoneGeneration();
    table.locale = locale;
    build(table);
  }
  return table;
}

}  // namespace

std::string formatPostTime(std::int64_t secondsSince1970) {
  const ZoneOffsets& table = zoneOffsets();
  if (!table.usable || secondsSince1970 < kFirst || secondsSince1970 > kLast) {
    return formatPostTimeSlowly(secondsSince1970);
  }
  return fromTable(table, secondsSince1970);
}

bool postTimesFromZoneOffsets() {
  return zoneOffsets().usable;
}

std::optional<double> parseDate(const std::string& text, const std::string& pattern) {
  const auto* formatter = formatterFor(pattern);
  if (!formatter) return std::nullopt;
  UErrorCode status = U_ZERO_ERROR;
  const UDate date = formatter->parse(icu::UnicodeString::fromUTF8(text), status);
  if (U_FAILURE(status)) return std::nullopt;
  return date / 1000.0;
}

namespace {

std::function<double()>& nowSource() {
  static std::function<double()> source;
  return source;
}

}  // namespace

double nowSeconds() {
  if (nowSource()) return nowSource()();
  using namespace std::chrono;
  return duration<double>(system_clock::now().time_since_epoch()).count();
}

void setNowSource(std::function<double()> source) {
  nowSource() = std::move(source);
}

namespace {

CalendarFields fieldsOf(icu::Calendar& calendar, double secondsSince1970) {
  UErrorCode status = U_ZERO_ERROR;
  calendar.setTime(static_cast<UDate>(secondsSince1970 * 1000.0), status);
  CalendarFields fields;
  fields.year = calendar.get(UCAL_YEAR, status);
  fields.month = calendar.get(UCAL_MONTH, status) + 1;
  fields.day = calendar.get(UCAL_DATE, status);
  fields.hour = calendar.get(UCAL_HOUR_OF_DAY, status);
  fields.minute = calendar.get(UCAL_MINUTE, status);
  fields.second = calendar.get(UCAL_SECOND, status);
  fields.weekOfYear = calendar.get(UCAL_WEEK_OF_YEAR, status);
  return fields;
}

}  // namespace

CalendarFields calendarFields(double secondsSince1970) {
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::Calendar> calendar(icu::Calendar::createInstance(status));
  if (U_FAILURE(status)) return {};
  return fieldsOf(*calendar, secondsSince1970);
}

CalendarFields gregorianFields(double secondsSince1970) {
  UErrorCode status = U_ZERO_ERROR;
  icu::GregorianCalendar calendar(status);
  if (U_FAILURE(status)) return {};
  return fieldsOf(calendar, secondsSince1970);
}

double gregorianSeconds(std::int32_t year, std::int32_t month, std::int32_t day, std::int32_t hour,
                        std::int32_t minute, std::int32_t second) {
  UErrorCode status = U_ZERO_ERROR;
  icu::GregorianCalendar calendar(status);
  calendar.clear();
  calendar.set(year, month - 1, day, hour, minute, second);
  const UDate date = calendar.getTime(status);
  return U_FAILURE(status) ? 0.0 : date / 1000.0;
}

void refreshTimeZone() {
  tzset();
  icu::TimeZone::adoptDefault(icu::TimeZone::detectHostTimeZone());
  ++zoneGeneration();
}

}  // namespace tqble::detail
