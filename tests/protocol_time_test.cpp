#include <gtest/gtest.h>

#include <cstdlib>
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

TEST(CurrentTimeInterval, IsWholeSecondsRoundedToTheNearest) {
  for (const auto& [now, text] : {std::pair{1'700'000'000.6, "1700000001"}, std::pair{.4, "0"}}) {
    detail::setNowSource([now = now] { return now; });
    EXPECT_EQ(ZConverTool::getCurrentTimeInterval(), text);
  }
  detail::setNowSource(nullptr);
}

}  // namespace
}  // namespace tqble
