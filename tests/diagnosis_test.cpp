#include <gtest/gtest.h>

#include <stdexcept>

#include "support/FakeBle.h"
#include "support/LogCapture.h"
#include "tqble/AnswerDecoding.h"

namespace tqble {
namespace {

// A 66-byte answer, zero except the bytes given by frame offset.
Bytes answer(std::initializer_list<std::pair<std::size_t, std::uint8_t>> bytes,
             std::size_t size = 66) {
  Bytes frame(size, 0);
  frame[0] = 0x68;
  frame[1] = 0x32;
  for (const auto& [offset, value] : bytes) frame[offset] = value;
  return frame;
}

TEST(DiagnosisAnswer, ReadsEveryFieldAtItsFrameOffset) {
  test::LogCapture log;
  const auto info = decode::runningDiagnosis(answer({{38, 0x03},
                                                     {39, 0x08},
                                                     {40, 0xdc},
                                                     {42, 0x01},
                                                     {43, 0x07},
                                                     {44, 0x1e},
                                                     {47, 0x01},
                                                     {48, 0x00},
                                                     {51, 0x01},
                                                     {52, 0x01},
                                                     {53, 0x00},
                                                     {28, 0x01},
                                                     {29, 0x02},
                                                     {30, 0x0a}}));
  EXPECT_EQ(info.chargeState, "充电中");
  EXPECT_EQ(info.errorInfo, "过流");
  EXPECT_EQ(info.voltage, "220V");
  EXPECT_EQ(info.startMode, 1);
  EXPECT_EQ(info.startTime, "07 : 30");
  EXPECT_EQ(info.elec, "32A");
  EXPECT_EQ(info.netConnectState, "网络已连接");
  EXPECT_EQ(info.ammeterState, "正常");
  EXPECT_EQ(info.screenWorkingState, "01");
  EXPECT_EQ(info.elecLockState, "00");
  EXPECT_EQ(info.versionNum, "V1.2.10");
  EXPECT_EQ(log.lines, (std::vector<std::string>{"132", "充电中", "过流", "网络已连接",
                                                 "电表工作状态: 正常"}));
}

TEST(DiagnosisAnswer, LooksUpEveryChargeState) {
  const char* texts[] = {"空闲",       "枪已连车", "定时预约中",   "充电中",
                         "充电等待中", "充电完成", "没有充电类型", "没有充电类型"};
  for (std::uint8_t code = 0; code < 8; ++code) {
    EXPECT_EQ(decode::runningDiagnosis(answer({{38, code}})).chargeState, texts[code]) << int(code);
  }
  EXPECT_EQ(decode::runningDiagnosis(answer({{38, 0xff}})).chargeState, "没有充电类型");
}

TEST(DiagnosisAnswer, DecodesSingleErrorBitsOnly) {
  const std::pair<std::uint8_t, const char*> cases[] = {
      {0, "无错误信息"},   {1, "急停"},         {2, "过压"},           {4, "欠压"},
      {8, "过流"},         {3, "其它未知错误"}, {5, "其它未知错误"},   {6, "其它未知错误"},
      {7, "其它未知错误"}, {9, "其它未知错误"}, {0x10, "其它未知错误"}};
  for (const auto& [code, text] : cases) {
    EXPECT_EQ(decode::runningDiagnosis(answer({{39, code}})).errorInfo, text) << int(code);
  }
}

TEST(DiagnosisAnswer, LooksUpEveryNetworkState) {
  const char* texts[] = {"网络已连接", "网络连接中",   "服务注册中",  "无网络",
                         "重启网络",   "其它异常状态", "其它异常状态"};
  for (std::uint8_t code = 0; code < 7; ++code) {
    EXPECT_EQ(decode::runningDiagnosis(answer({{48, code}})).netConnectState, texts[code])
        << int(code);
  }
}

TEST(DiagnosisAnswer, StoresAndLogsTheMeterStateDifferently) {
  const std::tuple<std::uint8_t, const char*, const char*> cases[] = {
      {0, "异常", "电表工作状态: 异常"},
      {1, "正常", "电表工作状态: 正常"},
      {2, "截取电表码错误", "截取码错误"}};
  for (const auto& [code, stored, logged] : cases) {
    test::LogCapture log;
    EXPECT_EQ(decode::runningDiagnosis(answer({{51, code}})).ammeterState, stored);
    ASSERT_EQ(log.lines.size(), 5u);
    EXPECT_EQ(log.lines.back(), logged);
  }
}

TEST(DiagnosisAnswer, ComparesTheCurrentRatingAsRawDigits) {
  const std::pair<std::uint8_t, const char*> cases[] = {
      {0x00, "16A"}, {0x01, "32A"}, {0x02, "--"}, {0x10, "--"}};
  for (const auto& [code, text] : cases) {
    EXPECT_EQ(decode::runningDiagnosis(answer({{47, code}})).elec, text) << int(code);
  }
}

TEST(DiagnosisAnswer, KeepsRawValuesWithoutRangeChecks) {
  const auto info = decode::runningDiagnosis(
      answer({{42, 0x05}, {43, 0x63}, {44, 0x05}, {40, 0xff}, {52, 0xab}, {53, 0x0f}}));
  EXPECT_EQ(info.startMode, 5);
  EXPECT_EQ(info.startTime, "99 : 05");
  EXPECT_EQ(info.voltage, "255V");
  EXPECT_EQ(info.screenWorkingState, "ab");
  EXPECT_EQ(info.elecLockState, "0f");
}

TEST(DiagnosisAnswer, NeedsFiftyFourBytes) {
  EXPECT_EQ(decode::runningDiagnosis(answer({{53, 0x01}}, 54)).elecLockState, "01");
  EXPECT_THROW(decode::runningDiagnosis(answer({}, 53)), std::out_of_range);
}

TEST(DiagnosisDecoder, TheDispatchedAnswerYieldsNoRecordAndNoLogLine) {
  test::FakeStack stack;
  auto post = stack.connectReadyPost();
  std::vector<std::shared_ptr<TQBleDataModel>> seen;
  auto delegate = std::make_shared<TQBleManagerDelegate>();
  delegate->didUpdateValueForCharacteristicValue =
      [&seen](TQBleManager&, const std::shared_ptr<TQBleDataModel>& model,
              const std::optional<TQError>&) { seen.push_back(model); };
  stack.manager->setDelegate(delegate);
  stack.manager->runningDiagnosticInfoWithError(nullptr);
  test::LogCapture log;
  const Bytes whole = answer({{38, 0x03}, {51, 0x01}});
  for (std::size_t at = 0; at < whole.size(); at += 20) {
    stack.notify(
        post, Bytes(whole.begin() + static_cast<std::ptrdiff_t>(at),
                    whole.begin() + static_cast<std::ptrdiff_t>(std::min(at + 20, whole.size()))));
  }
  EXPECT_EQ(stack.manager->cmdType(), 0);
  EXPECT_TRUE(log.lines.empty());
  ASSERT_EQ(seen.size(), 4u);
  EXPECT_EQ(seen.back()->result, nullptr);
  EXPECT_EQ(seen.back()->chargingData, nullptr);
}

TEST(DiagnosisDecoder, TheFullDecoderDropsItsRecord) {
  test::FakeStack stack;
  auto& m = *stack.manager;
  test::LogCapture log;
  m.analysisRuningDiagnosisInfo(answer({{38, 0x05}}));
  EXPECT_EQ(log.lines.at(1), "充电完成");
  EXPECT_EQ(m.dataModel()->result, nullptr);
  EXPECT_EQ(m.dataModel()->chargingData, nullptr);
}

}  // namespace
}  // namespace tqble
