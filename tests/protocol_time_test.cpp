#include <gtest/gtest.h>

#include <cstdlib>

#include "platform/DateFormat.h"
#include "tqble/ZConverTool.h"
#include "tqble/ZGeneralTool.h"

namespace tqble {
namespace {

// Both post-time conversions follow one rule; every case checks the two of them.
void expectPostTime(std::int64_t seconds, const std::string& text) {
  EXPECT_EQ(ZGeneralTool::coverToBleDatematterFromTimeInterval(seconds), text) << seconds;
  EXPECT_EQ(ZConverTool::converFormatTimeWithTimeValue(seconds), text) << seconds;
}

void useTimeZone(const char* tz) {
  ::setenv("TZ", tz, 1);
  detail::refreshTimeZone();
}

TEST(PostTime, IsWrittenInUtcOnADeviceSetToUtc) {
  useTimeZone("UTC");
  expectPostTime(0, "1970-01-01 00:00:00");
  expectPostTime(-1, "1969-12-31 23:59:59");
  expectPostTime(1'700'000'000, "2023-11-14 22:13:20");
  expectPostTime(4'294'967'295, "2106-02-07 06:28:15");  // largest unsigned 32-bit post clock
}

TEST(PostTime, FollowsTheDevicesTimeZone) {
  useTimeZone("Asia/Shanghai");
  expectPostTime(0, "1970-01-01 08:00:00");
  expectPostTime(-1, "1970-01-01 07:59:59");
  expectPostTime(1'700'000'000, "2023-11-15 06:13:20");
  useTimeZone("America/New_York");
  expectPostTime(1'700'000'000, "2023-11-14 17:13:20");
  useTimeZone("UTC");
}

TEST(PostTime, UsesTheCalendarYearAtTheTurnOfTheYear) {
  useTimeZone("UTC");
  expectPostTime(1'609'372'800, "2020-12-31 00:00:00");  // week-based year would say 2021
}

TEST(CurrentTimeInterval, IsWholeSecondsWithoutADecimalPoint) {
  const std::string text = ZConverTool::getCurrentTimeInterval();
  EXPECT_EQ(text.find('.'), std::string::npos);
  EXPECT_NEAR(std::stod(text), detail::nowSeconds(), 2.0);
}

TEST(CurrentTimeInterval, RoundsToTheNearestSecond) {
  detail::setNowSource([] { return 1'700'000'000.6; });
  EXPECT_EQ(ZConverTool::getCurrentTimeInterval(), "1700000001");
  detail::setNowSource([] { return 1'700'000'000.4; });
  EXPECT_EQ(ZConverTool::getCurrentTimeInterval(), "1700000000");
  detail::setNowSource(nullptr);
}

}  // namespace
}  // namespace tqble
