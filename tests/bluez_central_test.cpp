// The bluez central against the stand-in bluetoothd, for what the radio guest's real daemon
// cannot be made to do: no daemon, adapters coming and going, a deny policy, other clients'
// scans and filters, refused, hanging and expired connections, a silent Connected and a
// link left by another process. Power, link losses and restarts are proven in the guest.
#include <cstdlib>
#include <set>

#include "support/BluezSession.h"

namespace tqble::test {
namespace {

using namespace ble;
using States = std::vector<std::int64_t>;
const std::string kDiscovered = "discover C0:FF:EE:00:00:01 TQ-AC7-0042 -58";

TEST_F(BluezSession, NoBluetoothdIsUnsupportedUntilOneAppears) {
  fake.reset();
  makeCentral();
  fake = std::make_unique<FakeBluez>();
  ASSERT_TRUE(runUntil([&] { return recorder->states.size() == 2; }));
  EXPECT_EQ(recorder->states,
            (States{CentralManagerStateUnsupported, CentralManagerStatePoweredOn}));
}

TEST_F(BluezSession, TheAdapterAskedForIsFollowedInAndOutAndAScanWhileItIsOffIsIgnored) {
  fake->removeAdapter("hci0");
  setenv("TQBLE_BLUEZ_ADAPTER", "hci1", 1);
  makeCentral();
  fake->addAdapter("hci0", true);  // not the one asked for
  barrier();
  fake->addAdapter("hci1", false);
  ASSERT_TRUE(runUntil([&] { return recorder->states.size() == 2; }));
  central->scanForPeripheralsWithServices({}, {});
  fake->removeAdapter("hci1");
  ASSERT_TRUE(runUntil([&] { return recorder->states.size() == 4; }));
  barrier();
  unsetenv("TQBLE_BLUEZ_ADAPTER");
  EXPECT_EQ(recorder->states,
            (States{CentralManagerStateUnsupported, CentralManagerStatePoweredOff,
                    CentralManagerStateResetting, CentralManagerStateUnsupported}));
  EXPECT_FALSE(called("StartDiscovery hci1"));
}

TEST(BluezState, APolicyThatKeepsUsFromBluetoothdIsUnauthorized) {
  usePrivateSystemBus("<deny send_destination=\"org.bluez\"/>");
  FakeBluez fake;
  auto recorder = std::make_shared<BleRecorder>();
  auto central = ble::backendNamed("bluez")(recorder);
  ASSERT_TRUE(MainQueue::main().runUntil([&] { return !recorder->states.empty(); }, 2s));
  EXPECT_EQ(recorder->states, States{CentralManagerStateUnauthorized});
}

TEST_F(BluezSession, EveryAdvertisementIsAReportWithItsRssiAndItsAdvertisedNameUntilStopScan) {
  makeCentral();
  sim::PostSetup nameless;
  nameless.identifier = "C0:FF:EE:00:00:02";
  nameless.name = "";
  nameless.rssi = -90;
  fake->addPost(nameless);
  central->scanForPeripheralsWithServices({UUID::fromString("FFF0")}, {});
  ASSERT_TRUE(runUntil([&] { return recorder->events.size() >= 6; }));
  central->stopScan();
  const auto reports = recorder->events.size();
  fake->advertise();  // before bluetoothd hears of the stop
  barrier();
  EXPECT_EQ(recorder->events.size(), reports) << "no report after stopScan";
  EXPECT_TRUE(
      called("SetDiscoveryFilter hci0 DuplicateData=true Transport=le "
             "UUIDs=0000fff0-0000-1000-8000-00805f9b34fb"));
  EXPECT_EQ(std::set<std::string>(recorder->events.begin(), recorder->events.end()),
            (std::set<std::string>{kDiscovered, "discover C0:FF:EE:00:00:02 - -90"}))
      << "the alias is not a name";
}

TEST_F(BluezSession, ScansHearOnlyTheirAdapterAndTheirServicesWhateverOtherClientsScanFor) {
  fake->addAdapter("hci1", true);
  sim::PostSetup elsewhere;
  elsewhere.identifier = "C0:FF:EE:00:00:03";
  fake->addPost(elsewhere, "hci1");
  auto other = bluez::Bus::openSystem();  // another client scans on hci1
  other->call("org.bluez", "/org/bluez/hci1", "org.bluez.Adapter1", "StartDiscovery", {}, 2s);
  makeCentral();
  central->scanForPeripheralsWithServices({UUID::fromString("180D")}, {});
  ASSERT_TRUE(
      runUntil([&] { return called("StartDiscovery hci0") && called("StartDiscovery hci1"); }));
  barrier();
  EXPECT_TRUE(recorder->events.empty()) << "bluetoothd merges filters: ours is applied again";
  central->scanForPeripheralsWithServices({}, {});
  ASSERT_TRUE(runUntil([&] { return recorder->events.size() >= 3; }));
  for (const auto& e : recorder->events) EXPECT_EQ(e, kDiscovered);
}

TEST_F(BluezSession, AConnectionIsReportedOnTheReplyEvenWithoutAConnectedSignal) {
  fake->faults(post).silentConnected = true;
  makeCentral();
  auto p = find();
  central->connectPeripheral(p, {});
  central->connectPeripheral(p, {});  // one attempt at a time
  ASSERT_TRUE(runUntil([&] { return heard("connect C0:FF:EE:00:00:01"); }));
  EXPECT_EQ(std::count(fake->calls().begin(), fake->calls().end(), "Connect C0:FF:EE:00:00:01"), 1);
  central->cancelPeripheralConnection(p);
  ASSERT_TRUE(runUntil([&] { return recorder->events.back() == "disconnect C0:FF:EE:00:00:01"; }));
  EXPECT_FALSE(fake->connected(post));
}

TEST_F(BluezSession, RefusedCancelledAndExpiredConnectionsReachTheDelegateOnce) {
  struct Case {
    const char* name;
    void (*arrange)(BluezSession&);
    bool cancel;
    std::string expected;
  } cases[] = {
      {"refused",
       [](BluezSession& s) {
         s.fake->faults(s.post).connectError =
             bluez::BusError{"org.bluez.Error.Failed", "le-connection-abort-by-local"};
       },
       false,
       "fail C0:FF:EE:00:00:01 error 10 The connection to the charging post failed. "
       "(le-connection-abort-by-local)"},
      {"cancelled while connecting",
       [](BluezSession& s) { s.fake->faults(s.post).connectHangs = true; }, true,
       "disconnect C0:FF:EE:00:00:01"},
      {"expired device", [](BluezSession& s) { s.fake->expire(s.post); }, false,
       "fail C0:FF:EE:00:00:01 error 10 The connection to the charging post failed. (the post is "
       "no longer known: "
       "scan for it again)"},
  };
  makeCentral();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    fake->faults(post) = {};
    auto p = find();
    recorder->events.clear();
    c.arrange(*this);
    central->connectPeripheral(p, {});
    if (c.cancel) {
      ASSERT_TRUE(runUntil([&] { return called("Connect C0:FF:EE:00:00:01"); }));
      central->cancelPeripheralConnection(p);
    }
    ASSERT_TRUE(runUntil([&] { return !recorder->events.empty(); }));
    barrier();
    EXPECT_EQ(recorder->events, std::vector<std::string>{c.expected});
  }
}

TEST_F(BluezSession, ALinkLeftByAnEarlierProcessIsTakenOverAndClosedAtExit) {
  makeCentral();
  auto p = find();
  {
    // Another client of bluetoothd connects, and goes.
    auto other = bluez::Bus::openSystem();
    bool replied = false;
    other->call("org.bluez", FakeBluez::pathOf(post->setup()), "org.bluez.Device1", "Connect", {},
                2s, "", [&](const bluez::BusReply&) { replied = true; });
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
