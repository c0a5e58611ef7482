#include <gtest/gtest.h>

#include "support/FakeBle.h"
#include "support/Hex.h"
#include "platform/DateFormat.h"

namespace tqble {
namespace {

using test::FakeStack;
using test::hex;
using test::spaced;

struct CommandCase {
  const char* name;
  std::function<void(TQBleManager&, const TQErrorHandler&)> issue;
  std::int64_t cmdType;
  const char* frame;        // status 0, seed 0
  const char* seededFrame;  // status 0x07, seed 0x5A
  bool clearsBuffer;
};

void PrintTo(const CommandCase& c, std::ostream* os) {
  *os << c.name;
}

const CommandCase kCommands[] = {
    {"synchroTime",
     [](auto& m, auto& e) {
       detail::setNowSource([] { return 1'700'000'000.2; });
       m.synchroTimeWithError(e);
       detail::setNowSource(nullptr);
     },
     1, "68 B0 00 00 04 00 00 1B 00 F1 53 65", "68 B0 07 00 04 00 00 46 00 F1 53 65", false},
    {"querySystemInfo", [](auto& m, auto& e) { m.querySystemInfoWithError(e); }, 2,
     "68 B1 00 00 01 00 00 D8 00", "68 B1 00 00 01 00 00 D8 00", true},
    {"setVolume35", [](auto& m, auto& e) { m.setVolumeWithVolumeSize(35, e); }, 3,
     "68 B2 00 00 01 00 00 EE 35", "68 B2 07 00 01 00 00 B3 35", false},
    {"setVolume5", [](auto& m, auto& e) { m.setVolumeWithVolumeSize(5, e); }, 3,
     "68 B2 00 00 00 00 00 DA", "68 B2 07 00 00 00 00 87", false},
    {"setVolume10", [](auto& m, auto& e) { m.setVolumeWithVolumeSize(10, e); }, 3,
     "68 B2 00 00 01 00 00 CB 10", "68 B2 07 00 01 00 00 96 10", false},
    {"setVolume100", [](auto& m, auto& e) { m.setVolumeWithVolumeSize(100, e); }, 3,
     "68 B2 00 00 01 00 00 CB 10", "68 B2 07 00 01 00 00 96 10", false},
    {"orderCharger", [](auto& m, auto& e) { m.orderChargerWithStartHour(22, 30, 6, 0, e); }, 4,
     "68 B3 00 00 05 00 00 D1 01 16 1E 06 00", "68 B3 07 00 05 00 00 8C 01 16 1E 06 00", false},
    {"orderChargerLow8Bits",
     [](auto& m, auto& e) { m.orderChargerWithStartHour(256 + 22, 30, 6 - 256, 0, e); }, 4,
     "68 B3 00 00 05 00 00 D1 01 16 1E 06 00", "68 B3 07 00 05 00 00 8C 01 16 1E 06 00", false},
    {"startCharging", [](auto& m, auto& e) { m.startChargingWithError(e); }, 5,
     "68 B4 00 00 02 00 00 DE 00 00", "68 B4 07 00 02 00 00 83 00 00", false},
    {"queryChargerState", [](auto& m, auto& e) { m.queryChargerStateWithError(e); }, 6,
     "68 B5 00 00 01 00 00 DC 00", "68 B5 07 00 01 00 00 81 00", true},
    {"stopCharge", [](auto& m, auto& e) { m.stopChargeWithError(e); }, 7,
     "68 B6 00 00 01 00 00 DF 00", "68 B6 07 00 01 00 00 82 00", false},
    {"queryChargingData", [](auto& m, auto& e) { m.queryChargingDataWithError(e); }, 6,
     "68 B5 00 00 01 00 00 DC 00", "68 B5 07 00 01 00 00 81 00", false},
    {"queryHistoryChargingList", [](auto& m, auto& e) { m.queryHistoryChargingListWithError(e); },
     8, "68 B7 00 00 01 00 00 DE 00", "68 B7 07 00 01 00 00 83 00", false},
    {"queryCumulationElecQuantity",
     [](auto& m, auto& e) { m.queryCumulationElecQuantityWithError(e); }, 9,
     "68 B8 00 00 01 00 00 D1 00", "68 B8 07 00 01 00 00 8C 00", false},
    {"queryHistoryErrorLogList", [](auto& m, auto& e) { m.queryHistoryErrorLogListWithError(e); },
     15, "68 34 00 00 03 00 00 5E 01 00 00", "68 34 07 00 03 00 00 03 01 00 00", false},
    {"runningDiagnosticInfo", [](auto& m, auto& e) { m.runningDiagnosticInfoWithError(e); }, 13,
     "68 32 00 00 01 00 00 5B 00", "68 32 07 00 01 00 00 06 00", false},
};

class Command : public testing::TestWithParam<CommandCase> {};

TEST_P(Command, WritesItsExactFrameAndRecordsItsTag) {
  FakeStack stack;
  auto post = stack.connectReadyPost();
  const auto& c = GetParam();
  int failures = 0;
  c.issue(*stack.manager, [&](const TQError&) { ++failures; });
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(stack.manager->cmdType(), c.cmdType);
  ASSERT_EQ(post->writes.size(), 1u);
  EXPECT_EQ(spaced(post->writes[0].data), spaced(hex(c.frame)));
  EXPECT_EQ(post->writes[0].type, ble::WriteType::WithoutResponse);
}

TEST_P(Command, CarriesStatusAndSeedPropertiesExceptTheSystemQuery) {
  FakeStack stack;
  auto post = stack.connectReadyPost();
  stack.manager->setStatusCode(0x07);
  stack.manager->setRand(0x5A);
  GetParam().issue(*stack.manager, nullptr);
  ASSERT_EQ(post->writes.size(), 1u);
  EXPECT_EQ(spaced(post->writes[0].data), spaced(hex(GetParam().seededFrame)));
}

TEST_P(Command, ClearsTheReassemblyBufferOnlyWhereItMust) {
  FakeStack stack;
  stack.connectReadyPost();
  stack.manager->systemInfoData() = hex("68 b1 00");
  GetParam().issue(*stack.manager, nullptr);
  EXPECT_EQ(stack.manager->systemInfoData().empty(), GetParam().clearsBuffer);
}

TEST_P(Command, FailsLocallyOnceWithItsTagAlreadyRecorded) {
  FakeStack stack;
  std::vector<TQError> errors;
  const TQErrorHandler record = [&](const TQError& e) { errors.push_back(e); };
  GetParam().issue(*stack.manager, record);  // not connected
  EXPECT_EQ(stack.manager->cmdType(), GetParam().cmdType);
  auto post = std::make_shared<test::FakePeripheral>();
  stack.manager->didConnectPeripheral(*stack.central, post);
  GetParam().issue(*stack.manager, record);  // connected, characteristics unknown
  ASSERT_EQ(errors.size(), 2u);
  EXPECT_EQ(errors[0], (TQError{"没有连接的外设", 1002, {}}));
  EXPECT_EQ(errors[1], (TQError{"蓝牙写入特征为空，请检查蓝牙连接设备", 1001, {}}));
  EXPECT_TRUE(post->writes.empty());
}

INSTANTIATE_TEST_SUITE_P(Catalogue, Command, testing::ValuesIn(kCommands),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(SynchroTime, SendsTheClockAsSecondsSaturatingAtTheInt32Range) {
  FakeStack stack;
  auto post = stack.connectReadyPost();
  detail::setNowSource([] { return 4'000'000'000.4; });  // past 2038: read as INT32_MAX
  stack.manager->synchroTimeWithError(nullptr);
  detail::setNowSource(nullptr);
  ASSERT_EQ(post->writes.size(), 1u);
  EXPECT_EQ(spaced(post->writes[0].data), "68 B0 00 00 04 00 00 5C FF FF FF 7F");
}

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
