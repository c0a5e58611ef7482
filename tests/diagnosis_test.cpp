#include <gtest/gtest.h>

#include <stdexcept>

#include "support/FakeBle.h"
#include "support/LogCapture.h"
#include "tqble/AnswerDecoding.h"

namespace tqble {
namespace {

using Info = TQBleRunDiagnosticInfo;

// A 66-byte answer, zero except the bytes given by frame offset.
Bytes answer(std::initializer_list<std::pair<std::size_t, std::uint8_t>> bytes,
             std::size_t size = 66) {
  Bytes frame(size, 0);
  frame[0] = 0x68;
  frame[1] = 0x32;
  for (const auto& [offset, value] : bytes) frame[offset] = value;
  return frame;
}

TEST(DiagnosisAnswer, ReadsEveryFieldAtItsFrameOffsetAndLogsInOrder) {
  test::LogCapture log;
  // clang-format off
  const Info info = decode::runningDiagnosis(answer({{28, 0x01}, {29, 0x02}, {30, 0x0a}, {38, 0x03},
      {39, 0x08}, {40, 0xdc}, {42, 0x01}, {43, 0x07}, {44, 0x1e}, {47, 0x01}, {48, 0x00}, {51, 0x01},
      {52, 0x01}, {53, 0x00}}));
  EXPECT_EQ((std::vector{info.versionNum, info.chargeState, info.errorInfo, info.voltage, info.startTime,
                         info.elec, info.netConnectState, info.ammeterState, info.screenWorkingState, info.elecLockState}),
            (std::vector<OptionalText>{"V1.2.10", "充电中", "过流", "220V", "07 : 30", "32A", "网络已连接", "正常", "01", "00"}));
  // clang-format on
  EXPECT_EQ(info.startMode, 1);
  EXPECT_EQ(log.lines, (std::vector<std::string>{"132", "充电中", "过流", "网络已连接",
                                                 "电表工作状态: 正常"}));
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
  };
  // clang-format on
  for (const auto& [offset, code, field, text] : cases) {
    EXPECT_EQ(decode::runningDiagnosis(answer({{offset, code}})).*field, text)
        << offset << ":" << +code;
  }
  // The meter state is logged with other words than it is stored.
  // clang-format off
  const std::tuple<std::uint8_t, const char*, const char*> meter[] = {
      {0, "异常", "电表工作状态: 异常"}, {2, "截取电表码错误", "截取码错误"}};
  // clang-format on
  for (const auto& [code, stored, logged] : meter) {
    test::LogCapture log;
    EXPECT_EQ(decode::runningDiagnosis(answer({{51, code}}, 54)).ammeterState, stored);
    EXPECT_EQ(log.lines.at(4), logged) << +code;
  }
  EXPECT_THROW(decode::runningDiagnosis(answer({}, 53)), std::out_of_range);
}

TEST(DiagnosisDecoder, TheDispatchedAnswerIsIgnoredWhileTheFullDecoderLogsThenDropsItsRecord) {
  test::FakeStack stack;
  auto& m = *stack.manager;
  test::LogCapture log;
  m.setCmdType(13);
  m.analysisData(answer({{38, 0x05}}));
  EXPECT_TRUE(log.lines.empty());
  m.analysisRuningDiagnosisInfo(answer({{38, 0x05}}));
  EXPECT_EQ(log.lines.at(1), "充电完成");
  EXPECT_TRUE(!m.dataModel()->result && !m.dataModel()->chargingData);
}

}  // namespace
}  // namespace tqble
