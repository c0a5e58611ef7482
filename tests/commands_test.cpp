#include <gtest/gtest.h>

#include "support/Commands.h"
#include "support/FakeBle.h"
#include "support/Hex.h"
#include "platform/DateFormat.h"

namespace tqble {
namespace {

using test::CommandRow;
using test::FakeStack;
using test::kCommandRows;
using test::hex;
using test::spaced;

// The same commands with other arguments: a one-digit volume travels as an empty body,
// volumes of two or three digits as the byte of their first two, reservation fields as
// their low 8 bits.
struct ArgumentCase {
  const char* name;
  void (*issue)(TQBleManager&);
  const char* frame;
};
// clang-format off
const ArgumentCase kArguments[] = {
    {"volume5", [](auto& m) { m.setVolumeWithVolumeSize(5, nullptr); }, "68 B2 00 00 00 00 00 DA"},
    {"volume10", [](auto& m) { m.setVolumeWithVolumeSize(10, nullptr); }, "68 B2 00 00 01 00 00 CB 10"},
    {"volume100", [](auto& m) { m.setVolumeWithVolumeSize(100, nullptr); }, "68 B2 00 00 01 00 00 CB 10"},
    {"orderLow8Bits", [](auto& m) { m.orderChargerWithStartHour(256 + 22, 30, 6 - 256, 0, nullptr); },
     "68 B3 00 00 05 00 00 D1 01 16 1E 06 00"},
    {"syncPast2038", [](auto& m) { m.synchroTimeWithError(nullptr); }, "68 B0 00 00 04 00 00 5C FF FF FF 7F"},
};
// clang-format on

TEST(CommandArguments, ShapeTheBodyAsThePostReadsIt) {
  FakeStack stack;
  auto post = stack.connectReadyPost();
  detail::setNowSource([] { return 4'000'000'000.4; });  // past 2038: read as INT32_MAX
  for (const auto& c : kArguments) {
    c.issue(*stack.manager);
    EXPECT_EQ(spaced(post->writes.back().data), spaced(hex(c.frame))) << c.name;
  }
  detail::setNowSource(nullptr);
  EXPECT_EQ(post->writes.size(), std::size(kArguments));
}

class Command : public testing::TestWithParam<CommandRow> {
 protected:
  // The time sync carries the clock: every frame is issued at the same instant.
  void SetUp() override { detail::setNowSource([] { return 1'700'000'000.2; }); }
  void TearDown() override { detail::setNowSource(nullptr); }
};

// Then once more with the status and seed properties set (the system query ignores them),
// and over a gathering buffer that only some commands clear.
TEST_P(Command, WritesItsExactFrameRecordsItsTagAndClearsTheBufferOnlyWhereItMust) {
  FakeStack stack;
  auto post = stack.connectReadyPost();
  const auto& c = GetParam();
  int failures = 0;
  c.issue(*stack.manager, [&](const TQError&) { ++failures; });
  stack.manager->setStatusCode(0x07);
  stack.manager->setRand(0x5A);
  stack.manager->systemInfoData() = hex("68 b1 00");
  c.issue(*stack.manager, nullptr);
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(stack.manager->cmdType(), c.tag);
  EXPECT_EQ(stack.manager->systemInfoData().empty(), c.clearsBuffer);
  ASSERT_EQ(post->writes.size(), 2u);
  EXPECT_EQ(spaced(post->writes[0].data), spaced(hex(c.frame)));
  EXPECT_EQ(spaced(post->writes[1].data), spaced(hex(c.seededFrame)));
  EXPECT_EQ(post->writes[0].type, ble::WriteType::WithoutResponse);
}

TEST_P(Command, FailsLocallyOnceWithItsTagAlreadyRecorded) {
  FakeStack stack;
  std::vector<TQError> errors;
  const TQErrorHandler record = [&](const TQError& e) { errors.push_back(e); };
  GetParam().issue(*stack.manager, record);  // not connected
  EXPECT_EQ(stack.manager->cmdType(), GetParam().tag);
  auto post = std::make_shared<test::FakePeripheral>();
  stack.manager->didConnectPeripheral(*stack.central, post);
  GetParam().issue(*stack.manager, record);  // connected, characteristics unknown
  ASSERT_EQ(errors.size(), 2u);
  EXPECT_EQ(errors[0], (TQError{"没有连接的外设", 1002, {}}));
  EXPECT_EQ(errors[1], (TQError{"蓝牙写入特征为空，请检查蓝牙连接设备", 1001, {}}));
  EXPECT_TRUE(post->writes.empty());
}

INSTANTIATE_TEST_SUITE_P(Catalogue, Command, testing::ValuesIn(kCommandRows),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(CommandSequence, ASecondCommandOverwritesThePendingTagAndKeepsGatheredBytes) {
  FakeStack stack;
  auto post = stack.connectReadyPost();
  stack.manager->queryHistoryChargingListWithError(nullptr);
  stack.notify(post, Bytes(20, 0x01));  // a full piece: the history answer waits for more
  stack.manager->queryHistoryErrorLogListWithError(nullptr);
  EXPECT_EQ(stack.manager->cmdType(), 15);
  EXPECT_EQ(stack.manager->systemInfoData().size(), 20u);
}

}  // namespace
}  // namespace tqble
