// Discovery of the post's service and characteristics, end to end through the simulator.
#include <gtest/gtest.h>

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

void PrintTo(const OrderCase& c, std::ostream* os) { *os << c.name; }

class CharacteristicOrder : public testing::TestWithParam<OrderCase> {};

TEST_P(CharacteristicOrder, StoresBothAndLogsTheirPropertiesInThePostsOrder) {
  LogCapture log;
  SimSession s;
  s.post->faults().readCharacteristicFirst = GetParam().readFirst;
  s.connect();
  ASSERT_NE(s.manager->readCharacteristic(), nullptr);
  ASSERT_NE(s.manager->writeCharacteristic(), nullptr);
  EXPECT_EQ(s.manager->readCharacteristic()->uuid().UUIDString(), "FFF4");
  EXPECT_EQ(s.manager->readCharacteristic()->properties(), 0x12u);
  EXPECT_EQ(s.manager->writeCharacteristic()->uuid().UUIDString(), "FFF3");
  EXPECT_EQ(log.lines, GetParam().lines);
  s.run(3s);
  EXPECT_EQ(s.tapped.size(), 1u) << "notifications were switched on";
}

INSTANTIATE_TEST_SUITE_P(
    Discovery, CharacteristicOrder,
    testing::Values(OrderCase{"WriteFirst", false, {kWriteNoResponse, kWrite, kRead, kNotify}},
                    OrderCase{"ReadFirst", true, {kRead, kNotify, kWriteNoResponse, kWrite}}),
    [](const auto& info) { return info.param.name; });

TEST(Discovery, TheInitialReadIsIgnoredWithNothingPendingButStillReachesTheDelegate) {
  sim::PostSetup setup;
  SimSession s;
  SimSession::radio().removePost(s.post);
  setup.initialReadValue = {0x68, 0xB5, 0x00};
  s.post = SimSession::radio().addPost(setup);
  s.connect();
  ASSERT_EQ(s.log.updates.size(), 1u);
  EXPECT_EQ(s.log.updateErrors[0], std::nullopt);
  EXPECT_EQ(s.log.updates[0]->result, nullptr);
  EXPECT_EQ(s.log.updates[0]->chargingData, nullptr);
  EXPECT_EQ(s.manager->cmdType(), 0);
  EXPECT_TRUE(s.manager->systemInfoData().empty());
  EXPECT_TRUE(s.tapped.empty());
}

TEST(Discovery, AFailedReadLogsAndPassesThePlatformErrorOn) {
  LogCapture log;
  SimSession s;
  const TQError error{"Reading failed.", 14, {}};
  s.post->faults().readError = error;
  s.connect();
  ASSERT_EQ(s.log.updates.size(), 1u);
  EXPECT_EQ(s.log.updateErrors[0], error);
  EXPECT_EQ(std::count(log.lines.begin(), log.lines.end(), "读取特征值有误"), 1);
}

struct MissingCase {
  const char* name;
  void (*breakIt)(sim::Faults&);
  bool readKnown;
  bool writeKnown;
  std::size_t logLines;
};

void PrintTo(const MissingCase& c, std::ostream* os) { *os << c.name; }

class MissingAttribute : public testing::TestWithParam<MissingCase> {};

TEST_P(MissingAttribute, LeavesTheCharacteristicUnsetAndCommandsFailWithNoWriteCharacteristic) {
  LogCapture log;
  SimSession s;
  GetParam().breakIt(s.post->faults());
  s.connect();
  EXPECT_EQ(s.manager->readCharacteristic() != nullptr, GetParam().readKnown);
  EXPECT_EQ(s.manager->writeCharacteristic() != nullptr, GetParam().writeKnown);
  EXPECT_EQ(log.lines.size(), GetParam().logLines);
  if (!GetParam().writeKnown) {
    std::vector<TQError> errors;
    s.manager->queryChargerStateWithError([&errors](const TQError& e) { errors.push_back(e); });
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].code, 1001);
    EXPECT_EQ(errors[0].domain, "蓝牙写入特征为空，请检查蓝牙连接设备");
  }
  if (!GetParam().readKnown) {
    s.run(4s);  // the automatic query is written, but its answer is never heard
    EXPECT_TRUE(s.tapped.empty());
    EXPECT_TRUE(s.log.updates.empty());
  }
}

INSTANTIATE_TEST_SUITE_P(
    Discovery, MissingAttribute,
    testing::Values(
        MissingCase{"NoService", [](sim::Faults& f) { f.missingService = true; }, false, false, 0},
        MissingCase{"LowerCaseService", [](sim::Faults& f) { f.lowerCaseIdentifiers = {"FFF0"}; }, false,
                    false, 0},
        MissingCase{"NoWriteCharacteristic", [](sim::Faults& f) { f.missingWriteCharacteristic = true; },
                    true, false, 2},
        MissingCase{"NoReadCharacteristic", [](sim::Faults& f) { f.missingReadCharacteristic = true; },
                    false, true, 2},
        MissingCase{"LowerCaseReadCharacteristic",
                    [](sim::Faults& f) { f.lowerCaseIdentifiers = {"FFF4"}; }, false, true, 2},
        MissingCase{"LowerCaseWriteCharacteristic",
                    [](sim::Faults& f) { f.lowerCaseIdentifiers = {"FFF3"}; }, true, false, 2}),
    [](const auto& info) { return info.param.name; });

TEST(Discovery, ALowerCaseIdentifierIsPresentedAsGiven) {
  SimSession s;
  s.post->faults().lowerCaseIdentifiers = {"FFF4"};
  s.connect();
  const auto services = s.manager->connectedPheral()->services();
  ASSERT_EQ(services.size(), 2u);
  EXPECT_EQ(services[0]->uuid().UUIDString(), "180A");
  const auto characteristics = services[1]->characteristics();
  ASSERT_EQ(characteristics.size(), 2u);
  EXPECT_EQ(characteristics[1]->uuid().UUIDString(), "fff4");
}

struct DiscoveryErrorCase {
  const char* name;
  bool services;
  const char* line;
};

void PrintTo(const DiscoveryErrorCase& c, std::ostream* os) { *os << c.name; }

class DiscoveryError : public testing::TestWithParam<DiscoveryErrorCase> {};

TEST_P(DiscoveryError, LogsOnceAndKeepsTheCharacteristicsOfTheEarlierLink) {
  SimSession s;
  auto peripheral = s.connectAndSettle();
  const auto read = s.manager->readCharacteristic();
  const auto write = s.manager->writeCharacteristic();
  s.manager->stopConnectPeripheral(peripheral, nullptr);
  s.run(100ms);

  const TQError error{"Discovery failed.", 3, {}};
  if (GetParam().services) {
    s.post->faults().serviceDiscoveryError = error;
  } else {
    s.post->faults().characteristicDiscoveryError = error;
  }
  LogCapture log;
  s.manager->startConnectPeripheral(peripheral);
  s.run(500ms);
  EXPECT_EQ(log.lines, std::vector<std::string>{GetParam().line});
  EXPECT_EQ(s.manager->readCharacteristic(), read);
  EXPECT_EQ(s.manager->writeCharacteristic(), write);
  EXPECT_EQ(s.log.connects, 1);
  EXPECT_TRUE(s.log.disconnects.size() == 1 && s.log.failures.empty()) << "nothing but the stop";

  // The stale write characteristic belongs to the earlier link: the write goes nowhere.
  const auto writes = s.post->receivedWrites().size();
  int failures = 0;
  s.manager->queryChargerStateWithError([&failures](const TQError&) { ++failures; });
  s.run(1s);
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(s.post->receivedWrites().size(), writes);
}

INSTANTIATE_TEST_SUITE_P(Discovery, DiscoveryError,
                         testing::Values(DiscoveryErrorCase{"Services", true, "发现服务失败"},
                                         DiscoveryErrorCase{"Characteristics", false, "发现特征失败"}),
                         [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace tqble
