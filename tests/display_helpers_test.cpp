#include <gtest/gtest.h>

#include <stdexcept>

#include "support/LogCapture.h"
#include "tqble/ZConverTool.h"
#include "tqble/ZGeneralTool.h"
#include "tqble/platform/HostAdapters.h"

namespace tqble {
namespace {

TEST(MoneyTexts, AreYuanWithTwoDecimals) {
  const std::pair<std::int64_t, const char*> cases[] = {
      {0, "0.00元"}, {5, "0.05元"}, {1234, "12.34元"}, {-5, "-0.05元"}, {100000, "1000.00元"},
  };
  for (const auto& [fen, text] : cases) {
    EXPECT_EQ(ZGeneralTool::coverToYuanFromeFen(fen), text) << fen;
    EXPECT_EQ(ZGeneralTool::coverPackageToYuanFromeFen(fen), text) << fen;
  }
}

TEST(DistanceTexts, SwitchToKilometresAboveOneThousandMetres) {
  const std::pair<double, const char*> cases[] = {
      {-1, "未知"},      {-0.001, "未知"},     {0, "0米"},          {999.4, "999米"},
      {999.6, "1000米"}, {1000, "1000米"},     {1000.4, "1.0千米"}, {1500, "1.5千米"},
      {12345, "12.3千米"},
  };
  for (const auto& [metres, text] : cases) EXPECT_EQ(ZConverTool::converDistance(metres), text);
}

TEST(DistanceTexts, AddDistanceIsSixTimesTheKilometresWithOneDecimal) {
  const std::pair<double, const char*> cases[] = {
      {2500, "15.0"}, {0, "0.0"}, {1234, "7.4"}, {-1000, "-6.0"},
  };
  for (const auto& [metres, text] : cases) {
    EXPECT_EQ(ZConverTool::addDistance(metres), text) << metres;
    EXPECT_EQ(ZConverTool::addDistanceWithNoPoint(metres), text) << metres;
  }
}

TEST(PhoneNumbers, MatchThePublishedPatternAsItStands) {
  const std::pair<const char*, bool> cases[] = {
      {"13812345678", true},   {"19912345678", true},  {"11012345678", true},
      {"15012345678", true},   {"15912345678", true},  {"18012345678", true},
      {"18,12345678", true},   // the comma in "18[0,0-9]" is a member of the class
      {"15412345678", false},  {"15,12345678", false}, {"10012345678", false},
      {"1381234567", false},   {"138123456789", false}, {"", false},
      {" 13812345678", false}, {"13812345678\n", false}, {"1381234567a", false},
      {"１３８１２３４５６７８", false},  // the leading digits are literal ASCII
      {"138１２３４５６７８", true},     // while \d takes any decimal digit
  };
  for (const auto& [number, accepted] : cases) {
    EXPECT_EQ(ZConverTool::isPhoneNum(number), accepted) << number;
  }
}

TEST(PhoneNumbers, AreMaskedFromTheFourthToTheSeventhCharacter) {
  EXPECT_EQ(ZConverTool::coverPhoneNumber("13812345678"), "138****5678");
  EXPECT_EQ(ZConverTool::coverPhoneNumber("1381234"), "138****");
  // Positions count UTF-16 units: "𠀀" takes two.
  EXPECT_EQ(ZConverTool::coverPhoneNumber("电话号码一二三四五"), "电话号****四五");
  EXPECT_EQ(ZConverTool::coverPhoneNumber("𠀀123456789"), "𠀀1****6789");
}

TEST(PhoneNumbers, ShorterThanSevenCharactersAreRangeErrors) {
  for (const char* number : {"", "13", "138123", "电话号码一二"}) {
    EXPECT_THROW(ZConverTool::coverPhoneNumber(number), std::out_of_range) << number;
  }
}

TEST(Dialling, HandsTheTelTextToTheHostUnchanged) {
  std::string opened;
  std::shared_ptr<View> presenter;
  setDialHook([&](const std::string& url, const std::shared_ptr<View>& view) {
    opened = url;
    presenter = view;
  });
  auto screen = std::make_shared<View>();
  ZGeneralTool::callPhoneWithPhoneNum("138 1234-5678", screen);
  setDialHook(nullptr);
  EXPECT_EQ(opened, "tel:138 1234-5678");
  EXPECT_EQ(presenter, screen);
}

TEST(Dialling, WithoutAHostDiallerOnlyLogsTheText) {
  test::LogCapture log;
  ZGeneralTool::callPhoneWithPhoneNum("10086", nullptr);
  ASSERT_EQ(log.lines.size(), 1u);
  EXPECT_NE(log.lines[0].find("tel:10086"), std::string::npos);
}

TEST(SeparatorLines, AreLightGreyViewsAddedToTheirParent) {
  auto parent = std::make_shared<View>();
  const auto line = ZGeneralTool::addLineInView(parent, {1, 2, 300, 5});
  const auto thin = ZGeneralTool::creatSeparateLineWithRect({3, 4, 200, 9}, parent);
  ASSERT_EQ(parent->subviews.size(), 2u);
  EXPECT_EQ(parent->subviews[0], line);
  EXPECT_EQ(parent->subviews[1], thin);
  EXPECT_EQ(line->frame.height, 5);
  EXPECT_EQ(thin->frame.x, 3);
  EXPECT_EQ(thin->frame.y, 4);
  EXPECT_EQ(thin->frame.width, 200);
  EXPECT_EQ(thin->frame.height, 0.8);
  for (const auto& view : {line, thin}) {
    EXPECT_DOUBLE_EQ(view->backgroundColor.red, 240.0 / 255.0);
    EXPECT_DOUBLE_EQ(view->backgroundColor.green, 240.0 / 255.0);
    EXPECT_DOUBLE_EQ(view->backgroundColor.blue, 240.0 / 255.0);
    EXPECT_EQ(view->backgroundColor.alpha, 1.0);
    EXPECT_TRUE(view->subviews.empty());
  }
  EXPECT_EQ(ZGeneralTool::addLineInView(nullptr, {})->frame.height, 0);
}

TEST(TextHeight, IsZeroForNoTextAndOtherwiseTheHostsMeasure) {
  EXPECT_EQ(ZGeneralTool::targetStr(std::nullopt, {}, 100), 0);
  double seenWidth = 0;
  setTextMeasureHook([&](const std::string& text, const Dictionary&, double width) {
    seenWidth = width;
    return 10.5 * static_cast<double>(text.size());
  });
  EXPECT_EQ(ZGeneralTool::targetStr(std::string("abc"), {}, 42), 31.5);
  EXPECT_EQ(seenWidth, 42);
  setTextMeasureHook(nullptr);
}

TEST(TextHeight, DefaultEstimateWrapsAtTheWidth) {
  const Dictionary font{{"NSFont", 10.0}};
  EXPECT_EQ(ZGeneralTool::targetStr(std::string(""), font, 100), 0);
  EXPECT_DOUBLE_EQ(ZGeneralTool::targetStr(std::string("abcd"), font, 100), 12);
  EXPECT_DOUBLE_EQ(ZGeneralTool::targetStr(std::string("一二三四五"), font, 20), 36);
  EXPECT_DOUBLE_EQ(ZGeneralTool::targetStr(std::string("ab\ncd"), font, 100), 24);
  EXPECT_DOUBLE_EQ(ZGeneralTool::targetStr(std::string("x"), {}, 100), 17 * 1.2);
}

TEST(TextPositions, CountUtf16UnitsAndReadZeroWhenAbsent) {
  struct Case {
    const char* needle;
    const char* content;
    std::int32_t at;
  };
  const Case cases[] = {
      {",", "a,b", 1},  {"z", "a,b", 0},          {"a", "a,b", 0},
      {"月", "2018年3月5日", 6}, {"日", "𠀀日", 2},  // the supplementary character is two units
      {"ab", "xab", 0},  // a longer needle never matches
      {"", "abc", 0},   {"a", "", 0},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ZGeneralTool::getLocationWithStr(c.needle, c.content), c.at) << c.content;
  }
}

TEST(TextLists, JoinAndSplitAtEveryComma) {
  EXPECT_EQ(ZGeneralTool::coverToStrFromArr({"a", "b", "c"}), "a,b,c");
  EXPECT_EQ(ZGeneralTool::coverToStrFromArr({}), "");
  EXPECT_EQ(ZGeneralTool::coverToStrFromArr({"", ""}), ",");
  using Texts = std::vector<std::string>;
  EXPECT_EQ(ZGeneralTool::coverToArrFromStr("a,b,c"), (Texts{"a", "b", "c"}));
  EXPECT_EQ(ZGeneralTool::coverToArrFromStr(""), (Texts{""}));
  EXPECT_EQ(ZGeneralTool::coverToArrFromStr(",a,,"), (Texts{"", "a", "", ""}));
  EXPECT_EQ(ZGeneralTool::coverToArrFromStr("一，二"), (Texts{"一，二"}));  // full-width comma
}

TEST(Permissions, RefuseOnlyRestrictedAndDenied) {
  EXPECT_TRUE(ZGeneralTool::isOpenLiberyAuthority());  // a host without permissions: 0
  EXPECT_TRUE(ZGeneralTool::isOpenCamaraAuthority());
  const std::pair<std::int64_t, bool> cases[] = {{0, true}, {1, false}, {2, false},
                                                 {3, true}, {4, true},  {-1, true}};
  for (const auto& [status, usable] : cases) {
    setPhotoLibraryAuthorizationProvider([status = status] { return status; });
    setCameraAuthorizationProvider([status = status] { return status; });
    EXPECT_EQ(ZGeneralTool::isOpenLiberyAuthority(), usable) << status;
    EXPECT_EQ(ZGeneralTool::isOpenCamaraAuthority(), usable) << status;
  }
  setPhotoLibraryAuthorizationProvider(nullptr);
  setCameraAuthorizationProvider([] { return std::int64_t{2}; });
  EXPECT_TRUE(ZGeneralTool::isOpenLiberyAuthority());
  EXPECT_FALSE(ZGeneralTool::isOpenCamaraAuthority());
  setCameraAuthorizationProvider(nullptr);
}

}  // namespace
}  // namespace tqble
