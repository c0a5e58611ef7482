// Discovery of the post's service and characteristics, end to end through the simulator.
#include <gtest/gtest.h>

#include <algorithm>

#include "support/LogCapture.h"
#include "support/SimSession.h"

namespace tqble {
namespace {

using test::LogCapture;
using test::SimSession;
using namespace std::chrono_literals;

const std::string kWriteNoResponse = "************ CBCharacteristicPropertyWriteWithoutResponse";
const std::string kWrite = "************ CBCharacteristicPropertyWrite";
const std::string kRead = "************ CBCharacteristicPropertyRead";
const std::string kNotify = "************ CBCharacteristicPropertyNotify";

struct OrderCase {
  const char* name;
  bool readFirst;
  std::vector<std::string> lines;
};

class CharacteristicOrder : public testing::TestWithParam<OrderCase> {};

TEST_P(CharacteristicOrder, StoresBothAndLogsTheirPropertiesInThePostsOrder) {
  LogCapture log;
  SimSession s;
  s.post->faults().readCharacteristicFirst = GetParam().readFirst;
  s.connect();
  ASSERT_NE(s.manager->readCharacteristic(), nullptr);
  ASSERT_NE(s.manager->writeCharacteristic(), nullptr);
  EXPECT_EQ(s.manager->readCharacteristic()->uuid().UUIDString(), "FFF4");
  EXPECT_EQ(s.manager->writeCharacteristic()->uuid().UUIDString(), "FFF3");
  EXPECT_EQ(log.lines, GetParam().lines);
  s.run(3s);
  EXPECT_EQ(s.tapped.size(), 1u) << "notifications were switched on";
}

INSTANTIATE_TEST_SUITE_P(
    Discovery, CharacteristicOrder,
    testing::Values(OrderCase{"WriteFirst", false, {kWriteNoResponse, kWrite, kRead, kNotify}},
                    OrderCase{"ReadFirst", true, {kRead, kNotify, kWriteNoResponse, kWrite}}),
    test::caseName);

TEST(Discovery, AFailedInitialReadReachesTheDelegateOnceWithTheErrorAndIsLogged) {
  LogCapture log;
  SimSession s;
  const TQError error{"Reading failed.", 14, {}};
  s.post->faults().readError = error;
  s.connect();
  EXPECT_EQ(s.log.updateErrors, (std::vector<std::optional<TQError>>{error}));
  EXPECT_EQ(s.log.updates[0]->result, nullptr);
  EXPECT_EQ(s.manager->cmdType(), 0);
  EXPECT_EQ(std::count(log.lines.begin(), log.lines.end(), "读取特征值有误"), 1);
}

struct MissingCase {
  const char* name;
  void (*breakIt)(sim::Faults&);
  bool readKnown;
  bool writeKnown;
  std::size_t logLines;
};

class MissingAttribute : public testing::TestWithParam<MissingCase> {};

TEST_P(MissingAttribute, LeavesTheCharacteristicUnsetAndCommandsFailWithNoWriteCharacteristic) {
  const MissingCase& c = GetParam();
  LogCapture log;
  SimSession s;
  c.breakIt(s.post->faults());
  s.connect();
  EXPECT_EQ(s.manager->readCharacteristic() != nullptr, c.readKnown);
  EXPECT_EQ(s.manager->writeCharacteristic() != nullptr, c.writeKnown);
  EXPECT_EQ(log.lines.size(), c.logLines);
  s.manager->queryChargerStateWithError(s.onError());
  s.run(4s);  // with a read characteristic missing the answers are never heard
  const TQError noWrite{"蓝牙写入特征为空，请检查蓝牙连接设备", 1001, {}};
  EXPECT_EQ(s.errors, c.writeKnown ? std::vector<TQError>{} : std::vector{noWrite});
  EXPECT_EQ(s.tapped.empty(), !(c.readKnown && c.writeKnown));
}

INSTANTIATE_TEST_SUITE_P(
    Discovery, MissingAttribute,
    testing::Values(
        MissingCase{"NoService", [](sim::Faults& f) { f.missingService = true; }, false, false, 0},
        MissingCase{"LowerCaseService", [](sim::Faults& f) { f.lowerCaseIdentifiers = {"FFF0"}; },
                    false, false, 0},
        MissingCase{"LowerCaseRead", [](sim::Faults& f) { f.lowerCaseIdentifiers = {"FFF4"}; },
                    false, true, 2},
        MissingCase{"LowerCaseWrite", [](sim::Faults& f) { f.lowerCaseIdentifiers = {"FFF3"}; },
                    true, false, 2}),
    test::caseName);

struct DiscoveryErrorCase {
  const char* name;
  bool services;
  const char* line;
};

class DiscoveryError : public testing::TestWithParam<DiscoveryErrorCase> {};

TEST_P(DiscoveryError, LogsOnceAndKeepsTheCharacteristicsOfTheEarlierLink) {
  SimSession s;
  auto peripheral = s.connectAndSettle();
  const auto read = s.manager->readCharacteristic();
  const auto write = s.manager->writeCharacteristic();
  s.manager->stopConnectPeripheral(peripheral, nullptr);
  s.run(100ms);
  const TQError error{"Discovery failed.", 3, {}};
  (GetParam().services ? s.post->faults().serviceDiscoveryError
                       : s.post->faults().characteristicDiscoveryError) = error;
  LogCapture log;
  s.manager->startConnectPeripheral(peripheral);
  s.run(4s);
  EXPECT_EQ(log.lines, std::vector<std::string>{GetParam().line});
  EXPECT_EQ(s.manager->readCharacteristic(), read);
  EXPECT_EQ(s.manager->writeCharacteristic(), write);
  EXPECT_EQ(s.log.connects, 1);
  EXPECT_TRUE(s.log.disconnects.size() == 1 && s.log.failures.empty()) << "nothing but the stop";
  EXPECT_TRUE(s.tapped.empty()) << "the query went to the earlier link's characteristic";
}

INSTANTIATE_TEST_SUITE_P(Discovery, DiscoveryError,
                         testing::Values(DiscoveryErrorCase{"Services", true, "发现服务失败"},
                                         DiscoveryErrorCase{"Characteristics", false,
                                                            "发现特征失败"}),
                         test::caseName);

}  // namespace
}  // namespace tqble
