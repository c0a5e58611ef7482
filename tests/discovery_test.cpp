// Discovery of the post's service and characteristics, end to end through the simulator.
#include <gtest/gtest.h>

#include "support/LogCapture.h"
#include "support/SimSession.h"

namespace tqble {
namespace {

using test::LogCapture;
using test::SimSession;
using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

const std::string kWriteNoResponse = "************ CBCharacteristicPropertyWriteWithoutResponse";
const std::string kWrite = "************ CBCharacteristicPropertyWrite";
const std::string kRead = "************ CBCharacteristicPropertyRead";
const std::string kNotify = "************ CBCharacteristicPropertyNotify";

struct FoundCase {
  const char* name;
  void (*prepare)(sim::Faults&);
  bool readKnown, writeKnown;
  Lines lines;              // the properties logged, in the post's order
  test::Errors readErrors;  // what the initial read reports, once
};

constexpr auto none = std::nullopt;
const TQError kReadError{"Reading failed.", 14, {}};

class Characteristics : public testing::TestWithParam<FoundCase> {};

// The initial read reports to the delegate once. With either characteristic missing no
// answer is heard; without the write one, commands fail locally.
TEST_P(Characteristics, AreStoredInEitherOrderOnlyByUpperCaseIdentifierAndTheirPropertiesLogged) {
  const FoundCase& c = GetParam();
  LogCapture log;
  SimSession s;
  c.prepare(s.post->faults());
  s.connect();
  EXPECT_EQ(s.manager->readCharacteristic() != nullptr, c.readKnown);
  EXPECT_EQ(s.manager->writeCharacteristic() != nullptr, c.writeKnown);
  EXPECT_EQ(log.lines, c.lines);
  EXPECT_EQ(s.log.updateErrors, c.readErrors);
  EXPECT_EQ(s.manager->cmdType(), 0);
  s.manager->queryChargerStateWithError(s.onError());
  s.run(4s);
  const TQError noWrite{"蓝牙写入特征为空，请检查蓝牙连接设备", 1001, {}};
  EXPECT_EQ(s.errors, c.writeKnown ? std::vector<TQError>{} : std::vector{noWrite});
  EXPECT_EQ(s.tapped.size(), c.readKnown && c.writeKnown ? 2u : 0u) << "the query and the state";
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Discovery, Characteristics, testing::Values(
    FoundCase{"WriteFirst", [](sim::Faults&) {}, true, true, {kWriteNoResponse, kWrite, kRead, kNotify}, {none}},
    FoundCase{"ReadFirst", [](sim::Faults& f) { f.readCharacteristicFirst = true; }, true, true, {kRead, kNotify, kWriteNoResponse, kWrite}, {none}},
    FoundCase{"LowerCaseService", [](sim::Faults& f) { f.lowerCaseIdentifiers = {"FFF0"}; }, false, false, {}, {}},
    FoundCase{"LowerCaseRead", [](sim::Faults& f) { f.lowerCaseIdentifiers = {"FFF4"}; }, false, true, {kWriteNoResponse, kWrite}, {}},
    FoundCase{"LowerCaseWrite", [](sim::Faults& f) { f.lowerCaseIdentifiers = {"FFF3"}; }, true, false, {kRead, kNotify}, {none}},
    FoundCase{"ReadFails", [](sim::Faults& f) { f.readError = kReadError; }, true, true, {kWriteNoResponse, kWrite, kRead, kNotify, "读取特征值有误"}, {kReadError}}),
    test::caseName);
// clang-format on

struct ErrorCase {
  const char* name;
  std::optional<TQError> sim::Faults::*fault;
  const char* line;
};

class DiscoveryError : public testing::TestWithParam<ErrorCase> {};

TEST_P(DiscoveryError, LogsOnceAndKeepsTheCharacteristicsOfTheEarlierLink) {
  SimSession s;
  auto peripheral = s.connectAndSettle();
  const auto read = s.manager->readCharacteristic();
  const auto write = s.manager->writeCharacteristic();
  s.manager->stopConnectPeripheral(peripheral, nullptr);
  s.run(100ms);
  s.post->faults().*GetParam().fault = TQError{"Discovery failed.", 3, {}};
  LogCapture log;
  s.manager->startConnectPeripheral(peripheral);
  s.run(4s);
  EXPECT_EQ(log.lines, Lines{GetParam().line});
  EXPECT_EQ(s.manager->readCharacteristic(), read);
  EXPECT_EQ(s.manager->writeCharacteristic(), write);
  EXPECT_EQ(s.log.connects, 1);
  EXPECT_TRUE(s.log.disconnects.size() == 1 && s.log.failures.empty()) << "nothing but the stop";
  EXPECT_TRUE(s.tapped.empty()) << "the query went to the earlier link's characteristic";
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Discovery, DiscoveryError, testing::Values(
    ErrorCase{"Services", &sim::Faults::serviceDiscoveryError, "发现服务失败"},
    ErrorCase{"Characteristics", &sim::Faults::characteristicDiscoveryError, "发现特征失败"}),
    test::caseName);
// clang-format on

}  // namespace
}  // namespace tqble
