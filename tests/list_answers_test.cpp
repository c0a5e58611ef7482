#include <gtest/gtest.h>

#include <stdexcept>

#include "support/FakeBle.h"
#include "support/Hex.h"
#include "support/LogCapture.h"
#include "tqble/AnswerDecoding.h"

namespace tqble {
namespace {

using test::hex;

// Header, two unread bytes, then the count the post sends (ignored).
constexpr char kHistoryHead[] = "68 b7 00 00 00 00 00 00 | 00 00 | 00 09 | ";
constexpr char kOneHourEntry[] =
    "00 00 30 39 | 00 64 | 00 00 00 00 | 10 0e 00 00 | 10 0e 00 00 | 00 ";

TEST(HistoryAnswer, ReadsEachNineteenByteEntry) {
  const auto list = decode::chargingHistory(
      hex(std::string(kHistoryHead) + kOneHourEntry +
          "ff ff ff ff | ff ff | ff ff ff ff | 00 f1 53 65 | ff ff ff ff | 07"));
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[0].serialNumber, "12345");
  EXPECT_EQ(list[0].elecQuantity, 100u);
  EXPECT_EQ(list[0].startTime, "1970-01-01 00:00:00");
  EXPECT_EQ(list[0].endTime, "1970-01-01 01:00:00");
  EXPECT_EQ(list[0].duration, 3600u);
  EXPECT_EQ(list[0].voltage, 0u);
  EXPECT_EQ(list[0].gunStatus, std::nullopt);
  // Serial and energy are big-endian and unsigned; times and duration little-endian signed.
  EXPECT_EQ(list[1].serialNumber, "4294967295");
  EXPECT_EQ(list[1].elecQuantity, 65535u);
  EXPECT_EQ(list[1].startTime, "1969-12-31 23:59:59");
  EXPECT_EQ(list[1].endTime, "2023-11-14 22:13:20");
  EXPECT_EQ(list[1].duration, UINT64_MAX);
}

TEST(HistoryAnswer, TakesTheEntryCountFromTheLengthAlone) {
  const std::string head = kHistoryHead;
  EXPECT_TRUE(decode::chargingHistory(hex(head)).empty());
  EXPECT_EQ(
      decode::chargingHistory(hex(head + kOneHourEntry + kOneHourEntry + "01 02 03 04 05")).size(),
      2u);
  EXPECT_EQ(decode::chargingHistory(
                hex(head + kOneHourEntry + "01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f 10 11 12"))
                .size(),
            1u);
  EXPECT_THROW(decode::chargingHistory(Bytes(11, 0)), std::out_of_range);
}

TEST(EnergyAnswer, ReadsALittleEndianSigned32BitValue) {
  EXPECT_EQ(decode::cumulativeEnergy(hex("68 b8 00 00 05 00 00 00 | 10 27 00 00 00")), 10000);
  EXPECT_EQ(decode::cumulativeEnergy(hex("68 b8 00 00 05 00 00 00 | ff ff ff ff")), -1);
  EXPECT_THROW(decode::cumulativeEnergy(hex("68 b8 00 00 05 00 00 00 | 10 27 00")),
               std::out_of_range);
}

constexpr char kErrorHead[] = "68 34 00 00 00 00 00 00 | 00 00 | ";

TEST(ErrorLogAnswer, ReadsAsManyEntriesAsTheCountSays) {
  const auto list = decode::errorLog(
      hex(std::string(kErrorHead) +
          "02 | ff ff ff ff 08 00 00 00 | 00 f1 53 65 ff 01 02 03 | 00 f1 53 65 01 00 00 00"));
  ASSERT_EQ(list.size(), 2u) << "a third entry past the count is not read";
  EXPECT_EQ(list[0].date, "1969-12-31 23:59:59");
  EXPECT_EQ(list[0].errorCode, 8u);
  EXPECT_EQ(list[1].date, "2023-11-14 22:13:20");
  EXPECT_EQ(list[1].errorCode, 255u);
}

TEST(ErrorLogAnswer, GivesAnEmptyListForCountZeroWhateverFollows) {
  EXPECT_TRUE(decode::errorLog(hex(std::string(kErrorHead) + "00 | 01 02 03")).empty());
}

TEST(ErrorLogAnswer, TrustsTheCountAndRunsPastTheEnd) {
  EXPECT_THROW(decode::errorLog(hex(std::string(kErrorHead) + "02 | 00 00 00 00 01 00 00 00")),
               std::out_of_range);
  EXPECT_THROW(decode::errorLog(hex("68 34 00 00 00 00 00 00 00 00")), std::out_of_range);
  // The code of the last entry is all that must be present.
  EXPECT_EQ(decode::errorLog(hex(std::string(kErrorHead) + "01 | 00 00 00 00 05")).at(0).errorCode,
            5u);
}

TEST(ListDecoders, DecodeWithoutLoggingOrTouchingTheDataModel) {
  test::FakeStack stack;
  auto& m = *stack.manager;
  test::LogCapture log;
  m.analysisQueryChargingHistoryList(hex(std::string(kHistoryHead) + kOneHourEntry));
  m.analysisQueryTotalChargingCapacity(hex("68 b8 00 00 05 00 00 00 10 27 00 00 00"));
  m.analysisQueryHistoryErrorLogList(hex(std::string(kErrorHead) + "01 | 00 00 00 00 05 00 00 00"));
  EXPECT_EQ(m.dataModel()->result, nullptr);
  EXPECT_EQ(m.dataModel()->chargingData, nullptr);
  EXPECT_TRUE(log.lines.empty());
  EXPECT_THROW(m.analysisQueryHistoryErrorLogList(hex(std::string(kErrorHead) + "03")),
               std::out_of_range);
}

TEST(ListDecoders, TheDelegateSeesAnEmptyModelAfterAnEnergyAnswer) {
  test::FakeStack stack;
  auto post = stack.connectReadyPost();
  std::shared_ptr<TQBleDataModel> seen;
  auto delegate = std::make_shared<TQBleManagerDelegate>();
  delegate->didUpdateValueForCharacteristicValue =
      [&seen](TQBleManager&, const std::shared_ptr<TQBleDataModel>& model,
              const std::optional<TQError>&) { seen = model; };
  stack.manager->setDelegate(delegate);
  stack.manager->queryCumulationElecQuantityWithError(nullptr);
  stack.notify(post, hex("68 b8 00 00 05 00 00 00 10 27 00 00 00"));
  EXPECT_EQ(stack.manager->cmdType(), 0);
  ASSERT_NE(seen, nullptr);
  EXPECT_EQ(seen->result, nullptr);
  EXPECT_EQ(seen->chargingData, nullptr);
}

}  // namespace
}  // namespace tqble
