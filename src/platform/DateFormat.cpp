#include "platform/DateFormat.h"

#include <unicode/calendar.h>
#include <unicode/gregocal.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>
#include <unicode/unistr.h>

#include <chrono>
#include <ctime>
#include <map>
#include <memory>

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
    auto formatter = std::make_unique<icu::SimpleDateFormat>(
        icu::UnicodeString::fromUTF8(pattern), locale, status);
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

void setNowSource(std::function<double()> source) { nowSource() = std::move(source); }

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

double gregorianSeconds(std::int32_t year, std::int32_t month, std::int32_t day,
                        std::int32_t hour, std::int32_t minute, std::int32_t second) {
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
