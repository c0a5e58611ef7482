#include <gtest/gtest.h>

#include <stdexcept>

#include "support/FakeBle.h"
#include "support/LogCapture.h"
#include "tqble/AnswerDecoding.h"

namespace tqble {
namespace {

using test::FakeStack;

// A 67-byte answer, zero everywhere except the bytes placed at frame offsets.
Bytes answer(std::initializer_list<std::pair<std::size_t, Bytes>> fields, std::size_t size = 67) {
  Bytes frame(size, 0);
  frame[0] = 0x68;
  frame[1] = 0xB1;
  for (const auto& [offset, bytes] : fields) {
    std::copy(bytes.begin(), bytes.end(), frame.begin() + static_cast<std::ptrdiff_t>(offset));
  }
  return frame;
}

enum Row {
  kPostNumber,
  kPostType,
  kMaker,
  kMagic,
  kProtocol,
  kFirmware,
  kModel,
  kVolume,
  kClock,
  kGun
};

TEST(SystemInfoAnswer, ReadsEveryFieldAtItsFrameOffset) {
  const auto rows = decode::systemInfo(answer({
      {8, {0x01, 0x0c}},               // post number, logged only
      {28, {0x02}},                    // post type
      {29, {0x66}},                    // manufacturer
      {30, {0x00, 0x00, 0x01, 0x00}},  // magic number, big-endian
      {34, {0x05, 0x01}},              // protocol, last component first
      {36, {0x0a, 0x00, 0x02}},        // firmware, last component first
      {39, {0x07}},                    // first byte of the firmware model
      {59, {0x23}},                    // volume
      {60, {0x00, 0xf1, 0x53, 0x65}},  // clock, little-endian: 1700000000
      {66, {0x08}},                    // gun state
  }));
  EXPECT_EQ(rows[kPostNumber], "获取系统信息");
  EXPECT_EQ(rows[kPostType], "双枪");
  EXPECT_EQ(rows[kMaker], "Velmora");
  EXPECT_EQ(rows[kMagic], "256");
  EXPECT_EQ(rows[kProtocol], "1.5");
  EXPECT_EQ(rows[kFirmware], "2.0.10");
  EXPECT_EQ(rows[kModel], "70000000000000000000");
  EXPECT_EQ(rows[kVolume], "35");
  EXPECT_EQ(rows[kClock], "2023-11-14 22:13:20");
  EXPECT_EQ(rows[kGun], "充电结束未拔枪");
}

TEST(SystemInfoAnswer, LogsPostNumberVolumeDigitsAndChargingModeInThatOrder) {
  test::LogCapture log;
  // Byte 54 is both the charging mode and part of the firmware model.
  const auto rows =
      decode::systemInfo(answer({{8, {0x01, 0x00, 0x0c, 0x22}}, {54, {0x01}}, {59, {0x4b}}}));
  EXPECT_EQ(log.lines, (std::vector<std::string>{"桩号:  1012340000000000000000",
                                                 "获取的音量大小: 4b", "充电模式: 01"}));
  EXPECT_EQ(rows[kModel], "00000000000000010000");
  EXPECT_EQ(rows[kVolume], "75");
}

TEST(SystemInfoAnswer, LooksUpEveryPostType) {
  const std::pair<std::uint8_t, const char*> cases[] = {
      {0x01, "单枪"},       {0x02, "双枪"}, {0x03, "多枪"}, {0x04, "单枪广告桩"},
      {0x05, "双枪广告桩"}, {0x00, "--"},   {0x06, "--"},   {0xff, "--"}};
  for (const auto& [code, text] : cases) {
    EXPECT_EQ(decode::systemInfo(answer({{28, {code}}}))[kPostType], text) << int(code);
  }
}

TEST(SystemInfoAnswer, LooksUpEveryGunStateButNeverMatchesTheFaultCode) {
  const std::pair<std::uint8_t, const char*> cases[] = {
      {0x00, "空闲中"}, {0x01, "插枪未充电"}, {0x06, "充电中"}, {0x08, "充电结束未拔枪"},
      {0x0f, "--"},     {0x02, "--"},         {0xff, "--"}};
  for (const auto& [code, text] : cases) {
    EXPECT_EQ(decode::systemInfo(answer({{66, {code}}}))[kGun], text) << int(code);
  }
}

TEST(SystemInfoAnswer, NamesTheMakerOnlyForCode102) {
  EXPECT_EQ(decode::systemInfo(answer({{29, {0x66}}}))[kMaker], "Velmora");
  EXPECT_EQ(decode::systemInfo(answer({{29, {0x65}}}))[kMaker], "未知");
  EXPECT_EQ(decode::systemInfo(answer({{29, {0x00}}}))[kMaker], "未知");
}

TEST(SystemInfoAnswer, ReadsTheClockAsSignedSecondsAndTheMagicNumberUnsigned) {
  EXPECT_EQ(decode::systemInfo(answer({}))[kClock], "1970-01-01 00:00:00");
  const auto rows =
      decode::systemInfo(answer({{30, {0xff, 0xff, 0xff, 0xff}}, {60, {0xff, 0xff, 0xff, 0xff}}}));
  EXPECT_EQ(rows[kClock], "1969-12-31 23:59:59");
  EXPECT_EQ(rows[kMagic], "4294967295");
}

TEST(SystemInfoAnswer, RejectsAShortAnswerAndIgnoresBytesBeyondTheGunState) {
  EXPECT_THROW(decode::systemInfo(answer({}, 66)), std::out_of_range);
  EXPECT_EQ(decode::systemInfo(answer({{66, {0x01}}, {67, {0x06}}}, 70))[kGun], "插枪未充电");
}

TEST(SystemInfoDecoder, AppendsTheSameTenRowObjectsOnEveryAnswer) {
  FakeStack stack;
  auto& m = *stack.manager;
  m.analysisQuerySystemInfo(answer({{59, {0x10}}}));
  m.analysisQuerySystemInfo(answer({{59, {0x20}}, {66, {0x06}}}));

  const auto& rows = m.systemTitleArr();
  ASSERT_EQ(m.systemInfoModelList().size(), 20u);
  for (std::size_t i = 0; i < 20; ++i) EXPECT_EQ(m.systemInfoModelList()[i], rows[i % 10]) << i;
  EXPECT_EQ(rows[kPostNumber]->title, "桩号");
  EXPECT_EQ(rows[kPostNumber]->content, "获取系统信息");
  EXPECT_EQ(rows[kVolume]->title, "音量大小");
  EXPECT_EQ(rows[kVolume]->content, "32") << "every entry shows the latest answer";
  EXPECT_EQ(rows[kGun]->content, "充电中");
  EXPECT_EQ(m.dataModel()->result, nullptr);
  EXPECT_EQ(m.dataModel()->chargingData, nullptr);
}

TEST(SystemInfoDecoder, RunsWhenTheQueryAnswerCompletesInChunks) {
  FakeStack stack;
  auto post = stack.connectReadyPost();
  stack.manager->querySystemInfoWithError(nullptr);
  const Bytes whole = answer({{28, {0x05}}});
  for (std::size_t at = 0; at < whole.size(); at += 20) {
    stack.notify(
        post, Bytes(whole.begin() + static_cast<std::ptrdiff_t>(at),
                    whole.begin() + static_cast<std::ptrdiff_t>(std::min(at + 20, whole.size()))));
  }
  ASSERT_EQ(stack.manager->systemInfoModelList().size(), 10u);
  EXPECT_EQ(stack.manager->systemTitleArr()[kPostType]->content, "双枪广告桩");
}

}  // namespace
}  // namespace tqble
