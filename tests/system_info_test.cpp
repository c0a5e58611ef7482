#include <gtest/gtest.h>

#include <stdexcept>

#include "support/FakeBle.h"
#include "support/LogCapture.h"
#include "tqble/AnswerDecoding.h"

namespace tqble {
namespace {

// A 67-byte answer, zero everywhere except the bytes placed at frame offsets.
Bytes answer(std::initializer_list<std::pair<std::size_t, Bytes>> fields, std::size_t size = 67) {
  Bytes frame(size, 0);
  frame[0] = 0x68;
  frame[1] = 0xB1;
  for (const auto& [at, bytes] : fields) std::copy(bytes.begin(), bytes.end(), frame.begin() + at);
  return frame;
}

enum Row { kPostType = 1, kMaker, kMagic, kModel = 6, kVolume, kClock, kGun };

TEST(SystemInfoAnswer, ReadsEachFieldLooksUpCodesAndLogsTheChargingModeThatOverlapsTheModel) {
  test::LogCapture log;
  // clang-format off
  const std::array<std::string, 10> expected = {"获取系统信息", "双枪", "Velmora", "256", "1.5",
      "2.0.10", "70000000000000010000", "35", "2023-11-14 22:13:20", "充电结束未拔枪"};
  EXPECT_EQ(decode::systemInfo(answer({
                {8, {0x01, 0x00, 0x0c, 0x22}}, {28, {0x02}}, {29, {0x66}},  // post number, type, maker
                {30, {0x00, 0x00, 0x01, 0x00}},                             // magic number, big-endian
                {34, {0x05, 0x01}}, {36, {0x0a, 0x00, 0x02}},               // protocol, firmware: last first
                {39, {0x07}}, {54, {0x01}}, {59, {0x23}},                   // model, charging mode in it, volume
                {60, {0x00, 0xf1, 0x53, 0x65}}, {66, {0x08}},               // clock little-endian, gun state
            })), expected);
  // clang-format on
  EXPECT_EQ(log.lines, (std::vector<std::string>{"桩号:  1012340000000000000000",
                                                 "获取的音量大小: 23", "充电模式: 01"}));
  // clang-format off
  const std::tuple<std::size_t, Bytes, int, const char*> cases[] = {
      {28, {0x05}, kPostType, "双枪广告桩"}, {28, {0x00}, kPostType, "--"}, {28, {0x06}, kPostType, "--"},
      {66, {0x00}, kGun, "空闲中"}, {66, {0x02}, kGun, "--"},
      {66, {0x0f}, kGun, "--"},  // the fault code is compared as "0F" and never matches
      {29, {0x65}, kMaker, "未知"},
      {60, {0xff, 0xff, 0xff, 0xff}, kClock, "1969-12-31 23:59:59"}, {30, {0xff, 0xff, 0xff, 0xff}, kMagic, "4294967295"},
  };
  // clang-format on
  for (const auto& [offset, bytes, row, text] : cases) {
    EXPECT_EQ(decode::systemInfo(answer({{offset, bytes}}))[row], text) << offset;
  }
  EXPECT_THROW(decode::systemInfo(answer({}, 66)), std::out_of_range);
  EXPECT_EQ(decode::systemInfo(answer({{66, {0x01}}, {67, {0x06}}}, 70))[kGun], "插枪未充电");
}

TEST(SystemInfoDecoder, AppendsTheSameTenRowObjectsOnEveryAnswerAndLeavesTheDataModel) {
  test::FakeStack stack;
  auto& m = *stack.manager;
  m.analysisQuerySystemInfo(answer({{59, {0x10}}}));
  m.analysisQuerySystemInfo(answer({{59, {0x20}}}));
  const auto& rows = m.systemTitleArr();
  ASSERT_EQ(m.systemInfoModelList().size(), 20u);
  for (std::size_t i = 0; i < 20; ++i) EXPECT_EQ(m.systemInfoModelList()[i], rows[i % 10]) << i;
  EXPECT_EQ(rows[kVolume]->content, "32") << "every entry shows the latest answer";
  EXPECT_TRUE(!m.dataModel()->result && !m.dataModel()->chargingData);
}

}  // namespace
}  // namespace tqble
