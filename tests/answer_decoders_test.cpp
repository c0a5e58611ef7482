// The answer decoders on frames laid out byte by byte: every field, lookup text and quirk,
// and what the manager's own decoders keep.
#include <gtest/gtest.h>

#include <stdexcept>

#include "support/FakeBle.h"
#include "support/Hex.h"
#include "support/LogCapture.h"
#include "tqble/AnswerDecoding.h"

namespace tqble {
namespace {

using test::hex;
using Lines = std::vector<std::string>;

// A `size`-byte answer to `cmd`, zero except the bytes placed at frame offsets.
Bytes answer(std::uint8_t cmd, std::size_t size, std::initializer_list<std::pair<std::size_t, Bytes>> fields = {}) {
  Bytes frame(size, 0);
  frame[0] = 0x68, frame[1] = cmd;
  for (const auto& [at, bytes] : fields) std::copy(bytes.begin(), bytes.end(), frame.begin() + at);
  return frame;
}

TEST(Acknowledgement, ReadsOnlyExactly01AsFailureAndAShortFrameAsFailure) {
  // clang-format off
  const std::pair<const char*, std::int64_t> cases[] = {
      {"68 b0 00 00 01 00 00 00 00", 0}, {"68 b0 00 00 01 00 00 00 01", 1}, {"68 b0 00 00 01 00 00 00 02", 0},
      {"68 b0 00 00 01 00 00 00 10", 0}, {"68 b0 00 00 02 00 00 00 01 00", 1},
      {"68 b0 00 00 00 00 00 00", 1}, {"", 1}};  // short frames
  // clang-format on
  for (const auto& [frame, type] : cases) EXPECT_EQ(decode::setResult(hex(frame)).resultType, type) << frame;
}

// "gun serial | energy voltage current duration | failure", "-" for a field left unset.
std::string describe(const TQBleChargingData& d) {
  return d.gunStatus.value_or("-") + " " + d.serialNumber.value_or("-") + " | " + std::to_string(d.elecQuantity) +
         " " + std::to_string(d.voltage) + " " + std::to_string(d.electric) + " " + std::to_string(d.duration) +
         " | " + d.failureReason.value_or("-");
}

TEST(StateAnswer, ReadsByLengthLittleEndianFullWidthWithASignedDurationOrABigEndianFaultCode) {
  // clang-format off
  const std::pair<const char*, const char*> cases[] = {
      // gun | serial | energy | voltage | current | duration, then one unread byte (a whole
      // one: the tool's decode test)
      {"12 00 00 00 | 01 | 00 00 00 00 | ff ff | ff ff ff ff | ff ff | ff ff ff ff | 00", "未知 0000 | 65535 4294967295 65535 18446744073709551615 | -"},
      // gun, fault code as big-endian text of single bits
      {"04 00 00 00 | 06 00 04 00", "正在充电中 - | 0 0 0 0 | 过流"}, {"04 00 00 00 | 00 00 10 00", "未知 - | 0 0 0 0 | 欠压"},
      {"04 00 00 00 | 00 01 00 00", "未知 - | 0 0 0 0 | 急停按下"}, {"04 00 00 00 | 00 00 0c 00", "未知 - | 0 0 0 0 | 暂未定义错误类型"},
      {"04 00 00 00 | 00 04 00 00", "未知 - | 0 0 0 0 | 暂未定义错误类型"},
  };
  // clang-format on
  for (const auto& [body, text] : cases)
    EXPECT_EQ(describe(decode::chargerState(hex(std::string("68 b5 00 00 ") + body))), text) << body;
  for (std::size_t size : {0u, 8u, 11u, 13u, 25u, 27u})
    EXPECT_EQ(describe(decode::chargerState(Bytes(size, 0x06))), "- - | 0 0 0 0 | -") << size;
  // Live data: big-endian fields cut to signed 32 bits.
  EXPECT_EQ(describe(decode::chargingData(hex("68 b5 00 00 18 00 00 00 | 11 11 11 11 | 22 22 22 22 | 01 00 0c 22"
                                              " | 03 e8 | 80 00 00 00 | 00 10 | ff ff ff ff"))),
            "- 101234 | 1000 18446744071562067968 16 18446744073709551615 | -");
  EXPECT_THROW(decode::chargingData(Bytes(31, 0)), std::out_of_range);
}

// Header, two unread bytes, then (history only) the count the post sends, which is ignored.
const std::string kHistory = "68 b7 00 00 00 00 00 00 | 00 00 | 00 09 | ";
const std::string kErrorLog = "68 34 00 00 00 00 00 00 | 00 00 | ";
const std::string kEnergy = "68 b8 00 00 05 00 00 00 | ";
const std::string kOneHour = "00 00 30 39 | 00 64 | 00 00 00 00 | 10 0e 00 00 | 10 0e 00 00 | 00 ";

TEST(ListAnswers, HistoryEnergyAndErrorLogReadTheirByteOrdersAndCountsAndThrowWhenShort) {
  Lines rows;  // serial energy | start | end | duration
  for (const auto& h : decode::chargingHistory(
           hex(kHistory + kOneHour + "ff ff ff ff | ff ff | ff ff ff ff | 00 f1 53 65 | ff ff ff ff | 07")))
    rows.push_back(*h.serialNumber + " " + std::to_string(h.elecQuantity) + " | " + *h.startTime + " | " +
                   *h.endTime + " | " + std::to_string(h.duration));
  EXPECT_EQ(rows, (Lines{"12345 100 | 1970-01-01 00:00:00 | 1970-01-01 01:00:00 | 3600",
                         "4294967295 65535 | 1969-12-31 23:59:59 | 2023-11-14 22:13:20 | 18446744073709551615"}));
  // The count byte says 9 but the length rules; a part entry (18 of 19 bytes) is dropped.
  EXPECT_EQ(decode::chargingHistory(hex(kHistory + kOneHour + std::string(36, '0'))).size(), 1u);
  EXPECT_TRUE(decode::chargingHistory(Bytes(12, 0)).empty());
  EXPECT_THROW(decode::chargingHistory(hex("68 b7 00 00 01 00 00 df 01")), std::out_of_range);

  EXPECT_EQ(decode::cumulativeEnergy(hex(kEnergy + "10 27 00 00 00")), 10000);
  EXPECT_EQ(decode::cumulativeEnergy(hex(kEnergy + "ff ff ff ff")), -1);
  EXPECT_THROW(decode::cumulativeEnergy(hex(kEnergy + "10 27 00")), std::out_of_range);

  // The error log trusts its count and may run past the end.
  const auto list = decode::errorLog(
      hex(kErrorLog + "02 | ff ff ff ff 08 00 00 00 | 00 f1 53 65 ff 01 02 03 | 00 f1 53 65 01 00 00 00"));
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(*list[0].date + " " + std::to_string(list[0].errorCode), "1969-12-31 23:59:59 8");
  EXPECT_EQ(*list[1].date + " " + std::to_string(list[1].errorCode), "2023-11-14 22:13:20 255");
  EXPECT_TRUE(decode::errorLog(hex(kErrorLog + "00 | 01 02 03")).empty());
  EXPECT_EQ(decode::errorLog(hex(kErrorLog + "01 | 00 00 00 00 05")).at(0).errorCode, 5u)
      << "only the last code byte must be there";
  for (const char* body : {"02 | 00 00 00 00 01 00 00 00", "", "01 | 00 00 00 00"})
    EXPECT_THROW(decode::errorLog(hex(kErrorLog + body)), std::out_of_range) << body;
}

enum Row { kPostType = 1, kMaker, kMagic, kModel = 6, kVolume, kClock, kGun };

TEST(SystemInfoAnswer, ReadsEachFieldAndLooksUpCodes) {
  test::LogCapture quiet;
  // clang-format off
  const std::array<std::string, 10> expected = {"获取系统信息", "双枪", "Velmora", "256", "1.5",
      "2.0.10", "70000000000000010000", "35", "2023-11-14 22:13:20", "充电结束未拔枪"};
  EXPECT_EQ(decode::systemInfo(answer(0xB1, 67, {
                {8, {0x01, 0x00, 0x0c, 0x22}}, {28, {0x02}}, {29, {0x66}},  // post number, type, maker
                {30, {0x00, 0x00, 0x01, 0x00}},                             // magic number, big-endian
                {34, {0x05, 0x01}}, {36, {0x0a, 0x00, 0x02}},               // protocol, firmware: last first
                {39, {0x07}}, {54, {0x01}}, {59, {0x23}},                   // model, charging mode in it, volume
                {60, {0x00, 0xf1, 0x53, 0x65}}, {66, {0x08}},               // clock little-endian, gun state
            })), expected);
  // clang-format on
  // clang-format off
  const std::tuple<std::size_t, Bytes, int, const char*> cases[] = {
      {28, {0x05}, kPostType, "双枪广告桩"}, {28, {0x00}, kPostType, "--"}, {28, {0x06}, kPostType, "--"},
      {66, {0x00}, kGun, "空闲中"}, {66, {0x02}, kGun, "--"},
      {66, {0x0f}, kGun, "--"},  // the fault code is compared as "0F" and never matches
      {29, {0x65}, kMaker, "未知"},
      {60, {0xff, 0xff, 0xff, 0xff}, kClock, "1969-12-31 23:59:59"}, {30, {0xff, 0xff, 0xff, 0xff}, kMagic, "4294967295"},
  };
  // clang-format on
  for (const auto& [offset, bytes, row, text] : cases)
    EXPECT_EQ(decode::systemInfo(answer(0xB1, 67, {{offset, bytes}}))[row], text) << offset;
  EXPECT_THROW(decode::systemInfo(answer(0xB1, 66)), std::out_of_range);
  EXPECT_EQ(decode::systemInfo(answer(0xB1, 70, {{66, {0x01, 0x06}}}))[kGun], "插枪未充电");
}

using Info = TQBleRunDiagnosticInfo;

TEST(DiagnosisAnswer, ReadsEveryFieldAtItsFrameOffset) {
  // clang-format off
  const Info info = decode::runningDiagnosis(answer(0x32, 66, {{28, {0x01, 0x02, 0x0a}}, {38, {0x03, 0x08, 0xdc}},
      {42, {0x01, 0x07, 0x1e}}, {47, {0x01, 0x00}}, {51, {0x01, 0x01, 0x00}}}));
  EXPECT_EQ((std::vector{info.versionNum, info.chargeState, info.errorInfo, info.voltage, info.startTime,
                         info.elec, info.netConnectState, info.ammeterState, info.screenWorkingState, info.elecLockState}),
            (std::vector<OptionalText>{"V1.2.10", "充电中", "过流", "220V", "07 : 30", "32A", "网络已连接", "正常", "01", "00"}));
  // clang-format on
  EXPECT_EQ(info.startMode, 1);
}

TEST(DiagnosisAnswer, LooksUpEachTableRowKeepsRawFieldsAndNeedsFiftyFourBytes) {
  // clang-format off
  const std::tuple<std::size_t, std::uint8_t, OptionalText Info::*, const char*> cases[] = {
      {38, 0, &Info::chargeState, "空闲"}, {38, 1, &Info::chargeState, "枪已连车"}, {38, 2, &Info::chargeState, "定时预约中"},
      {38, 4, &Info::chargeState, "充电等待中"}, {38, 5, &Info::chargeState, "充电完成"}, {38, 6, &Info::chargeState, "没有充电类型"},
      {39, 0, &Info::errorInfo, "无错误信息"}, {39, 1, &Info::errorInfo, "急停"}, {39, 2, &Info::errorInfo, "过压"},
      {39, 4, &Info::errorInfo, "欠压"}, {39, 3, &Info::errorInfo, "其它未知错误"},  // single bits only
      {48, 1, &Info::netConnectState, "网络连接中"}, {48, 2, &Info::netConnectState, "服务注册中"},
      {48, 3, &Info::netConnectState, "无网络"}, {48, 4, &Info::netConnectState, "重启网络"},
      {48, 5, &Info::netConnectState, "其它异常状态"}, {47, 0x00, &Info::elec, "16A"},
      {47, 0x10, &Info::elec, "--"},  // the rating is compared as raw digits
      {40, 0xff, &Info::voltage, "255V"}, {43, 0x63, &Info::startTime, "99 : 00"},  // no range checks
      {52, 0xab, &Info::screenWorkingState, "ab"}, {53, 0x0f, &Info::elecLockState, "0f"},
      {51, 0, &Info::ammeterState, "异常"}, {51, 2, &Info::ammeterState, "截取电表码错误"},
  };
  // clang-format on
  for (const auto& [offset, code, field, text] : cases)
    EXPECT_EQ(decode::runningDiagnosis(answer(0x32, 66, {{offset, {code}}})).*field, text) << offset << ":" << +code;
  EXPECT_EQ(decode::runningDiagnosis(answer(0x32, 54, {{53, {0x0f}}})).elecLockState, "0f");
  EXPECT_THROW(decode::runningDiagnosis(answer(0x32, 53)), std::out_of_range);
}

// What the manager's decoders keep beyond the delegate records every command shows.
TEST(ManagerDecoders, KeepANewResultPerAcknowledgementABlankStateAndTheSameTenSystemRows) {
  test::FakeStack stack;
  auto& m = *stack.manager;
  for (auto decoder : {&TQBleManager::analysisSynchroTime, &TQBleManager::analysisSetVolume,
                       &TQBleManager::analysisChargingOrderTime, &TQBleManager::analysisCharging}) {
    (m.*decoder)(hex("68 b2 00 00 01 00 00 00 01"));
    const auto first = m.dataModel()->result;
    (m.*decoder)(hex("68 b2 00 00 01 00 00 00 00"));
    const auto second = m.dataModel()->result;
    ASSERT_TRUE(first && second && second != first) << "each answer gets a new result";
    EXPECT_TRUE(first->resultType == 1 && second->resultType == 0 && !m.dataModel()->chargingData);
  }
  m.setCmdType(7);  // stop reads no answer, not even a missing one: always success
  for (const auto& stopped : {std::optional(hex("68 b6 01 00 01 00 00 00 01")), std::optional<Bytes>()}) {
    m.setDataModel(nullptr);
    m.analysisData(stopped);
    ASSERT_NE(m.dataModel()->result, nullptr);
    EXPECT_EQ(m.dataModel()->result->resultType, 0);
  }
  // A state of a wrong length leaves a blank record; live data too short for its fields none.
  m.setDataModel(nullptr);
  EXPECT_THROW(m.analysisQueryChargingData(Bytes(20, 0)), std::out_of_range);
  EXPECT_EQ(m.dataModel()->chargingData, nullptr);
  m.analysisQueryState(Bytes(20, 0x06));
  ASSERT_NE(m.dataModel()->chargingData, nullptr);
  EXPECT_TRUE(!m.dataModel()->chargingData->gunStatus && !m.dataModel()->result);
  for (const auto& [in, out] : {std::pair{"abcde", "cdab"}, {"0a0b0c0d", "0d0c0b0a"}, {"a", "a"}})
    EXPECT_EQ(m.coverHeightToLowWithHexStr(in), out) << in;  // whole pairs swapped, an odd tail dropped
  // Every system answer appends the same ten row objects again, all showing the latest.
  m.analysisQuerySystemInfo(answer(0xB1, 67, {{59, {0x10}}}));
  m.analysisQuerySystemInfo(answer(0xB1, 67, {{59, {0x20}}}));
  const auto& rows = m.systemTitleArr();
  ASSERT_EQ(m.systemInfoModelList().size(), 20u);
  for (std::size_t i = 0; i < 20; ++i) EXPECT_EQ(m.systemInfoModelList()[i], rows[i % 10]) << i;
  EXPECT_EQ(rows[kVolume]->content, "32");
  // The full diagnosis decoder, never dispatched to, keeps nothing either.
  m.setDataModel(nullptr);
  m.analysisRuningDiagnosisInfo(answer(0x32, 66, {{38, {0x05}}}));
  EXPECT_TRUE(!m.dataModel()->result && !m.dataModel()->chargingData);
}

}  // namespace
}  // namespace tqble
