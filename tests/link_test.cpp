// Adapter state, scanning, connection and the automatic system-information query,
// end to end through the simulated radio on virtual time.
#include <gtest/gtest.h>

#include "support/Hex.h"
#include "support/SimSession.h"
#include "tqble/platform/NotificationCenter.h"

namespace tqble {
namespace {

using test::hex;
using test::SimSession;
using namespace std::chrono_literals;

constexpr char kStateNotification[] = "CentralManagerDidUpdateStateNotification";

struct StateNotifications {
  StateNotifications() {
    token = NotificationCenter::defaultCenter().addObserver(
        kStateNotification, [this](const Notification& n) { seen.push_back(n); });
  }
  ~StateNotifications() { NotificationCenter::defaultCenter().removeObserver(token); }
  std::vector<Notification> seen;
  NotificationCenter::Token token;
};

TEST(AdapterState, IsReportedOnceAfterCreationAndNotBeforeTheQueueRuns) {
  StateNotifications notes;
  SimSession s;
  EXPECT_TRUE(s.log.states.empty()) << "a stack reports its first state asynchronously";
  SimSession::run(1s);
  EXPECT_EQ(s.log.states, (std::vector<std::int64_t>{5}));
  ASSERT_EQ(notes.seen.size(), 1u);
  EXPECT_EQ(notes.seen[0].object, nullptr);
  EXPECT_EQ(notes.seen[0].userInfo, (Dictionary{{kStateNotification, Value{std::int64_t{5}}}}));
}

TEST(AdapterState, EveryPowerChangeReachesTheDelegateAndTheNotificationAndStartsNoScan) {
  StateNotifications notes;
  SimSession s;
  SimSession::run(10ms);
  SimSession::radio().setPowered(false);
  SimSession::radio().setPowered(false);  // no change, no report
  SimSession::run(10ms);
  SimSession::radio().setState(ble::CentralManagerStateUnauthorized);
  SimSession::radio().setPowered(true);
  SimSession::run(3s);
  EXPECT_EQ(s.log.states, (std::vector<std::int64_t>{5, 4, 3, 5}));
  ASSERT_EQ(notes.seen.size(), 4u);
  EXPECT_EQ(std::get<std::int64_t>(notes.seen[1].userInfo.at(kStateNotification)), 4);
  EXPECT_EQ(notes.seen[1].userInfo.size(), 1u);
  EXPECT_EQ(s.manager->centralManager()->state(), 5);
  EXPECT_TRUE(s.log.discoveries.empty()) << "powering on must not start a scan";
}

TEST(AdapterState, PoweringOffDropsTheLinkSilentlyAndLaterWritesGoNowhere) {
  SimSession s;
  s.connectAndSettle();
  SimSession::radio().setPowered(false);
  SimSession::run(1s);
  EXPECT_TRUE(s.log.disconnects.empty());
  EXPECT_NE(s.manager->connectedPheral(), nullptr) << "nothing is cleared on power-off";
  EXPECT_FALSE(s.post->connected());
  const auto writesBefore = s.post->receivedWrites().size();
  int failures = 0;
  s.manager->queryChargerStateWithError([&failures](const TQError&) { ++failures; });
  s.settle();
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(s.post->receivedWrites().size(), writesBefore);
  EXPECT_TRUE(s.log.updates.empty());
}

TEST(Scanning, ReportsEachAdvertisingPostEveryIntervalWithItsSignalStrength) {
  SimSession s;
  sim::PostSetup setup;
  setup.identifier = "SIM-POST-0002";
  setup.rssi = -80;
  SimSession::radio().addPost(setup);
  s.manager->scanForPeripherals();
  SimSession::run(2500ms);  // reports at 10 ms, 1.01 s and 2.01 s
  ASSERT_EQ(s.log.discoveries.size(), 6u);
  EXPECT_EQ(s.log.discoveries[0].first->identifier(), "SIM-POST-0001");
  EXPECT_EQ(s.log.discoveries[0].second, -58);
  EXPECT_EQ(s.log.discoveries[1].first->identifier(), "SIM-POST-0002");
  EXPECT_EQ(s.log.discoveries[1].second, -80);
  EXPECT_EQ(s.log.discoveries[0].first, s.log.discoveries[4].first) << "one peripheral per post";
  EXPECT_TRUE(s.manager->allPeripheral().empty());

  s.manager->stopScan();
  SimSession::run(5s);
  EXPECT_EQ(s.log.discoveries.size(), 6u);
}

TEST(Scanning, ReportsOncePerScanStartWhenTheIntervalIsZero) {
  SimSession s;
  SimSession::radio().timing().advertisingInterval = {};
  s.manager->scanForPeripherals();
  SimSession::run(5s);
  EXPECT_EQ(s.log.discoveries.size(), 1u);
  s.manager->scanForPeripherals();
  SimSession::run(5s);
  EXPECT_EQ(s.log.discoveries.size(), 2u);
}

TEST(Scanning, HearsNothingWhileTheAdapterIsOffOrThePostIsSilent) {
  SimSession s;
  SimSession::radio().setPowered(false);
  s.manager->scanForPeripherals();
  SimSession::run(3s);
  EXPECT_TRUE(s.log.discoveries.empty());
  SimSession::radio().setPowered(true);
  s.post->setAdvertising(false);
  s.manager->scanForPeripherals();
  SimSession::run(3s);
  EXPECT_TRUE(s.log.discoveries.empty());
}

TEST(Connection, StoresThePeripheralAndTellsTheDelegateBeforeTheCharacteristicsAreKnown) {
  SimSession s;
  auto peripheral = s.findPost();
  s.manager->startConnectPeripheral(peripheral);
  SimSession::run(39ms);
  EXPECT_EQ(s.log.connects, 0) << "the radio's connection latency is 40 ms";
  SimSession::run(1ms);
  EXPECT_EQ(s.log.connects, 1);
  EXPECT_FALSE(s.log.writeKnownAtConnect);
  EXPECT_EQ(s.manager->connectedPheral(), peripheral);
  EXPECT_TRUE(s.post->connected());
  SimSession::run(100ms);
  ASSERT_NE(s.manager->writeCharacteristic(), nullptr);
  EXPECT_EQ(s.manager->writeCharacteristic()->uuid().UUIDString(), "FFF3");
  EXPECT_EQ(s.manager->readCharacteristic()->uuid().UUIDString(), "FFF4");
}

TEST(Connection, AFailedAttemptReportsThePlatformErrorAndLeavesNoPeripheral) {
  SimSession s;
  const TQError refused{"The connection to the charging post failed.", 10, {}};
  s.post->faults().connectionError = refused;
  s.manager->startConnectPeripheral(s.findPost());
  SimSession::run(4s);
  ASSERT_EQ(s.log.failures.size(), 1u);
  EXPECT_EQ(s.log.failures[0], refused);
  EXPECT_EQ(s.log.connects, 0);
  EXPECT_EQ(s.manager->connectedPheral(), nullptr);
  EXPECT_TRUE(s.post->receivedWrites().empty()) << "no query follows a failed connection";
}

TEST(Connection, StoppingStopsTheScanAndClearsThePeripheralButKeepsTheCharacteristics) {
  SimSession s;
  auto peripheral = s.connectAndSettle();
  const auto write = s.manager->writeCharacteristic();
  const auto read = s.manager->readCharacteristic();
  s.manager->scanForPeripherals();
  SimSession::run(20ms);
  int errors = 0;
  s.manager->stopConnectPeripheral(peripheral, [&errors](const TQError&) { ++errors; });
  SimSession::run(3s);
  EXPECT_EQ(errors, 0);
  ASSERT_EQ(s.log.disconnects.size(), 1u);
  EXPECT_EQ(s.log.disconnects[0], std::nullopt);
  EXPECT_EQ(s.manager->connectedPheral(), nullptr);
  EXPECT_EQ(s.manager->writeCharacteristic(), write);
  EXPECT_EQ(s.manager->readCharacteristic(), read);
  EXPECT_TRUE(s.log.discoveries.empty()) << "the scan was stopped, and a connected post is silent";

  TQError seen;
  s.manager->queryChargerStateWithError([&seen](const TQError& e) { seen = e; });
  EXPECT_EQ(seen.code, 1002);
  EXPECT_EQ(seen.domain, "没有连接的外设");
}

TEST(Connection, StoppingWithoutAPeripheralReportsNoPeripheralOnceOrNothing) {
  SimSession s;
  std::vector<TQError> errors;
  s.manager->stopConnectPeripheral(nullptr, [&errors](const TQError& e) { errors.push_back(e); });
  s.manager->stopConnectPeripheral(nullptr, nullptr);
  SimSession::run(1s);
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0], (TQError{"没有连接的外设", 1002, {}}));
  EXPECT_TRUE(s.log.disconnects.empty());
}

TEST(Connection, ALostLinkReportsTheErrorAndAReconnectionReplacesTheCharacteristics) {
  SimSession s;
  auto peripheral = s.connectAndSettle();
  const auto oldWrite = s.manager->writeCharacteristic();
  s.post->dropLink();
  SimSession::run(10ms);
  ASSERT_EQ(s.log.disconnects.size(), 1u);
  ASSERT_TRUE(s.log.disconnects[0].has_value());
  EXPECT_EQ(s.log.disconnects[0]->code, sim::kConnectionTimeoutCode);
  EXPECT_EQ(s.manager->connectedPheral(), nullptr);
  EXPECT_EQ(s.manager->writeCharacteristic(), oldWrite);

  s.manager->startConnectPeripheral(peripheral);
  SimSession::run(500ms);
  EXPECT_EQ(s.log.connects, 1);
  EXPECT_NE(s.manager->writeCharacteristic(), oldWrite);
  s.manager->setVolumeWithVolumeSize(35, nullptr);
  s.settle();
  EXPECT_EQ(s.post->model().volume(), 35);
}

TEST(SystemInfoQuery, GoesOutThreeSecondsAfterConnectionAndFillsTheRows) {
  SimSession s;
  s.connect();  // 0.5 s after the connection
  SimSession::run(2400ms);
  EXPECT_TRUE(s.post->receivedWrites().empty());
  SimSession::run(200ms);
  ASSERT_EQ(s.post->receivedWrites().size(), 1u);
  EXPECT_EQ(test::spaced(s.post->receivedWrites()[0]), "68 B1 00 00 01 00 00 D8 00");
  s.settle();
  ASSERT_EQ(s.tapped.size(), 1u);
  EXPECT_EQ(s.tapped[0].cmdType, 2);
  EXPECT_EQ(s.tapped[0].answer.size(), 67u);
  EXPECT_EQ(s.manager->cmdType(), 0);
  ASSERT_EQ(s.manager->systemInfoModelList().size(), 10u);
  EXPECT_EQ(s.manager->systemInfoModelList()[1]->content, "单枪");
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
  EXPECT_TRUE(s.log.updates.size() <= 1u) << "only the initial read, no error anywhere";
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
  EXPECT_EQ(s.post->receivedWrites().size(), 2u);
  EXPECT_EQ(s.tapped.size(), 2u);
  EXPECT_EQ(s.manager->systemInfoModelList().size(), 20u) << "the same ten rows, twice";
  EXPECT_EQ(s.manager->systemInfoModelList()[0], s.manager->systemInfoModelList()[10]);
}

}  // namespace
}  // namespace tqble
