#include <gtest/gtest.h>
#include <unicode/basictz.h>
#include <unicode/locid.h>
#include <unicode/strenum.h>

#include <cstdlib>
#include <memory>
#include <tuple>

#include "platform/DateFormat.h"
#include "tqble/ZConverTool.h"
#include "tqble/ZGeneralTool.h"

namespace tqble {
namespace {

TEST(PostTime, IsWrittenInTheDevicesTimeZoneWithTheCalendarYear) {
  // clang-format off
  const std::tuple<const char*, std::int64_t, const char*> cases[] = {
      {"UTC", -1, "1969-12-31 23:59:59"}, {"Asia/Shanghai", -1, "1970-01-01 07:59:59"},
      {"UTC", 4'294'967'295, "2106-02-07 06:28:15"},  // largest unsigned 32-bit post clock
      {"UTC", 1'609'372'800, "2020-12-31 00:00:00"},  // the week-based year would say 2021
      {"America/New_York", 1'700'000'000, "2023-11-14 17:13:20"}, {"UTC", 0, "1970-01-01 00:00:00"}};
  // clang-format on
  for (const auto& [tz, seconds, text] : cases) {  // both post-time conversions follow one rule
    ::setenv("TZ", tz, 1);
    detail::refreshTimeZone();
    EXPECT_EQ(ZGeneralTool::coverToBleDatematterFromTimeInterval(seconds), text) << tz << seconds;
    EXPECT_EQ(ZConverTool::converFormatTimeWithTimeValue(seconds), text) << tz << seconds;
  }  // the last row leaves the device in UTC
}

// Instants worth comparing in the device's zone: the range's ends, around 0, a spread
// across the range, and one second either side of every transition ICU knows of.
std::vector<std::int64_t> instantsOfTheDevicesZone(bool everyTransition) {
  std::vector<std::int64_t> instants = {INT32_MIN, INT32_MIN + 1, -1, 0, 1};
  instants.insert(instants.end(), {INT32_MAX - 1, INT32_MAX});
  for (std::int64_t t = INT32_MIN; t < INT32_MAX; t += 107'374'183) instants.push_back(t);
  const std::unique_ptr<icu::TimeZone> zone(icu::TimeZone::createDefault());
  const auto* basic = dynamic_cast<const icu::BasicTimeZone*>(zone.get());
  icu::TimeZoneTransition transition;
  for (double at = INT32_MIN * 1000.0;
       everyTransition && basic && basic->getNextTransition(at, false, transition) &&
       transition.getTime() < INT32_MAX * 1000.0;
       at = transition.getTime()) {
    for (std::int64_t d : {-1, 0, 1})
      instants.push_back(static_cast<std::int64_t>(transition.getTime() / 1000) + d);
  }
  return instants;
}

TEST(PostTime, IsTheTextOfICUsFormatterForEveryInstantAndZone) {
  // Half-hour, quarter-hour and 45-minute zones, a negative summer time, a 30-minute summer
  // time, zones whose early offsets carry seconds, a skipped day; then every zone, sampled.
  // clang-format off
  const char* odd[] = {"Pacific/Chatham", "Asia/Kathmandu", "America/St_Johns", "Africa/Casablanca",
                       "Australia/Lord_Howe", "Africa/Monrovia", "Europe/Amsterdam", "Europe/Dublin",
                       "Pacific/Apia", "America/Sao_Paulo", "Antarctica/Troll", "Asia/Shanghai", "UTC"};
  // clang-format on
  std::vector<std::pair<std::string, bool>> zones;
  for (const char* zone : odd) zones.emplace_back(zone, true);
  UErrorCode status = U_ZERO_ERROR;
  const std::unique_ptr<icu::StringEnumeration> all(icu::TimeZone::createEnumeration(status));
  while (const char* zone = all->next(nullptr, status)) zones.emplace_back(zone, false);
  std::size_t compared = 0;
  for (const auto& [zone, everyTransition] : zones) {
    ::setenv("TZ", zone.c_str(), 1);
    detail::refreshTimeZone();
    ASSERT_TRUE(detail::postTimesFromZoneOffsets()) << zone;
    for (std::int64_t t : instantsOfTheDevicesZone(everyTransition)) {
      ASSERT_EQ(detail::formatPostTime(t), detail::formatPostTimeSlowly(t)) << zone << " " << t;
      ++compared;
    }
  }
  EXPECT_GT(compared, 30'000u);
  ::setenv("TZ", "UTC", 1);
  detail::refreshTimeZone();
}

TEST(PostTime, KeepsTheDevicesCalendarAndDigitsWhereTheyAreNotGregorianAndLatin) {
  UErrorCode status = U_ZERO_ERROR;
  const icu::Locale before = icu::Locale::getDefault();
  // clang-format off
  const std::tuple<const char*, const char*, bool> cases[] = {
      {"th_TH", "2566-11-14 22:13:20", false}, {"ar_EG", "٢٠٢٣-١١-١٤ ٢٢:١٣:٢٠", false},
      {"ja_JP@calendar=japanese", "0005-11-14 22:13:20", false}, {"en_US", "2023-11-14 22:13:20", true}};
  // clang-format on
  for (const auto& [locale, text, fromOffsets] : cases) {
    icu::Locale::setDefault(icu::Locale(locale), status);
    EXPECT_EQ(ZConverTool::converFormatTimeWithTimeValue(1'700'000'000), text) << locale;
    EXPECT_EQ(detail::postTimesFromZoneOffsets(), fromOffsets) << locale;
  }
  icu::Locale::setDefault(before, status);
}

TEST(CurrentTimeInterval, IsWholeSecondsRoundedToTheNearest) {
  for (const auto& [now, text] : {std::pair{1'700'000'000.6, "1700000001"}, std::pair{.4, "0"}}) {
    detail::setNowSource([now = now] { return now; });
    EXPECT_EQ(ZConverTool::getCurrentTimeInterval(), text);
  }
  detail::setNowSource(nullptr);
}

}  // namespace
}  // namespace tqble
