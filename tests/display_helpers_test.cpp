#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <tuple>

#include "support/LogCapture.h"
#include "tqble/ZConverTool.h"
#include "tqble/ZGeneralTool.h"
#include "tqble/platform/HostAdapters.h"

namespace tqble {
namespace {

using G = ZGeneralTool;
using C = ZConverTool;

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
  // while \d takes any decimal digit.
  for (const char* number : {"13812345678", "15912345678", "18,12345678", "138１２３４５６７８"})
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

// The matcher reads its text in place. A child run of this test overwrites freed memory
// (AddressSanitizer's free fill, glibc's perturb byte), so a match that read a freed copy
// of the text fails there. Texts over 27 bytes are copied to the heap: digits outside the
// basic plane make one here.
TEST(PhoneNumbers, AreMatchedOnATextThatOutlivesTheMatcher) {
  const char* numbers[] = {"138１２３４５６７８", "138𝟏𝟐𝟑𝟒𝟓𝟔𝟕𝟖"};
  if (std::getenv("TQBLE_FREED_MEMORY_FILLED")) {
    for (const char* number : numbers) EXPECT_TRUE(C::isPhoneNum(number)) << number;
    return;
  }
  const std::string child =
      "TQBLE_FREED_MEMORY_FILLED=1 ASAN_OPTIONS=free_fill_byte=65:max_free_fill_size=4096 "
      "MALLOC_PERTURB_=65 '" +
      std::filesystem::read_symlink("/proc/self/exe").string() +
      "' --gtest_filter=PhoneNumbers.AreMatchedOnATextThatOutlivesTheMatcher >/dev/null";
  EXPECT_EQ(std::system(child.c_str()), 0);
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
  setTextMeasureHook(
      [](const std::string& t, const Dictionary&, double w) { return w + t.size(); });
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
