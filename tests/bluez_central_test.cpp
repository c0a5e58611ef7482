// The bluez central against a stand-in bluetoothd: adapter state, scan reports, links.
#include <cstdlib>

#include "support/BluezSession.h"

namespace tqble::test {
namespace {

using ble::CentralManagerStatePoweredOff;
using ble::CentralManagerStatePoweredOn;
using ble::CentralManagerStateResetting;
using ble::CentralManagerStateUnsupported;
using States = std::vector<std::int64_t>;

// ---- Adapter state ---------------------------------------------------------------------

TEST_F(BluezSession, AdapterStateFollowsPowerAndAScanWhileOffIsIgnored) {
  fake->setPowered(false);
  makeCentral();
  central->scanForPeripheralsWithServices({}, {});  // ignored while off
  fake->setPowered(true);
  ASSERT_TRUE(runUntil([&] { return recorder->states.size() == 2; }));
  fake->setPowered(false);
  ASSERT_TRUE(runUntil([&] { return recorder->states.size() == 3; }));
  EXPECT_EQ(recorder->states, (States{CentralManagerStatePoweredOff, CentralManagerStatePoweredOn, CentralManagerStatePoweredOff}));
  EXPECT_EQ(central->state(), CentralManagerStatePoweredOff);
  EXPECT_FALSE(called("StartDiscovery hci0"));
}

TEST_F(BluezSession, NoBluetoothdIsUnsupportedUntilOneAppears) {
  fake->leave();
  makeCentral();
  fake->restart();
  ASSERT_TRUE(runUntil([&] { return recorder->states.size() == 3; }));
  EXPECT_EQ(recorder->states, (States{CentralManagerStateUnsupported, CentralManagerStatePoweredOff,
                                      CentralManagerStatePoweredOn}));
}

TEST_F(BluezSession, ARestartOfBluetoothdIsResettingThenAFreshStateAndLinksAreLost) {
  makeCentral();
  auto [write, read] = link();
  fake->restart();
  ASSERT_TRUE(runUntil([&] { return recorder->states.size() == 5; }));
  EXPECT_EQ(recorder->states, (States{CentralManagerStatePoweredOn, CentralManagerStatePoweredOff,
                                      CentralManagerStateResetting, CentralManagerStatePoweredOff,
                                      CentralManagerStatePoweredOn}));
  EXPECT_EQ(recorder->events, std::vector<std::string>{
                                  "disconnect C0:FF:EE:00:00:01 error 6 The link to the charging post was lost."});
}

TEST_F(BluezSession, AdaptersAreChosenByNameAndFollowedInAndOut) {
  fake->removeAdapter("hci0");
  setenv("TQBLE_BLUEZ_ADAPTER", "hci1", 1);
  makeCentral();
  fake->addAdapter("hci0", true);  // not the one asked for
  settle();
  fake->addAdapter("hci1", false);
  ASSERT_TRUE(runUntil([&] { return recorder->states.size() == 2; }));
  fake->removeAdapter("hci1");
  ASSERT_TRUE(runUntil([&] { return recorder->states.size() == 3; }));
  settle(400ms);
  unsetenv("TQBLE_BLUEZ_ADAPTER");
  EXPECT_EQ(recorder->states, (States{CentralManagerStateUnsupported, CentralManagerStatePoweredOff,
                                      CentralManagerStateResetting, CentralManagerStateUnsupported}));
}

TEST(BluezState, APolicyThatKeepsUsFromBluetoothdIsUnauthorized) {
  usePrivateSystemBus("<deny send_destination=\"org.bluez\"/>");
  FakeBluez fake;
  auto recorder = std::make_shared<Recorder>();
  auto central = ble::backendNamed("bluez")(recorder);
  ASSERT_TRUE(MainQueue::main().runUntil([&] { return !recorder->states.empty(); }, 2s));
  EXPECT_EQ(recorder->states, States{ble::CentralManagerStateUnauthorized});
}

// ---- Scanning --------------------------------------------------------------------------

TEST_F(BluezSession, EveryAdvertisementHeardIsOneReportWithItsRssiAndTheAdvertisedName) {
  makeCentral();
  sim::PostSetup nameless;
  nameless.identifier = "C0:FF:EE:00:00:02";
  nameless.name = "";
  nameless.rssi = -90;
  fake->addPost(nameless);
  central->scanForPeripheralsWithServices({ble::UUID::fromString("FFF0")}, {});
  ASSERT_TRUE(runUntil([&] { return recorder->rssis.size() >= 6; }));
  central->stopScan();
  const auto reports = recorder->events.size();
  settle(150ms);
  EXPECT_EQ(recorder->events.size(), reports) << "no report after stopScan";
  EXPECT_TRUE(called("SetDiscoveryFilter hci0 DuplicateData=true Transport=le UUIDs=0000fff0-0000-1000-8000-00805f9b34fb"));
  EXPECT_TRUE(heard("discover C0:FF:EE:00:00:01 TQ-AC7-0042"));
  EXPECT_TRUE(heard("discover C0:FF:EE:00:00:02 -")) << "the alias is not a name";
  for (auto rssi : recorder->rssis) EXPECT_TRUE(rssi == -58 || rssi == -90);
  EXPECT_EQ(central->state(), CentralManagerStatePoweredOn);
}

TEST_F(BluezSession, ScansHearOnlyTheirAdapterAndTheirServices) {
  fake->addAdapter("hci1", true);
  sim::PostSetup elsewhere;
  elsewhere.identifier = "C0:FF:EE:00:00:03";
  fake->addPost(elsewhere, "hci1");
  makeCentral();
  central->scanForPeripheralsWithServices({ble::UUID::fromString("180D")}, {});
  settle(150ms);
  EXPECT_TRUE(recorder->events.empty()) << "another client's filter may let the post through: ours is applied";
  central->scanForPeripheralsWithServices({}, {});
  ASSERT_TRUE(runUntil([&] { return recorder->rssis.size() >= 3; }));
  for (const auto& e : recorder->events) EXPECT_EQ(e, "discover C0:FF:EE:00:00:01 TQ-AC7-0042");
}

// ---- Links -----------------------------------------------------------------------------

TEST_F(BluezSession, AConnectionIsReportedOnTheReplyEvenWithoutAConnectedSignal) {
  fake->faults(post).silentConnected = true;
  makeCentral();
  auto p = find();
  central->connectPeripheral(p, {});
  central->connectPeripheral(p, {});  // one attempt at a time
  ASSERT_TRUE(runUntil([&] { return !recorder->events.empty() && recorder->events.back() == "connect C0:FF:EE:00:00:01"; }));
  EXPECT_EQ(std::count(fake->calls().begin(), fake->calls().end(), "Connect C0:FF:EE:00:00:01"), 1);
  central->cancelPeripheralConnection(p);
  ASSERT_TRUE(runUntil([&] { return recorder->events.back() == "disconnect C0:FF:EE:00:00:01"; }));
  EXPECT_FALSE(fake->connected(post));
}

TEST_F(BluezSession, FailuresCancellationsAndLossesReachTheDelegate) {
  struct Case {
    const char* name;
    std::function<void(BluezSession&)> arrange;
    std::function<void(BluezSession&, const std::shared_ptr<ble::Peripheral>&)> act;
    std::string expected;
  } cases[] = {
      {"refused", [](BluezSession& s) { s.fake->faults(s.post).connectError = bluez::BusError{"org.bluez.Error.Failed", "le-connection-abort-by-local"}; },
       nullptr, "fail C0:FF:EE:00:00:01 error 10 The connection to the charging post failed. (le-connection-abort-by-local)"},
      {"cancelled while connecting", [](BluezSession& s) { s.fake->faults(s.post).connectHangs = true; },
       [](BluezSession& s, const auto& p) { s.settle(30ms), s.central->cancelPeripheralConnection(p); },
       "disconnect C0:FF:EE:00:00:01"},
      {"expired device", [](BluezSession& s) { s.fake->expire(s.post); }, nullptr,
       "fail C0:FF:EE:00:00:01 error 10 The connection to the charging post failed. (the post is no longer known: scan for it again)"},
      {"lost link", nullptr,
       [](BluezSession& s, const auto&) {
         ASSERT_TRUE(s.runUntil([&] { return s.heard("connect C0:FF:EE:00:00:01"); }));
         s.fake->dropLink(s.post);
       },
       "disconnect C0:FF:EE:00:00:01 error 6 The link to the charging post was lost."},
      {"power off", nullptr,
       [](BluezSession& s, const auto&) {
         ASSERT_TRUE(s.runUntil([&] { return s.heard("connect C0:FF:EE:00:00:01"); }));
         s.fake->setPowered(false);
         s.settle();
       },
       // bluetoothd ends the link before it reports the power change: a loss like any other.
       "disconnect C0:FF:EE:00:00:01 error 6 The link to the charging post was lost."},
  };
  makeCentral();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    fake->faults(post) = {};
    fake->setPowered(true);
    ASSERT_TRUE(runUntil([&] { return central->state() == CentralManagerStatePoweredOn; }));
    recorder->last = nullptr;
    auto p = find();
    recorder->events.clear();
    if (c.arrange) c.arrange(*this);
    central->connectPeripheral(p, {});
    if (c.act) c.act(*this, p);
    settle(150ms);
    ASSERT_FALSE(recorder->events.empty());
    EXPECT_EQ(recorder->events.back(), c.expected);
    fake->setPowered(false);
    ASSERT_TRUE(runUntil([&] { return central->state() == CentralManagerStatePoweredOff; }));
  }
}

TEST_F(BluezSession, ALinkLeftByAnEarlierProcessIsTakenOverAndClosedAtExit) {
  makeCentral();
  auto p = find();
  {
    // Another client of bluetoothd connects, and goes.
    auto other = bluez::Bus::openSystem();
    bool replied = false;
    other->call("org.bluez", FakeBluez::pathOf(post->setup()), "org.bluez.Device1", "Connect", {}, 2s, "",
                [&](const bluez::BusReply&) { replied = true; });
    ASSERT_TRUE(runUntil([&] { return replied; }));
  }
  ASSERT_TRUE(fake->connected(post));
  central->connectPeripheral(p, {});
  ASSERT_TRUE(runUntil([&] { return heard("connect C0:FF:EE:00:00:01"); }));
  // Closing this process's bus closes its links.
  bluez::Bus::system()->close();
  ASSERT_TRUE(runUntil([&] { return !fake->connected(post); }));
  EXPECT_EQ(fake->calls().back(), "Disconnect C0:FF:EE:00:00:01");
}

}  // namespace
}  // namespace tqble::test
