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

TEST(StateAnswer, ReadsLittleEndianFieldsOfTheFullAnswer) {
  const auto data = decode::chargerState(hex(
      std::string(kHeader) + "06 | 01 02 03 04 | e8 03 | 5c 08 00 00 | 10 00 | 3c 00 00 00 | 00"));
  EXPECT_EQ(data.gunStatus, "正在充电中");
  EXPECT_EQ(data.serialNumber, "1234");
  EXPECT_EQ(data.elecQuantity, 1000u);
  EXPECT_EQ(data.voltage, 2140u);
  EXPECT_EQ(data.electric, 16u);
  EXPECT_EQ(data.duration, 60u);
  EXPECT_EQ(data.failureReason, std::nullopt);
}

TEST(StateAnswer, KeepsEnergyVoltageAndCurrentAtFullWidthButSignExtendsTheDuration) {
  const auto data = decode::chargerState(hex(
      std::string(kHeader) + "01 | 00 00 00 00 | ff ff | ff ff ff ff | ff ff | ff ff ff ff | 00"));
  EXPECT_EQ(data.gunStatus, "未知");
  EXPECT_EQ(data.serialNumber, "0000");
  EXPECT_EQ(data.elecQuantity, 0xffffu);
  EXPECT_EQ(data.voltage, 0xffffffffu);
  EXPECT_EQ(data.electric, 0xffffu);
  EXPECT_EQ(data.duration, UINT64_MAX);
  const auto max = decode::chargerState(hex(
      std::string(kHeader) + "06 | 00 00 00 00 | 00 00 | 00 00 00 00 | 00 00 | ff ff ff 7f | 00"));
  EXPECT_EQ(max.duration, 2147483647u);
}

TEST(StateAnswer, ReadsTheFaultCodeOfTheShortAnswerAsBigEndianText) {
  const std::pair<const char*, const char*> cases[] = {{"06 00 04 00", "过流"},
                                                       {"06 00 08 00", "过压"},
                                                       {"00 00 10 00", "欠压"},
                                                       {"00 01 00 00", "急停按下"},
                                                       {"00 00 0c 00", "暂未定义错误类型"},
                                                       {"00 04 00 00", "暂未定义错误类型"},
                                                       {"00 00 00 00", "暂未定义错误类型"}};
  for (const auto& [body, reason] : cases) {
    const auto data = decode::chargerState(hex(std::string("68 b5 00 00 04 00 00 00 ") + body));
    EXPECT_EQ(data.failureReason, reason) << body;
    EXPECT_EQ(data.gunStatus, body[1] == '6' ? "正在充电中" : "未知") << body;
    EXPECT_EQ(data.serialNumber, std::nullopt);
    EXPECT_EQ(data.duration, 0u);
  }
}

TEST(StateAnswer, SetsNoFieldForAnyOtherLength) {
  for (std::size_t size : {0u, 8u, 11u, 13u, 20u, 25u, 27u}) {
    const auto data = decode::chargerState(Bytes(size, 0x06));
    EXPECT_EQ(data.gunStatus, std::nullopt) << size;
    EXPECT_EQ(data.failureReason, std::nullopt) << size;
    EXPECT_EQ(data.elecQuantity, 0u) << size;
  }
}

TEST(LiveChargingData, ReadsBigEndianFieldsCutToSigned32Bits) {
  test::LogCapture log;
  const Bytes frame =
      hex("68 b5 00 00 18 00 00 00 | 11 11 11 11 | 22 22 22 22 | 01 00 0c 22 | 03 e8 | 00 00 08 5c"
          " | 00 10 | ff ff ff ff");
  const auto data = decode::chargingData(frame);
  EXPECT_EQ(data.serialNumber, "101234");
  EXPECT_EQ(data.elecQuantity, 1000u) << "the state answer reads the same bytes as 59395";
  EXPECT_EQ(data.voltage, 2140u);
  EXPECT_EQ(data.electric, 16u);
  EXPECT_EQ(data.duration, UINT64_MAX);
  EXPECT_EQ(data.gunStatus, std::nullopt);
  const std::string text =
      "68b50000180000001111111122222222"
      "01000c2203e80000085c0010ffffffff";
  EXPECT_EQ(log.lines, std::vector<std::string>{"解析的充电中的数据 " + text + "    ++  64"});
}

TEST(LiveChargingData, SignExtendsA32BitVoltageAndRejectsAShortAnswer) {
  Bytes frame(32, 0);
  frame[22] = 0x80;
  EXPECT_EQ(decode::chargingData(frame).voltage, 0xffffffff80000000u);
  EXPECT_THROW(decode::chargingData(Bytes(31, 0)), std::out_of_range);
}

TEST(StateDecoder, StoresTheRecordEvenWhenTheLengthIsWrong) {
  test::FakeStack stack;
  auto& m = *stack.manager;
  m.analysisQueryState(
      hex(std::string(kHeader) + "06 01 02 03 04 e8 03 5c 08 00 00 10 00 3c 00 00 00 00"));
  ASSERT_NE(m.dataModel()->chargingData, nullptr);
  EXPECT_EQ(m.dataModel()->chargingData->elecQuantity, 1000u);
  m.analysisQueryState(Bytes(20, 0x06));
  ASSERT_NE(m.dataModel()->chargingData, nullptr);
  EXPECT_EQ(m.dataModel()->chargingData->gunStatus, std::nullopt);
  EXPECT_EQ(m.dataModel()->result, nullptr);

  m.analysisQueryChargingData(Bytes(32, 0));
  EXPECT_EQ(m.dataModel()->chargingData->serialNumber, "0000");
}

TEST(StateDecoder, LeavesTheModelAloneWhenLiveDataIsTooShort) {
  test::FakeStack stack;
  auto& m = *stack.manager;
  EXPECT_THROW(m.analysisQueryChargingData(Bytes(20, 0)), std::out_of_range);
  EXPECT_EQ(m.dataModel()->chargingData, nullptr);
}

TEST(StartAndStop, AStopAnswerSayingFailureStillReportsSuccess) {
  test::FakeStack stack;
  auto post = stack.connectReadyPost();
  std::int64_t seen = -1;
  auto delegate = std::make_shared<TQBleManagerDelegate>();
  delegate->didUpdateValueForCharacteristicValue =
      [&seen](TQBleManager&, const std::shared_ptr<TQBleDataModel>& model,
              const std::optional<TQError>&) {
        if (model->result) seen = model->result->resultType;
      };
  stack.manager->setDelegate(delegate);
  stack.manager->stopChargeWithError(nullptr);
  stack.notify(post, hex("68 b6 01 00 01 00 00 00 01"));
  EXPECT_EQ(seen, 0);
}

TEST(ByteOrderReversal, SwapsWholePairsAndDropsAnOddTail) {
  test::FakeStack stack;
  const std::pair<const char*, const char*> cases[] = {{"", ""},
                                                       {"a", "a"},
                                                       {"ab", "ab"},
                                                       {"abc", "ab"},
                                                       {"1234", "3412"},
                                                       {"abcde", "cdab"},
                                                       {"0a0b0c0d", "0d0c0b0a"}};
  for (const auto& [in, out] : cases) {
    EXPECT_EQ(stack.manager->coverHeightToLowWithHexStr(in), out) << in;
  }
}

}  // namespace
}  // namespace tqble
