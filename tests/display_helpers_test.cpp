// The display helpers' texts (money, distance, phone numbers, dates and durations), the
// host's hooks, and the post's own time format in the device's time zone, calendar and
// digits. Every test runs in a process of its own: the clock, zone, locale and hooks a test
// sets end with it.
#include <gtest/gtest.h>
#include <unicode/basictz.h>
#include <unicode/locid.h>
#include <unicode/strenum.h>

#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <tuple>

#include "platform/DateFormat.h"
#include "support/LogCapture.h"
#include "tqble/ZConverTool.h"
#include "tqble/ZGeneralTool.h"
#include "tqble/platform/HostAdapters.h"

namespace tqble {
namespace {

constexpr std::int64_t kNow = 1'700'000'000;            // 2023-11-14 22:13:20 UTC
constexpr std::int64_t kLastDayOf2020 = 1'609'372'800;  // already in week-year 2021
constexpr std::int64_t kHour = 3600;
constexpr std::int64_t kDay = 86400;
using G = ZGeneralTool;
using C = ZConverTool;

// Pins the device's time zone and, unless `seconds` is negative, the wall clock.
class DeviceClock : public testing::Test {
 protected:
  static void at(double seconds, const std::string& tz = "UTC") {
    ::setenv("TZ", tz.c_str(), 1);
    detail::refreshTimeZone();
    if (seconds >= 0) detail::setNowSource([seconds] { return seconds; });
  }
};

TEST_F(DeviceClock, DateTextsUseTheExactPatternsAndTheCalendarYearInTheDevicesTimeZone) {
  // clang-format off
  const std::tuple<const char*, std::int64_t, const char*> cases[] = {
      {"UTC", kNow, "2023-11-14|2023-11-14|2023-11-14 22:13|11月14日 22:13|22:13|11月14日"},
      {"Asia/Shanghai", kNow, "2023-11-15|2023-11-15|2023-11-15 06:13|11月15日 06:13|06:13|11月15日"},
      {"UTC", kLastDayOf2020, "2020-12-31|2020-12-31|2020-12-31 00:00|12月31日 00:00|00:00|12月31日"}};
  // clang-format on
  for (const auto& [tz, t, texts] : cases) {
    at(0, tz);
    EXPECT_EQ(G::coverToDatematterFromTimeInterval(t) + "|" + C::converYearmonth(t) + "|" +
                  G::coverToDateMinitematterFromTimeInterval(t) + "|" + C::timeStr(t + 0.9) + "|" +
                  C::finishTimeStr(t) + "|" + C::startTimeWith(static_cast<std::int32_t>(t)), texts);
    // A written post time parses back in the same zone, with the written year.
    const std::string written = G::coverToBleDatematterFromTimeInterval(t);
    EXPECT_EQ(G::cTimestampFromString(written), std::to_string(t)) << written;
  }
  EXPECT_EQ(G::cTimestampFromString("2023-11-14"), "0");
}

TEST_F(DeviceClock, RelativeLabelsFollowTheOneDayRuleTheCalendarDayAndTheCalendarYear) {
  // Offsets are the date minus now; 2020-12-31 lies in week-year 2021 but calendar year 2020.
  const std::int64_t jan2 = 1'609'588'800;  // 2021-01-02 12:00 UTC
  // clang-format off
  const std::tuple<std::int64_t, std::int64_t, const char*, const char*> cases[] = {
      {kNow, -kDay, "UTC", "昨天"}, {kNow, 20 * kHour, "UTC", "昨天"},  // a day back, or ahead
      {kNow, -30 * kHour, "UTC", "11月13日"}, {kNow, -365 * kDay, "UTC", "2022年11月14日"},
      {kNow, -7 * kHour, "UTC", "今天"}, {kNow, -7 * kHour, "Asia/Shanghai", "昨天"},  // 06:13 there
      {jan2, kLastDayOf2020 - jan2, "UTC", "2020年12月31日"}};
  // clang-format on
  for (const auto& [now, offset, tz, label] : cases) {
    at(static_cast<double>(now), tz);
    EXPECT_EQ(C::formateDateWith(static_cast<std::int32_t>(now + offset)), label) << offset << tz;
  }
}

TEST_F(DeviceClock, TodayAndItsHourPeriodsComeFromTheCalendarInTheDevicesTimeZone) {
  at(1'609'416'000);  // 2020-12-31 12:00 UTC, already week 1 of the next week-year
  // clang-format off
  const std::pair<std::int64_t, std::int64_t> cases[] = {{0, 12}, {1, 31}, {2, 1}, {3, 12}, {4, 2020}, {5, 0}, {-1, 0}};
  // clang-format on
  for (const auto& [type, value] : cases) EXPECT_EQ(G::getCurrentDateWithType(type), value) << type;
  EXPECT_EQ(G::getCurrentDate(), "2020年12月31日");
  // Hour periods are today in the device's time zone, and a boundary itself is not later.
  using std::chrono::system_clock;
  ZConverTool tool;
  at(kNow, "Asia/Shanghai");  // 06:13 on the 15th there
  EXPECT_EQ(system_clock::to_time_t(tool.getCustomDateWithHour(8)), 1'700'006'400);
  EXPECT_TRUE(tool.isBetweenFromHour(6, 7) && tool.isBigToHour(6));
  EXPECT_FALSE(tool.isBetweenFromHour(7, 6) || tool.isBigToHour(7));
  at(1'699'999'200);  // 22:00:00 exactly
  EXPECT_FALSE(tool.isBigToHour(22) || tool.isBetweenFromHour(22, 23));
}

TEST(DateTexts, ChineseDatesBecomeDashedKeepingTheirDigitsAndSortNewestFirstBetweenUndated) {
  EXPECT_EQ(G::coverDateFromFormatter("2018年03月05日"), "2018-03-05");
  EXPECT_EQ(G::coverDateFromFormatter("2018-03-05"), std::nullopt);
  EXPECT_EQ(G::coverDateFamaterWithDateStr("2018年12月5日"), "2018-12-5");
  for (const char* text : {"2018-03-05", "18年3月"})  // without their marks
    EXPECT_THROW((void)G::coverDateFamaterWithDateStr(text), std::out_of_range) << text;
  // Sorting puts the newest first and never moves anything across an undated text.
  using Texts = std::vector<std::optional<std::string>>;
  // clang-format off
  EXPECT_EQ(G::sortWithTimeIntervalFromTimeStrs(Texts{"2023-01-01 00:00:00", "2023-06-01 00:00:00", std::nullopt,
                                                      "2000-01-01 00:00:00", "not a time", "2024-01-01 00:00:00"}),
            (Texts{"2023-06-01 00:00:00", "2023-01-01 00:00:00", std::nullopt,
                   "2000-01-01 00:00:00", "not a time", "2024-01-01 00:00:00"}));
  // clang-format on
}

TEST(MonthLengths, FollowTheGregorianLeapRule) {
  // clang-format off
  const std::tuple<std::int64_t, std::int64_t, std::int64_t> cases[] = {
      {2, 1900, 28}, {2, 2000, 29}, {2, 2023, 28}, {4, 2023, 30}, {-2, 2020, 31}};
  // clang-format on
  for (const auto& [month, year, days] : cases)
    EXPECT_EQ(G::getDaysWithSelectedMonth(month, year), days) << month << "/" << year;
}

TEST(Durations, AreWrittenInHoursAndMinutesTruncatedAndReadBeforeEachMark) {
  // clang-format off
  const std::pair<std::int64_t, const char*> cases[] = {
      {3599, "59分钟|00:59|0小时59分|0时59分"}, {3661, "1小时1分|01:01|1小时1分|1时1分"},
      {360000, "100小时0分|100:00|100小时0分|100时0分"}, {-120, "-2分钟|00:-2|0小时-2分|0时-2分"},
  };
  // clang-format on
  ZConverTool tool;
  for (const auto& [n, texts] : cases) {
    const auto s = static_cast<std::int32_t>(n);
    EXPECT_EQ(C::timeWithChargeDuration(s) + "|" + C::converWitnNum(s) + "|" + tool.convertTimeWhihNum(s) + "|" +
                  C::converHourAndMinuteWith(s), texts);
  }
  EXPECT_EQ(C::converHourAndMinuteWith(360'000'000'000), "100000000时0分");
  EXPECT_EQ(C::maptimeWithChargeDuration(-119), "-1");
  EXPECT_EQ(C::converHours(7325) * 100 + C::converMinute(7325), 202);
  // Reading takes the numbers before each mark; a text without its marks is a range error.
  // clang-format off
  const std::tuple<const char*, std::int64_t, std::int64_t, std::int64_t> readings[] = {
      {"2时30分", 9000, 2, 30}, {"时分", 0, 0, 0}, {"-1时30分", -1800, -1, 30},
      {"2小时30分钟", 9000, 2, 30}, {"3时x分", 10800, 3, 0}};  // text after digits is ignored
  // clang-format on
  for (const auto& [text, seconds, hours, minutes] : readings)
    EXPECT_EQ(std::tuple(C::converTimeWith(std::string(text)), C::subHourMinuteWithTimeStr(std::string(text), 0),
                         C::subHourMinuteWithTimeStr(std::string(text), 9)), std::tuple(seconds, hours, minutes)) << text;
  EXPECT_EQ(C::converTimeWith(std::nullopt) + C::subHourMinuteWithTimeStr(std::nullopt, 0), 0);
  for (const char* text : {"230分", "2时30", "2時30分"})
    EXPECT_THROW((void)C::converTimeWith(std::string(text)), std::out_of_range) << text;
}

TEST_F(DeviceClock, PostTimeIsWrittenInTheDevicesTimeZoneWithTheCalendarYear) {
  // clang-format off
  const std::tuple<const char*, std::int64_t, const char*> cases[] = {
      {"UTC", -1, "1969-12-31 23:59:59"}, {"Asia/Shanghai", -1, "1970-01-01 07:59:59"},
      {"UTC", 4'294'967'295, "2106-02-07 06:28:15"},  // largest unsigned 32-bit post clock
      {"UTC", 1'609'372'800, "2020-12-31 00:00:00"},  // the week-based year would say 2021
      {"America/New_York", 1'700'000'000, "2023-11-14 17:13:20"}, {"UTC", 0, "1970-01-01 00:00:00"}};
  // clang-format on
  for (const auto& [tz, seconds, text] : cases) {  // both post-time conversions follow one rule
    at(-1, tz);
    EXPECT_EQ(ZGeneralTool::coverToBleDatematterFromTimeInterval(seconds), text) << tz << seconds;
    EXPECT_EQ(ZConverTool::converFormatTimeWithTimeValue(seconds), text) << tz << seconds;
  }
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

TEST_F(DeviceClock, PostTimeIsTheTextOfICUsFormatterForEveryInstantAndZone) {
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
    at(-1, zone);
    ASSERT_TRUE(detail::postTimesFromZoneOffsets()) << zone;
    for (std::int64_t t : instantsOfTheDevicesZone(everyTransition)) {
      ASSERT_EQ(detail::formatPostTime(t), detail::formatPostTimeSlowly(t)) << zone << " " << t;
      ++compared;
    }
  }
  EXPECT_GT(compared, 30'000u);
}

TEST(PostTime, KeepsTheDevicesCalendarAndDigitsWhereTheyAreNotGregorianAndLatin) {
  UErrorCode status = U_ZERO_ERROR;
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
}

TEST_F(DeviceClock, CurrentTimeIntervalIsWholeSecondsRoundedToTheNearest) {
  for (const auto& [now, text] : {std::pair{1'700'000'000.6, "1700000001"}, std::pair{.4, "0"}}) {
    at(now);
    EXPECT_EQ(ZConverTool::getCurrentTimeInterval(), text);
  }
}

TEST(MoneyAndDistanceTexts, AreYuanWithTwoDecimalsAndMetresOrKilometres) {
  // The added distance is six times the kilometres, with one decimal, with or without "point".
  // clang-format off
  const std::pair<std::string, const char*> rows[] = {
      {G::coverToYuanFromeFen(5), "0.05元"}, {G::coverToYuanFromeFen(-5), "-0.05元"},
      {G::coverPackageToYuanFromeFen(100000), "1000.00元"}, {G::coverPackageToYuanFromeFen(-5), "-0.05元"},
      {C::converDistance(-0.001), "未知"}, {C::converDistance(999.6), "1000米"}, {C::converDistance(1000), "1000米"},
      {C::converDistance(1000.4), "1.0千米"}, {C::converDistance(12345), "12.3千米"},
      {C::addDistance(1234), "7.4"}, {C::addDistanceWithNoPoint(-1000), "-6.0"}};
  // clang-format on
  for (const auto& [got, want] : rows) EXPECT_EQ(got, want);
}

TEST(PhoneNumbers, MatchThePublishedPatternAsItStandsAndAreMaskedOverUtf16Units) {
  // The comma in "18[0,0-9]" is a member of the class; the leading digits are literal ASCII
  // while \d takes any decimal digit. The matcher reads its text in place: the last number's
  // copy (over 27 bytes) is on the heap, so a match on a freed copy is one AddressSanitizer
  // reports.
  for (const char* number : {"13812345678", "15912345678", "18,12345678", "138１２３４５６７８", "138𝟏𝟐𝟑𝟒𝟓𝟔𝟕𝟖"})
    EXPECT_TRUE(C::isPhoneNum(number)) << number;
  for (const char* number :
       {"15412345678", "15,12345678", "1381234567", "13812345678\n", "１３８１２３４５６７８"})
    EXPECT_FALSE(C::isPhoneNum(number)) << number;
  // The fourth to seventh UTF-16 units are masked; shorter numbers are range errors.
  EXPECT_EQ(C::coverPhoneNumber("1381234"), "138****");
  EXPECT_EQ(C::coverPhoneNumber("𠀀123456789"), "𠀀1****6789");  // "𠀀" takes two units
  for (const char* number : {"138123", "电话号码一二"})
    EXPECT_THROW((void)C::coverPhoneNumber(number), std::out_of_range) << number;
}

TEST(Dialling, HandsTheTelTextToTheHostOrOnlyLogsIt) {
  std::string opened;
  std::shared_ptr<View> presenter, screen = std::make_shared<View>();
  setDialHook([&](const std::string& url, const std::shared_ptr<View>& view) {
    std::tie(opened, presenter) = std::tie(url, view);
  });
  G::callPhoneWithPhoneNum("138 1234-5678", screen);
  setDialHook(nullptr);
  EXPECT_EQ(std::tie(opened, presenter), std::tie("tel:138 1234-5678", screen));
  test::LogCapture log;
  G::callPhoneWithPhoneNum("10086", nullptr);
  EXPECT_TRUE(log.lines.size() == 1 && log.lines[0].find("tel:10086") != std::string::npos);
}

TEST(TextMeasures, HeightIsTheHostsMeasureOrAWrappedEstimateAndPositionsCountUtf16Units) {
  const Dictionary font{{"NSFont", 10.0}};
  // clang-format off
  const std::tuple<const char*, double, double> estimates[] = {
      {"", 100, 0}, {"abcd", 100, 12}, {"一二三四五", 20, 36}, {"ab\ncd", 100, 24}};
  // clang-format on
  for (const auto& [text, width, height] : estimates)
    EXPECT_DOUBLE_EQ(G::targetStr(std::string(text), font, width), height) << text;
  EXPECT_EQ(G::targetStr(std::nullopt, {}, 100), 0);
  setTextMeasureHook([](const std::string& t, const Dictionary&, double w) { return w + t.size(); });
  EXPECT_EQ(G::targetStr(std::string("abc"), {}, 42), 45);
  // Positions count UTF-16 units; lists split at every ASCII comma.
  // clang-format off
  const std::tuple<const char*, const char*, std::int32_t> positions[] = {
      {"z", "a,b", 0}, {"月", "2018年3月5日", 6}, {"日", "𠀀日", 2},
      {"ab", "xab", 0}, {"", "abc", 0}};  // a longer needle never matches
  // clang-format on
  for (const auto& [needle, content, at] : positions)
    EXPECT_EQ(G::getLocationWithStr(needle, content), at) << content;
  using Texts = std::vector<std::string>;
  EXPECT_EQ(G::coverToStrFromArr({"", ""}), ",");
  EXPECT_EQ(G::coverToArrFromStr(",a,,"), (Texts{"", "a", "", ""}));
  EXPECT_EQ(G::coverToArrFromStr("一，二"), (Texts{"一，二"}));
}

TEST(Permissions, RefuseOnlyRestrictedAndDenied) {
  // clang-format off
  for (const auto& [status, usable] : {std::pair{1, false}, std::pair{2, false}, std::pair{3, true}, std::pair{-1, true}}) {
    // clang-format on
    setPhotoLibraryAuthorizationProvider([s = status] { return std::int64_t{s}; });
    setCameraAuthorizationProvider([s = status] { return std::int64_t{s}; });
    EXPECT_EQ(std::pair(G::isOpenLiberyAuthority(), G::isOpenCamaraAuthority()), std::pair(usable, usable));
  }
}

}  // namespace
}  // namespace tqble
