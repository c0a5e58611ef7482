// Adapter state, scanning, connection, the end of a link and the automatic
// system-information query, end to end through the simulated radio on virtual time.
#include <gtest/gtest.h>

#include "support/SimSession.h"
#include "tqble/platform/NotificationCenter.h"

namespace tqble {
namespace {

using test::SimSession;
using namespace std::chrono_literals;
using Peripheral = std::shared_ptr<ble::Peripheral>;

constexpr char kStateNotification[] = "CentralManagerDidUpdateStateNotification";

// Powering on starts no scan; a scan reports the post with its signal strength until stopped.
TEST(AdapterState, EachChangeReachesDelegateAndNotificationOnlyOnceTheQueueRunsThenAScanFindsPost) {
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
  EXPECT_EQ(s.log.failures, test::Errors{refused});
  EXPECT_TRUE(s.log.connects == 0 && !s.manager->connectedPheral());
  EXPECT_TRUE(s.post->receivedWrites().empty());
}

// A quick reconnection does not cancel the first query: it goes out on the new link.
TEST(Connection, IsReportedBeforeDiscoveryAndEachQueriesTheSystemInformationThreeSecondsLater) {
  SimSession s;
  auto peripheral = s.findPost();
  s.manager->startConnectPeripheral(peripheral);
  SimSession::run(39ms);
  EXPECT_EQ(s.log.connects, 0) << "the radio's connection latency is 40 ms";
  SimSession::run(1ms);
  EXPECT_EQ(s.log.connects, 1);
  EXPECT_FALSE(s.log.writeKnownAtConnect);
  EXPECT_EQ(s.manager->connectedPheral(), peripheral);
  SimSession::run(500ms);
  s.manager->stopConnectPeripheral(peripheral, nullptr);
  SimSession::run(100ms);
  s.manager->startConnectPeripheral(peripheral);
  SimSession::run(2350ms);  // 2.95 s after the first connection
  EXPECT_TRUE(s.post->receivedWrites().empty());
  SimSession::run(600ms);
  ASSERT_EQ(s.tapped.size(), 1u);
  EXPECT_EQ(s.tapped[0].first, 2);
  EXPECT_EQ(s.manager->cmdType(), 0);
  EXPECT_EQ(s.manager->systemInfoModelList().size(), 10u);
  SimSession::run(3s);
  EXPECT_EQ(s.manager->systemInfoModelList().size(), 20u) << "the same ten rows, twice";
}

struct EndCase {
  const char* name;
  void (*end)(SimSession&, const Peripheral&);
  std::vector<std::optional<std::int64_t>> disconnects;  // codes; none: the link stays recorded
  std::int64_t commandError;                             // of a command on the ended link; 0: none
};

class EndedLink : public testing::TestWithParam<EndCase> {};
// GoogleTest prints a case by its name, never by its raw bytes.
void PrintTo(const EndCase& c, std::ostream* os) { *os << c.name; }

// The link ends before the automatic query, which still goes out, to nowhere, unreported.
TEST_P(EndedLink, KeepsTheCharacteristicsTheQueryGoesNowhereAndAReconnectionReplacesThem) {
  const EndCase& c = GetParam();
  SimSession s;
  auto peripheral = s.connect();
  s.clearLog();
  const auto write = s.manager->writeCharacteristic();
  c.end(s, peripheral);
  SimSession::run(3s);
  EXPECT_EQ(s.log.disconnects, c.disconnects);
  EXPECT_TRUE(s.log.discoveries.empty()) << "stopping also stops the scan";
  EXPECT_EQ(s.manager->connectedPheral(), c.disconnects.empty() ? peripheral : nullptr);
  EXPECT_TRUE(s.manager->writeCharacteristic() == write && s.manager->readCharacteristic());
  EXPECT_EQ(s.manager->cmdType(), 2) << "the query ran and recorded its tag";
  s.manager->queryChargerStateWithError(s.onError());
  s.settle();
  EXPECT_EQ(s.errors.size() == 1 ? s.errors[0].code : 0, c.commandError);
  EXPECT_TRUE(s.post->receivedWrites().empty());
  EXPECT_TRUE(s.log.updates.empty() && s.log.failures.empty());
  if (c.disconnects.empty()) return;

  s.manager->startConnectPeripheral(peripheral);
  SimSession::run(500ms);
  EXPECT_NE(s.manager->writeCharacteristic(), write);
  s.command([](TQBleManager& m) { m.setVolumeWithVolumeSize(35, nullptr); });
  EXPECT_EQ(s.post->model().volume(), 35);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Connection, EndedLink, testing::Values(
    EndCase{"Stopped", [](SimSession& s, const Peripheral& p) {
      s.manager->scanForPeripherals();
      SimSession::run(20ms);
      s.manager->stopConnectPeripheral(p, s.onError());
    }, {std::nullopt}, 1002},
    EndCase{"Lost", [](SimSession& s, const Peripheral&) { s.post->dropLink(); }, {sim::kConnectionTimeoutCode}, 1002},
    EndCase{"PoweredOff", [](SimSession&, const Peripheral&) { SimSession::radio().setPowered(false); }, {}, 0}),
    test::caseName);
// clang-format on

}  // namespace
}  // namespace tqble
