#include <gtest/gtest.h>

#include <stdexcept>

#include "support/FakeBle.h"
#include "support/Hex.h"
#include "support/LogCapture.h"
#include "tqble/AnswerDecoding.h"

namespace tqble {
namespace {

using test::hex;
// "gun serial | energy voltage current duration | failure", "-" for a field left unset.
std::string describe(const TQBleChargingData& d) {
  return d.gunStatus.value_or("-") + " " + d.serialNumber.value_or("-") + " | " +
         std::to_string(d.elecQuantity) + " " + std::to_string(d.voltage) + " " +
         std::to_string(d.electric) + " " + std::to_string(d.duration) + " | " +
         d.failureReason.value_or("-");
}

TEST(StateAnswer, ReadsByLengthLittleEndianFullWidthWithASignedDurationOrABigEndianFaultCode) {
  // clang-format off
  const std::pair<const char*, const char*> cases[] = {
      // gun | serial | energy | voltage | current | duration, then one unread byte
      {"12 00 00 00 | 06 | 01 02 03 04 | e8 03 | 5c 08 00 00 | 10 00 | 3c 00 00 00 | 00", "正在充电中 1234 | 1000 2140 16 60 | -"},
      {"12 00 00 00 | 01 | 00 00 00 00 | ff ff | ff ff ff ff | ff ff | ff ff ff ff | 00", "未知 0000 | 65535 4294967295 65535 18446744073709551615 | -"},
      // gun, fault code as big-endian text of single bits
      {"04 00 00 00 | 06 00 04 00", "正在充电中 - | 0 0 0 0 | 过流"}, {"04 00 00 00 | 00 00 10 00", "未知 - | 0 0 0 0 | 欠压"},
      {"04 00 00 00 | 00 01 00 00", "未知 - | 0 0 0 0 | 急停按下"}, {"04 00 00 00 | 00 00 0c 00", "未知 - | 0 0 0 0 | 暂未定义错误类型"},
      {"04 00 00 00 | 00 04 00 00", "未知 - | 0 0 0 0 | 暂未定义错误类型"},
  };
  // clang-format on
  for (const auto& [body, text] : cases) {
    EXPECT_EQ(describe(decode::chargerState(hex(std::string("68 b5 00 00 ") + body))), text)
        << body;
  }
  for (std::size_t size : {0u, 8u, 11u, 13u, 25u, 27u}) {
    EXPECT_EQ(describe(decode::chargerState(Bytes(size, 0x06))), "- - | 0 0 0 0 | -") << size;
  }
}

TEST(LiveChargingData, ReadsBigEndianFieldsCutToSigned32BitsAndLogsTheWholeAnswer) {
  test::LogCapture log;
  const auto data = decode::chargingData(
      hex("68 b5 00 00 18 00 00 00 | 11 11 11 11 | 22 22 22 22 | 01 00 0c 22 | 03 e8 | 80 00 00 00"
          " | 00 10 | ff ff ff ff"));
  EXPECT_EQ(describe(data), "- 101234 | 1000 18446744071562067968 16 18446744073709551615 | -");
  EXPECT_EQ(log.lines,
            std::vector<std::string>{"解析的充电中的数据 68b50000180000001111111122222222"
                                     "01000c2203e8800000000010ffffffff    ++  64"});
  EXPECT_THROW(decode::chargingData(Bytes(31, 0)), std::out_of_range);
}

TEST(StateDecoder, StoresARecordEvenForAWrongLengthNoneForShortLiveDataAndSwapsHexPairs) {
  test::FakeStack stack;
  auto& m = *stack.manager;
  EXPECT_THROW(m.analysisQueryChargingData(Bytes(20, 0)), std::out_of_range);
  EXPECT_EQ(m.dataModel()->chargingData, nullptr);
  m.analysisQueryState(Bytes(20, 0x06));
  ASSERT_NE(m.dataModel()->chargingData, nullptr);
  EXPECT_TRUE(!m.dataModel()->chargingData->gunStatus && !m.dataModel()->result);
  // Byte-order reversal swaps whole pairs and drops an odd tail.
  for (const auto& [in, out] : {std::pair{"abcde", "cdab"}, {"0a0b0c0d", "0d0c0b0a"}, {"a", "a"}}) {
    EXPECT_EQ(m.coverHeightToLowWithHexStr(in), out) << in;
  }
}

}  // namespace
}  // namespace tqble
