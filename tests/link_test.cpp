// Adapter state, scanning, connection and the automatic system-information query,
// end to end through the simulated radio on virtual time.
#include <gtest/gtest.h>

#include "support/Hex.h"
#include "support/SimSession.h"
#include "tqble/platform/NotificationCenter.h"

namespace tqble {
namespace {

using test::SimSession;
using namespace std::chrono_literals;

constexpr char kStateNotification[] = "CentralManagerDidUpdateStateNotification";

TEST(AdapterState,
     EachChangeReachesTheDelegateAndTheNotificationOnlyOnceTheQueueRunsAndStartsNoScan) {
  std::vector<Notification> notes;
  const auto token = NotificationCenter::defaultCenter().addObserver(
      kStateNotification, [&notes](const Notification& n) { notes.push_back(n); });
  SimSession s;
  EXPECT_TRUE(s.log.states.empty()) << "a stack reports its first state asynchronously";
  SimSession::run(10ms);
  SimSession::radio().setPowered(false);
  SimSession::radio().setPowered(false);  // no change, no report
  SimSession::run(10ms);
  SimSession::radio().setState(ble::CentralManagerStateUnauthorized);
  SimSession::radio().setPowered(true);
  SimSession::run(3s);
  NotificationCenter::defaultCenter().removeObserver(token);
  EXPECT_EQ(s.log.states, (std::vector<std::int64_t>{5, 4, 3, 5}));
  ASSERT_EQ(notes.size(), 4u);
  for (std::size_t i = 0; i < notes.size(); ++i) {
    EXPECT_EQ(notes[i].object, nullptr);
    EXPECT_EQ(notes[i].userInfo, (Dictionary{{kStateNotification, Value{s.log.states[i]}}}));
  }
  EXPECT_TRUE(s.log.discoveries.empty()) << "powering on must not start a scan";
}

TEST(AdapterState, PoweringOffDropsTheLinkSilentlyAndLaterWritesGoNowhere) {
  SimSession s;
  s.connectAndSettle();
  SimSession::radio().setPowered(false);
  SimSession::run(1s);
  EXPECT_TRUE(s.log.disconnects.empty());
  EXPECT_NE(s.manager->connectedPheral(), nullptr) << "nothing is cleared on power-off";
  const auto writesBefore = s.post->receivedWrites().size();
  s.command([&s](TQBleManager& m) { m.queryChargerStateWithError(s.onError()); });
  EXPECT_TRUE(s.errors.empty());
  EXPECT_EQ(s.post->receivedWrites().size(), writesBefore);
  EXPECT_TRUE(s.log.updates.empty());
}

TEST(Scanning, ReportsThePostWithItsSignalStrengthAsOnePeripheralUntilStopped) {
  SimSession s;
  s.manager->scanForPeripherals();
  SimSession::run(1500ms);  // reports at 10 ms and 1.01 s
  ASSERT_EQ(s.log.discoveries.size(), 2u);
  EXPECT_EQ(s.log.discoveries[0].second, -58);
  EXPECT_EQ(s.log.discoveries[0].first, s.log.discoveries[1].first);
  s.manager->stopScan();
  SimSession::run(5s);
  EXPECT_EQ(s.log.discoveries.size(), 2u);
}

TEST(Connection, AFailedAttemptReportsThePlatformErrorAndLeavesNoPeripheralAndNoQuery) {
  SimSession s;
  const TQError refused{"The connection to the charging post failed.", 10, {}};
  s.post->faults().connectionError = refused;
  s.manager->startConnectPeripheral(s.findPost());
  SimSession::run(4s);
  EXPECT_EQ(s.log.failures, (std::vector<std::optional<TQError>>{refused}));
  EXPECT_EQ(s.log.connects, 0);
  EXPECT_EQ(s.manager->connectedPheral(), nullptr);
  EXPECT_TRUE(s.post->receivedWrites().empty());
}

struct EndCase {
  const char* name;
  bool stop;  // stopped by the application, or lost
  std::optional<std::int64_t> errorCode;
};

class EndedLink : public testing::TestWithParam<EndCase> {};

TEST_P(EndedLink, ClearsThePeripheralKeepsTheCharacteristicsAndAReconnectionReplacesThem) {
  const EndCase& c = GetParam();
  SimSession s;
  auto peripheral = s.connectAndSettle();
  const auto write = s.manager->writeCharacteristic();
  const auto read = s.manager->readCharacteristic();
  if (c.stop) {
    s.manager->scanForPeripherals();
    SimSession::run(20ms);
    s.manager->stopConnectPeripheral(peripheral, s.onError());
  } else {
    s.post->dropLink();
  }
  SimSession::run(3s);
  ASSERT_EQ(s.log.disconnects.size(), 1u);
  EXPECT_EQ(s.log.disconnects[0] ? std::optional{s.log.disconnects[0]->code} : std::nullopt,
            c.errorCode);
  EXPECT_TRUE(s.log.discoveries.empty()) << "stopping also stops the scan";
  EXPECT_EQ(s.manager->connectedPheral(), nullptr);
  EXPECT_EQ(s.manager->writeCharacteristic(), write);
  EXPECT_EQ(s.manager->readCharacteristic(), read);
  s.manager->queryChargerStateWithError(s.onError());
  ASSERT_EQ(s.errors.size(), 1u);
  EXPECT_EQ(s.errors[0].code, 1002);

  s.manager->startConnectPeripheral(peripheral);
  SimSession::run(500ms);
  EXPECT_NE(s.manager->writeCharacteristic(), write);
  s.command([](TQBleManager& m) { m.setVolumeWithVolumeSize(35, nullptr); });
  EXPECT_EQ(s.post->model().volume(), 35);
}

INSTANTIATE_TEST_SUITE_P(Connection, EndedLink,
                         testing::Values(EndCase{"Stopped", true, std::nullopt},
                                         EndCase{"Lost", false, sim::kConnectionTimeoutCode}),
                         test::caseName);

TEST(Connection, IsReportedBeforeDiscoveryAndQueriesTheSystemInformationThreeSecondsLater) {
  SimSession s;
  auto peripheral = s.findPost();
  s.manager->startConnectPeripheral(peripheral);
  SimSession::run(39ms);
  EXPECT_EQ(s.log.connects, 0) << "the radio's connection latency is 40 ms";
  SimSession::run(1ms);
  EXPECT_EQ(s.log.connects, 1);
  EXPECT_FALSE(s.log.writeKnownAtConnect);
  EXPECT_EQ(s.manager->connectedPheral(), peripheral);
  SimSession::run(2950ms);
  EXPECT_NE(s.manager->writeCharacteristic(), nullptr);
  EXPECT_TRUE(s.post->receivedWrites().empty());
  SimSession::run(100ms);
  ASSERT_EQ(s.post->receivedWrites().size(), 1u);
  EXPECT_EQ(test::spaced(s.post->receivedWrites()[0]), "68 B1 00 00 01 00 00 D8 00");
  s.settle();
  EXPECT_EQ(s.tapped.at(0).cmdType, 2);
  EXPECT_EQ(s.manager->cmdType(), 0);
  ASSERT_EQ(s.manager->systemInfoModelList().size(), 10u);
  EXPECT_EQ(s.manager->systemInfoModelList()[2]->content, "Velmora");
}

TEST(SystemInfoQuery, StillGoesOutWhenTheLinkDroppedAndItsFailureIsNotReported) {
  SimSession s;
  s.connect();
  s.post->dropLink();
  SimSession::run(5s);
  EXPECT_EQ(s.log.disconnects.size(), 1u);
  EXPECT_EQ(s.manager->cmdType(), 2) << "the query ran and recorded its tag";
  EXPECT_TRUE(s.post->receivedWrites().empty());
  for (const auto& e : s.log.updateErrors) EXPECT_EQ(e, std::nullopt);
  EXPECT_TRUE(s.log.failures.empty());
}

TEST(SystemInfoQuery, IsNotCancelledSoAQuickReconnectionGetsTwo) {
  SimSession s;
  auto peripheral = s.connect();
  s.manager->stopConnectPeripheral(peripheral, nullptr);
  SimSession::run(100ms);
  s.manager->startConnectPeripheral(peripheral);
  SimSession::run(10s);
  EXPECT_EQ(s.tapped.size(), 2u);
  EXPECT_EQ(s.manager->systemInfoModelList().size(), 20u) << "the same ten rows, twice";
}

}  // namespace
}  // namespace tqble
