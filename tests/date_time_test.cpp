#include <gtest/gtest.h>

#include <cstdlib>
#include <stdexcept>

#include "platform/DateFormat.h"
#include "support/LogCapture.h"
#include "tqble/ZConverTool.h"
#include "tqble/ZGeneralTool.h"

namespace tqble {
namespace {

constexpr std::int64_t kNow = 1'700'000'000;  // 2023-11-14 22:13:20 UTC
constexpr std::int64_t kHour = 3600;
constexpr std::int64_t kDay = 86400;

void useTimeZone(const char* tz) {
  ::setenv("TZ", tz, 1);
  detail::refreshTimeZone();
}

// Pins the wall clock and the device's time zone for one test.
class DeviceClock : public testing::Test {
 protected:
  void TearDown() override {
    detail::setNowSource(nullptr);
    useTimeZone("UTC");
  }
  static void at(double seconds, const char* tz = "UTC") {
    useTimeZone(tz);
    detail::setNowSource([seconds] { return seconds; });
  }
};

struct DateTextCase {
  const char* tz;
  const char* day;          // coverToDatematterFromTimeInterval and converYearmonth
  const char* dayMinute;    // coverToDateMinitematterFromTimeInterval
  const char* monthDayTime; // timeStr
  const char* clock;        // finishTimeStr
  const char* monthDay;     // startTimeWith
};

TEST_F(DeviceClock, DateTextsUseTheExactPatternsInTheDevicesTimeZone) {
  const DateTextCase cases[] = {
      {"UTC", "2023-11-14", "2023-11-14 22:13", "11月14日 22:13", "22:13", "11月14日"},
      {"Asia/Shanghai", "2023-11-15", "2023-11-15 06:13", "11月15日 06:13", "06:13", "11月15日"},
  };
  for (const auto& c : cases) {
    useTimeZone(c.tz);
    EXPECT_EQ(ZGeneralTool::coverToDatematterFromTimeInterval(kNow), c.day) << c.tz;
    EXPECT_EQ(ZConverTool::converYearmonth(kNow), c.day) << c.tz;
    EXPECT_EQ(ZGeneralTool::coverToDateMinitematterFromTimeInterval(kNow), c.dayMinute) << c.tz;
    EXPECT_EQ(ZConverTool::timeStr(kNow + 0.9), c.monthDayTime) << c.tz;
    EXPECT_EQ(ZConverTool::finishTimeStr(kNow), c.clock) << c.tz;
    EXPECT_EQ(ZConverTool::startTimeWith(static_cast<std::int32_t>(kNow)), c.monthDay) << c.tz;
  }
}

TEST_F(DeviceClock, DayTextsUseTheCalendarYearAtTheTurnOfTheYear) {
  at(0);
  const std::int64_t lastDayOf2020 = 1'609'372'800;
  EXPECT_EQ(ZGeneralTool::coverToDatematterFromTimeInterval(lastDayOf2020), "2020-12-31");
  EXPECT_EQ(ZConverTool::converYearmonth(lastDayOf2020), "2020-12-31");
}

struct RelativeCase {
  std::int64_t offset;  // date minus now, in seconds
  const char* tz;
  const char* label;
};

TEST_F(DeviceClock, RelativeLabelsFollowTheOneDayRuleAndTheCalendarDay) {
  const RelativeCase cases[] = {
      {-kHour, "UTC", "今天"},
      {-23 * kHour, "UTC", "昨天"},           // previous calendar day, within a day
      {-kDay, "UTC", "昨天"},                 // exactly one day still counts as within
      {20 * kHour, "UTC", "昨天"},            // the future on another day reads "yesterday"
      {kHour, "UTC", "今天"},
      {-30 * kHour, "UTC", "11月13日"},       // older than a day, same year
      {-365 * kDay, "UTC", "2022年11月14日"},
      // 22:13 UTC is 06:13 the next morning in Shanghai, so seven hours back is yesterday.
      {-7 * kHour, "UTC", "今天"},
      {-7 * kHour, "Asia/Shanghai", "昨天"},
  };
  for (const auto& c : cases) {
    at(kNow, c.tz);
    EXPECT_EQ(ZConverTool::formateDateWith(static_cast<std::int32_t>(kNow + c.offset)), c.label)
        << c.offset << " " << c.tz;
  }
}

TEST_F(DeviceClock, OlderDatesCompareCalendarYearsNotWeekYears) {
  // 2021-01-02 12:00 UTC; 2020-12-31 lies in week-year 2021 but calendar year 2020.
  at(1'609'588'800);
  EXPECT_EQ(ZConverTool::formateDateWith(1'609'372'800), "2020年12月31日");
  EXPECT_EQ(ZConverTool::formateDateWith(1'609'459'200), "01月01日");
}

TEST_F(DeviceClock, CurrentDateComponentsComeFromTheCalendar) {
  at(1'609'416'000);  // 2020-12-31 12:00 UTC, already week 1 of the next week-year
  EXPECT_EQ(ZGeneralTool::getCurrentDateWithType(0), 12);
  EXPECT_EQ(ZGeneralTool::getCurrentDateWithType(1), 31);
  EXPECT_EQ(ZGeneralTool::getCurrentDateWithType(2), 1);
  EXPECT_EQ(ZGeneralTool::getCurrentDateWithType(3), 12);
  EXPECT_EQ(ZGeneralTool::getCurrentDateWithType(4), 2020);
  EXPECT_EQ(ZGeneralTool::getCurrentDateWithType(5), 0);
  EXPECT_EQ(ZGeneralTool::getCurrentDateWithType(-1), 0);
  EXPECT_EQ(ZGeneralTool::getCurrentDate(), "2020年12月31日");
  at(1'609'416'000, "Asia/Shanghai");  // 20:00 there
  EXPECT_EQ(ZGeneralTool::getCurrentDateWithType(0), 20);
}

TEST_F(DeviceClock, HourPeriodsAreTodayInTheDevicesTimeZone) {
  using std::chrono::system_clock;
  ZConverTool tool;
  at(kNow);
  EXPECT_EQ(system_clock::to_time_t(tool.getCustomDateWithHour(8)), 1'699'948'800);
  EXPECT_EQ(system_clock::to_time_t(tool.getCustomDateWithHour(24)), 1'700'006'400);
  EXPECT_TRUE(tool.isBetweenFromHour(22, 23));
  EXPECT_FALSE(tool.isBetweenFromHour(21, 22));
  EXPECT_FALSE(tool.isBetweenFromHour(23, 22));
  EXPECT_TRUE(tool.isBigToHour(22));
  EXPECT_FALSE(tool.isBigToHour(23));
  at(kNow, "Asia/Shanghai");  // 06:13 on the 15th there
  EXPECT_EQ(system_clock::to_time_t(tool.getCustomDateWithHour(8)), 1'700'006'400);
  EXPECT_TRUE(tool.isBetweenFromHour(6, 7));
  EXPECT_FALSE(tool.isBigToHour(7));
}

TEST_F(DeviceClock, AnHourBoundaryItselfIsNotLater) {
  ZConverTool tool;
  at(1'699'999'200);  // 22:00:00 exactly
  EXPECT_FALSE(tool.isBigToHour(22));
  EXPECT_FALSE(tool.isBetweenFromHour(22, 23));
}

TEST_F(DeviceClock, TimestampsParseWithTheDevicesTimeZone) {
  at(0);
  EXPECT_EQ(ZGeneralTool::cTimestampFromString("2023-11-14 22:13:20"), "1700000000");
  EXPECT_EQ(ZGeneralTool::cTimestampFromString("1969-12-31 23:59:59"), "-1");
  EXPECT_EQ(ZGeneralTool::cTimestampFromString("2023-11-14"), "0");
  EXPECT_EQ(ZGeneralTool::cTimestampFromString(""), "0");
  // The week-based year letters take the written year as it stands on this calendar.
  EXPECT_EQ(ZGeneralTool::cTimestampFromString("2020-12-31 00:00:00"), "1609372800");
  useTimeZone("Asia/Shanghai");
  EXPECT_EQ(ZGeneralTool::cTimestampFromString("2023-11-15 06:13:20"), "1700000000");
}

TEST(DateTexts, ChineseDatesConvertToDashedDates) {
  EXPECT_EQ(ZGeneralTool::coverDateFromFormatter("2018年03月05日"), "2018-03-05");
  EXPECT_EQ(ZGeneralTool::coverDateFromFormatter("2018-03-05"), std::nullopt);
  EXPECT_EQ(ZGeneralTool::coverDateFromFormatter(""), std::nullopt);
}

TEST(DateTexts, ChineseDatesKeepTheirDigitsWhenRewritten) {
  const std::pair<const char*, const char*> cases[] = {
      {"2018年3月5日", "2018-3-5"},
      {"2018年03月05日", "2018-03-05"},
      {"2018年12月5日", "2018-12-5"},
      {"2018年3月15日", "2018-3-15"},
  };
  for (const auto& [text, expected] : cases) {
    test::LogCapture log;
    EXPECT_EQ(ZGeneralTool::coverDateFamaterWithDateStr(text), expected);
    EXPECT_EQ(log.lines, std::vector<std::string>{expected});
  }
}

TEST(DateTexts, ChineseDatesWithoutTheirMarksAreRangeErrors) {
  EXPECT_THROW(ZGeneralTool::coverDateFamaterWithDateStr("2018-03-05"), std::out_of_range);
  EXPECT_THROW(ZGeneralTool::coverDateFamaterWithDateStr("18年3月"), std::out_of_range);
}

TEST(TimeSorting, PutsNewestFirstAndNeverMovesAnythingAcrossAnUndatedText) {
  const std::vector<std::optional<std::string>> texts = {
      "2023-01-01 00:00:00", "2023-06-01 00:00:00", std::nullopt,
      "2022-01-01 00:00:00", "2024-01-01 00:00:00", "not a time",
      "2000-01-01 00:00:00", "2001-01-01 00:00:00", "2001-01-01 00:00:00",
  };
  const std::vector<std::optional<std::string>> sorted = {
      "2023-06-01 00:00:00", "2023-01-01 00:00:00", std::nullopt,
      "2024-01-01 00:00:00", "2022-01-01 00:00:00", "not a time",
      "2001-01-01 00:00:00", "2001-01-01 00:00:00", "2000-01-01 00:00:00",
  };
  EXPECT_EQ(ZGeneralTool::sortWithTimeIntervalFromTimeStrs(texts), sorted);
  EXPECT_TRUE(ZGeneralTool::sortWithTimeIntervalFromTimeStrs({}).empty());
}

TEST(MonthLengths, FollowTheGregorianLeapRuleAndLogTheMonthTwice) {
  struct Case {
    std::int64_t month, year, days;
  };
  const Case cases[] = {
      {1, 2023, 31}, {2, 1900, 28}, {2, 2000, 29}, {2, 2024, 29}, {2, 2023, 28},
      {4, 2023, 30}, {6, 2023, 30}, {9, 2023, 30}, {11, 2023, 30}, {12, 2023, 31},
      {13, 2020, 31}, {0, 2020, 31}, {-2, 2020, 31},
  };
  for (const auto& c : cases) {
    test::LogCapture log;
    EXPECT_EQ(ZGeneralTool::getDaysWithSelectedMonth(c.month, c.year), c.days)
        << c.month << "/" << c.year;
    const std::string month = std::to_string(c.month);
    EXPECT_EQ(log.lines, (std::vector<std::string>{"所选择的月份: " + month,
                                                   "所选择的年份: " + month}));
  }
}

TEST(DurationTexts, AreWrittenInHoursAndMinutesTruncated) {
  struct Case {
    std::int32_t seconds;
    const char* charge;   // timeWithChargeDuration
    const char* clock;    // converWitnNum
    const char* spelled;  // convertTimeWhihNum
    const char* short_;   // converHourAndMinuteWith
  };
  const Case cases[] = {
      {0, "0分钟", "00:00", "0小时0分", "0时0分"},
      {59, "0分钟", "00:00", "0小时0分", "0时0分"},
      {3599, "59分钟", "00:59", "0小时59分", "0时59分"},
      {3600, "1小时0分", "01:00", "1小时0分", "1时0分"},
      {3661, "1小时1分", "01:01", "1小时1分", "1时1分"},
      {5400, "1小时30分", "01:30", "1小时30分", "1时30分"},
      {90061, "25小时1分", "25:01", "25小时1分", "25时1分"},
      {360000, "100小时0分", "100:00", "100小时0分", "100时0分"},
      {-120, "-2分钟", "00:-2", "0小时-2分", "0时-2分"},
  };
  ZConverTool tool;
  for (const auto& c : cases) {
    EXPECT_EQ(ZConverTool::timeWithChargeDuration(c.seconds), c.charge) << c.seconds;
    EXPECT_EQ(ZConverTool::converWitnNum(c.seconds), c.clock) << c.seconds;
    EXPECT_EQ(tool.convertTimeWhihNum(c.seconds), c.spelled) << c.seconds;
    EXPECT_EQ(ZConverTool::converHourAndMinuteWith(c.seconds), c.short_) << c.seconds;
  }
  EXPECT_EQ(ZConverTool::converHourAndMinuteWith(360'000'000'000), "100000000时0分");
  EXPECT_EQ(ZConverTool::maptimeWithChargeDuration(119), "1");
  EXPECT_EQ(ZConverTool::maptimeWithChargeDuration(-119), "-1");
  EXPECT_EQ(ZConverTool::converHours(7325), 2);
  EXPECT_EQ(ZConverTool::converMinute(7325), 2);
}

TEST(HourMinuteTexts, ReadTheNumbersBeforeEachMark) {
  struct Case {
    const char* text;
    std::int64_t seconds, hours, minutes;
  };
  const Case cases[] = {
      {"2时30分", 9000, 2, 30},
      {"0时5分", 300, 0, 5},
      {" 12时 05分", 43500, 12, 5},
      {"时分", 0, 0, 0},
      {"-1时30分", -1800, -1, 30},
      {"2小时30分钟", 9000, 2, 30},  // text after the digits is ignored
      {"3时x分", 10800, 3, 0},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ZConverTool::converTimeWith(std::string(c.text)), c.seconds) << c.text;
    EXPECT_EQ(ZConverTool::subHourMinuteWithTimeStr(std::string(c.text), 0), c.hours) << c.text;
    EXPECT_EQ(ZConverTool::subHourMinuteWithTimeStr(std::string(c.text), 1), c.minutes) << c.text;
    EXPECT_EQ(ZConverTool::subHourMinuteWithTimeStr(std::string(c.text), 9), c.minutes) << c.text;
  }
}

TEST(HourMinuteTexts, GiveZeroForTheNullObject) {
  EXPECT_EQ(ZConverTool::converTimeWith(std::nullopt), 0);
  EXPECT_EQ(ZConverTool::subHourMinuteWithTimeStr(std::nullopt, 0), 0);
}

TEST(HourMinuteTexts, WithoutEitherMarkAreRangeErrors) {
  for (const char* text : {"", "2:30", "230分", "2时30", "2時30分"}) {
    EXPECT_THROW(ZConverTool::converTimeWith(std::string(text)), std::out_of_range) << text;
    EXPECT_THROW(ZConverTool::subHourMinuteWithTimeStr(std::string(text), 1), std::out_of_range)
        << text;
  }
}

}  // namespace
}  // namespace tqble
