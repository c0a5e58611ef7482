#include <gtest/gtest.h>

#include <stdexcept>

#include "support/FakeBle.h"
#include "support/Hex.h"
#include "support/LogCapture.h"
#include "tqble/AnswerDecoding.h"

namespace tqble {
namespace {

using test::hex;

constexpr char kHeader[] = "68 b5 00 00 12 00 00 00 | ";

// Energy, voltage, current and duration.
std::array<std::uint64_t, 4> numbersOf(const TQBleChargingData& d) {
  return {d.elecQuantity, d.voltage, d.electric, d.duration};
}

TEST(StateAnswer, ReadsLittleEndianFieldsAtFullWidthAndSignExtendsOnlyTheDuration) {
  // gun | serial | energy | voltage | current | duration, then one unread byte
  // clang-format off
  const std::tuple<const char*, const char*, const char*, std::array<std::uint64_t, 4>> cases[] = {
      {"06 | 01 02 03 04 | e8 03 | 5c 08 00 00 | 10 00 | 3c 00 00 00",
       "正在充电中",
       "1234",
       {1000, 2140, 16, 60}},
      {"01 | 00 00 00 00 | ff ff | ff ff ff ff | ff ff | ff ff ff ff",
       "未知",
       "0000",
       {0xffff, 0xffffffff, 0xffff, UINT64_MAX}},
      {"06 | 00 00 00 00 | 00 00 | 00 00 00 00 | 00 00 | ff ff ff 7f",
       "正在充电中",
       "0000",
       {0, 0, 0, 2147483647}},
  };
  // clang-format on
  for (const auto& [body, gun, serial, numbers] : cases) {
    const auto data = decode::chargerState(hex(std::string(kHeader) + body + " | 00"));
    EXPECT_EQ(data.gunStatus, gun) << body;
    EXPECT_EQ(data.serialNumber, serial) << body;
    EXPECT_EQ(numbersOf(data), numbers) << body;
    EXPECT_EQ(data.failureReason, std::nullopt) << body;
  }
}

TEST(StateAnswer, ReadsTheFaultCodeOfTheShortAnswerAsBigEndianText) {
  // clang-format off
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"06 00 04 00", "过流", "正在充电中"}, {"06 00 08 00", "过压", "正在充电中"}, {"00 00 10 00", "欠压", "未知"},
      {"00 01 00 00", "急停按下", "未知"}, {"00 00 0c 00", "暂未定义错误类型", "未知"},
      {"00 04 00 00", "暂未定义错误类型", "未知"},
      {"00 00 00 00", "暂未定义错误类型", "未知"}};
  // clang-format on
  for (const auto& [body, reason, gun] : cases) {
    const auto data = decode::chargerState(hex(std::string("68 b5 00 00 04 00 00 00 ") + body));
    EXPECT_EQ(data.failureReason, reason) << body;
    EXPECT_EQ(data.gunStatus, gun) << body;
    EXPECT_EQ(data.serialNumber, std::nullopt) << body;
  }
}

TEST(StateAnswer, SetsNoFieldForAnyOtherLength) {
  for (std::size_t size : {0u, 8u, 11u, 13u, 25u, 27u}) {
    const auto data = decode::chargerState(Bytes(size, 0x06));
    EXPECT_TRUE(!data.gunStatus && !data.failureReason && data.elecQuantity == 0) << size;
  }
}

TEST(LiveChargingData, ReadsBigEndianFieldsCutToSigned32BitsAndLogsTheWholeAnswer) {
  test::LogCapture log;
  const auto data = decode::chargingData(
      hex("68 b5 00 00 18 00 00 00 | 11 11 11 11 | 22 22 22 22 | 01 00 0c 22 | 03 e8 | 80 00 00 00"
          " | 00 10 | ff ff ff ff"));
  EXPECT_EQ(data.serialNumber, "101234");
  EXPECT_EQ(numbersOf(data),
            (std::array<std::uint64_t, 4>{1000, 0xffffffff80000000u, 16, UINT64_MAX}));
  EXPECT_EQ(data.gunStatus, std::nullopt);
  EXPECT_EQ(log.lines,
            std::vector<std::string>{"解析的充电中的数据 68b50000180000001111111122222222"
                                     "01000c2203e8800000000010ffffffff    ++  64"});
  EXPECT_THROW(decode::chargingData(Bytes(31, 0)), std::out_of_range);
}

TEST(StateDecoder, StoresARecordEvenForAWrongLengthButNoneForShortLiveData) {
  test::FakeStack stack;
  auto& m = *stack.manager;
  EXPECT_THROW(m.analysisQueryChargingData(Bytes(20, 0)), std::out_of_range);
  EXPECT_EQ(m.dataModel()->chargingData, nullptr);
  m.analysisQueryState(Bytes(20, 0x06));
  ASSERT_NE(m.dataModel()->chargingData, nullptr);
  EXPECT_EQ(m.dataModel()->chargingData->gunStatus, std::nullopt);
  EXPECT_EQ(m.dataModel()->result, nullptr);
}

TEST(ByteOrderReversal, SwapsWholePairsAndDropsAnOddTail) {
  test::FakeStack stack;
  // clang-format off
  const std::pair<const char*, const char*> cases[] = {
      {"", ""}, {"a", "a"}, {"abc", "ab"}, {"abcde", "cdab"}, {"0a0b0c0d", "0d0c0b0a"}};
  // clang-format on
  for (const auto& [in, out] : cases) {
    EXPECT_EQ(stack.manager->coverHeightToLowWithHexStr(in), out) << in;
  }
}

}  // namespace
}  // namespace tqble
