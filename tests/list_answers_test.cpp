#include <gtest/gtest.h>

#include <stdexcept>

#include "support/FakeBle.h"
#include "support/Hex.h"
#include "support/LogCapture.h"
#include "tqble/AnswerDecoding.h"

namespace tqble {
namespace {

using test::hex;

// Header, two unread bytes, then (history only) the count the post sends, which is ignored.
const std::string kHistory = "68 b7 00 00 00 00 00 00 | 00 00 | 00 09 | ";
const std::string kErrorLog = "68 34 00 00 00 00 00 00 | 00 00 | ";
const std::string kEnergy = "68 b8 00 00 05 00 00 00 | ";
const std::string kOneHour = "00 00 30 39 | 00 64 | 00 00 00 00 | 10 0e 00 00 | 10 0e 00 00 | 00 ";

TEST(HistoryAnswer, ReadsBigEndianSerialAndEnergyLittleEndianSignedTimesAndCountsByLength) {
  std::vector<std::string> rows;  // serial energy | start | end | duration
  for (const auto& h : decode::chargingHistory(
           hex(kHistory + kOneHour +
               "ff ff ff ff | ff ff | ff ff ff ff | 00 f1 53 65 | ff ff ff ff | 07"))) {
    rows.push_back(*h.serialNumber + " " + std::to_string(h.elecQuantity) + " | " + *h.startTime +
                   " | " + *h.endTime + " | " + std::to_string(h.duration));
  }
  EXPECT_EQ(rows, (std::vector<std::string>{
                      "12345 100 | 1970-01-01 00:00:00 | 1970-01-01 01:00:00 | 3600",
                      "4294967295 65535 | 1969-12-31 23:59:59 | 2023-11-14 22:13:20 | "
                      "18446744073709551615"}));
  // The count byte says 9 but the length rules; a part entry (18 of 19 bytes) is dropped.
  EXPECT_EQ(decode::chargingHistory(hex(kHistory + kOneHour + std::string(36, '0'))).size(), 1u);
  EXPECT_TRUE(decode::chargingHistory(Bytes(12, 0)).empty());
  EXPECT_THROW(decode::chargingHistory(hex("68 b7 00 00 01 00 00 df 01")), std::out_of_range);
}

TEST(EnergyAnswer, ReadsALittleEndianSigned32BitValue) {
  EXPECT_EQ(decode::cumulativeEnergy(hex(kEnergy + "10 27 00 00 00")), 10000);
  EXPECT_EQ(decode::cumulativeEnergy(hex(kEnergy + "ff ff ff ff")), -1);
  EXPECT_THROW(decode::cumulativeEnergy(hex(kEnergy + "10 27 00")), std::out_of_range);
}

TEST(ErrorLogAnswer, ReadsAsManyEntriesAsTheTrustedCountSaysAndRunsPastTheEnd) {
  const auto list = decode::errorLog(
      hex(kErrorLog +
          "02 | ff ff ff ff 08 00 00 00 | 00 f1 53 65 ff 01 02 03 | 00 f1 53 65 01 00 00 00"));
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(*list[0].date + " " + std::to_string(list[0].errorCode), "1969-12-31 23:59:59 8");
  EXPECT_EQ(*list[1].date + " " + std::to_string(list[1].errorCode), "2023-11-14 22:13:20 255");
  EXPECT_TRUE(decode::errorLog(hex(kErrorLog + "00 | 01 02 03")).empty());
  EXPECT_EQ(decode::errorLog(hex(kErrorLog + "01 | 00 00 00 00 05")).at(0).errorCode, 5u)
      << "only the last code byte must be there";
  for (const char* body : {"02 | 00 00 00 00 01 00 00 00", "", "01 | 00 00 00 00"}) {
    EXPECT_THROW(decode::errorLog(hex(kErrorLog + body)), std::out_of_range) << body;
  }
}

TEST(ListDecoders, DecodeWithoutLoggingOrTouchingTheDataModelButStillThrow) {
  test::FakeStack stack;
  auto& m = *stack.manager;
  test::LogCapture log;
  m.analysisQueryChargingHistoryList(hex(kHistory + kOneHour));
  m.analysisQueryTotalChargingCapacity(hex(kEnergy + "10 27 00 00 00"));
  m.analysisQueryHistoryErrorLogList(hex(kErrorLog + "01 | 00 00 00 00 05 00 00 00"));
  EXPECT_TRUE(!m.dataModel()->result && !m.dataModel()->chargingData && log.lines.empty());
  EXPECT_THROW(m.analysisQueryHistoryErrorLogList(hex(kErrorLog + "03")), std::out_of_range);
}

}  // namespace
}  // namespace tqble
