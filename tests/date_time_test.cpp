#include <gtest/gtest.h>

#include <cstdlib>
#include <stdexcept>

#include "platform/DateFormat.h"
#include "support/LogCapture.h"
#include "tqble/ZConverTool.h"
#include "tqble/ZGeneralTool.h"

namespace tqble {
namespace {

constexpr std::int64_t kNow = 1'700'000'000;            // 2023-11-14 22:13:20 UTC
constexpr std::int64_t kLastDayOf2020 = 1'609'372'800;  // already in week-year 2021
constexpr std::int64_t kHour = 3600;
constexpr std::int64_t kDay = 86400;
using G = ZGeneralTool;
using C = ZConverTool;

// Pins the wall clock and the device's time zone; both are restored after each test.
class DeviceClock : public testing::Test {
 protected:
  void TearDown() override { at(-1, "UTC"); }
  static void at(double seconds, const char* tz = "UTC") {
    ::setenv("TZ", tz, 1);
    detail::refreshTimeZone();
    detail::setNowSource(seconds < 0 ? std::function<double()>{} : [seconds] { return seconds; });
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
                  C::finishTimeStr(t) + "|" + C::startTimeWith(static_cast<std::int32_t>(t)),
              texts);
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
  test::LogCapture log;
  EXPECT_EQ(G::coverDateFamaterWithDateStr("2018年12月5日"), "2018-12-5");
  EXPECT_EQ(log.lines, std::vector<std::string>{"2018-12-5"});
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

TEST(MonthLengths, FollowTheGregorianLeapRuleAndLogTheMonthTwice) {
  // clang-format off
  const std::tuple<std::int64_t, std::int64_t, std::int64_t> cases[] = {
      {2, 1900, 28}, {2, 2000, 29}, {2, 2023, 28}, {4, 2023, 30}, {-2, 2020, 31}};
  // clang-format on
  test::LogCapture log;
  for (const auto& [month, year, days] : cases)
    EXPECT_EQ(G::getDaysWithSelectedMonth(month, year), days) << month << "/" << year;
  EXPECT_EQ(log.lines.back(), "所选择的年份: -2");  // the month again, not the year
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
    EXPECT_EQ(C::timeWithChargeDuration(s) + "|" + C::converWitnNum(s) + "|" +
                  tool.convertTimeWhihNum(s) + "|" + C::converHourAndMinuteWith(s),
              texts);
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
  for (const auto& [text, seconds, hours, minutes] : readings) {
    EXPECT_EQ(C::converTimeWith(std::string(text)), seconds) << text;
    EXPECT_EQ(C::subHourMinuteWithTimeStr(std::string(text), 0), hours) << text;
    EXPECT_EQ(C::subHourMinuteWithTimeStr(std::string(text), 9), minutes) << text;
  }
  EXPECT_EQ(C::converTimeWith(std::nullopt) + C::subHourMinuteWithTimeStr(std::nullopt, 0), 0);
  for (const char* text : {"230分", "2时30", "2時30分"})
    EXPECT_THROW((void)C::converTimeWith(std::string(text)), std::out_of_range) << text;
}

}  // namespace
}  // namespace tqble
