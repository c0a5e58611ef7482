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
Bytes history(const std::string& entries) {
  return hex("68 b7 00 00 00 00 00 00 | 00 00 | 00 09 | " + entries);
}
Bytes errorLog(const std::string& body) {
  return hex("68 34 00 00 00 00 00 00 | 00 00 | " + body);
}
Bytes energy(const std::string& body) {
  return hex("68 b8 00 00 05 00 00 00 | " + body);
}
const std::string kOneHour = "00 00 30 39 | 00 64 | 00 00 00 00 | 10 0e 00 00 | 10 0e 00 00 | 00 ";

// serial energy | start | end | duration
std::vector<std::string> rows(const std::vector<TQBleChargeHistory>& list) {
  std::vector<std::string> out;
  for (const auto& h : list) {
    out.push_back(*h.serialNumber + " " + std::to_string(h.elecQuantity) + " | " + *h.startTime +
                  " | " + *h.endTime + " | " + std::to_string(h.duration));
  }
  return out;
}

TEST(HistoryAnswer, ReadsBigEndianSerialAndEnergyAndLittleEndianSignedTimes) {
  EXPECT_EQ(
      rows(decode::chargingHistory(history(
          kOneHour + "ff ff ff ff | ff ff | ff ff ff ff | 00 f1 53 65 | ff ff ff ff | 07"))),
      (std::vector<std::string>{
          "12345 100 | 1970-01-01 00:00:00 | 1970-01-01 01:00:00 | 3600",
          "4294967295 65535 | 1969-12-31 23:59:59 | 2023-11-14 22:13:20 | 18446744073709551615"}));
}

TEST(HistoryAnswer, TakesTheEntryCountFromTheLengthAlone) {
  // clang-format off
  const std::pair<std::string, std::size_t> cases[] = {
      {"", 0}, {kOneHour + kOneHour + "01 02 03 04 05", 2},
      {kOneHour + "01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f 10 11 12", 1}};
  // clang-format on
  for (const auto& [entries, count] : cases) {
    EXPECT_EQ(decode::chargingHistory(history(entries)).size(), count) << entries;
  }
  EXPECT_THROW(decode::chargingHistory(Bytes(11, 0)), std::out_of_range);
}

TEST(EnergyAnswer, ReadsALittleEndianSigned32BitValue) {
  EXPECT_EQ(decode::cumulativeEnergy(energy("10 27 00 00 00")), 10000);
  EXPECT_EQ(decode::cumulativeEnergy(energy("ff ff ff ff")), -1);
  EXPECT_THROW(decode::cumulativeEnergy(energy("10 27 00")), std::out_of_range);
}

TEST(ErrorLogAnswer, ReadsAsManyEntriesAsTheCountSaysAndNoMore) {
  const auto list = decode::errorLog(
      errorLog("02 | ff ff ff ff 08 00 00 00 | 00 f1 53 65 ff 01 02 03 | 00 f1 53 65 01 00 00 00"));
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(*list[0].date + " " + std::to_string(list[0].errorCode), "1969-12-31 23:59:59 8");
  EXPECT_EQ(*list[1].date + " " + std::to_string(list[1].errorCode), "2023-11-14 22:13:20 255");
  EXPECT_TRUE(decode::errorLog(errorLog("00 | 01 02 03")).empty());
  EXPECT_EQ(decode::errorLog(errorLog("01 | 00 00 00 00 05")).at(0).errorCode, 5u)
      << "only the last code byte must be there";
}

TEST(ErrorLogAnswer, TrustsTheCountAndRunsPastTheEnd) {
  for (const char* body : {"02 | 00 00 00 00 01 00 00 00", "", "01 | 00 00 00 00"}) {
    EXPECT_THROW(decode::errorLog(errorLog(body)), std::out_of_range) << body;
  }
}

TEST(ListDecoders, DecodeWithoutLoggingOrTouchingTheDataModelButStillThrow) {
  test::FakeStack stack;
  auto& m = *stack.manager;
  test::LogCapture log;
  m.analysisQueryChargingHistoryList(history(kOneHour));
  m.analysisQueryTotalChargingCapacity(energy("10 27 00 00 00"));
  m.analysisQueryHistoryErrorLogList(errorLog("01 | 00 00 00 00 05 00 00 00"));
  EXPECT_EQ(m.dataModel()->result, nullptr);
  EXPECT_EQ(m.dataModel()->chargingData, nullptr);
  EXPECT_TRUE(log.lines.empty());
  EXPECT_THROW(m.analysisQueryHistoryErrorLogList(errorLog("03")), std::out_of_range);
}

}  // namespace
}  // namespace tqble
