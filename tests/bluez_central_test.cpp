// The bluez central against the stand-in bluetoothd, for what the radio guest's real daemon
// cannot be made to do: no daemon (for the tool too), adapters coming and going, a deny
// policy, other clients' scans and filters, a nameless device, refused, hanging and expired
// connections and a silent Connected. Finding a post, links, power and restarts are proven in the guest.
#include <cstdlib>
#include <set>

#include "support/BluezSession.h"

namespace tqble::test {
namespace {

using namespace ble;
using States = std::vector<std::int64_t>;

TEST_F(BluezSession, NoBluetoothdIsUnsupportedUntilOneAppears) {
  fake.reset();
  makeCentral();
  startBluez();
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

// What a user of the tool sees then: why nothing was heard, and a failure.
TEST(BluezState, TheToolSaysTheRadioIsUnsupportedWithoutBluetoothd) {
  usePrivateSystemBus();
  const Outcome scan = shell(TQBLE_CLI_PATH " scan --seconds 0.5 --backend bluez");
  EXPECT_EQ(scan.status, 3);
  EXPECT_EQ(scan.out + scan.err,
            "tqble scan: nothing heard (the radio is unsupported here: no Bluetooth daemon or adapter)\n");
}

TEST(BluezState, APolicyThatKeepsUsFromBluetoothdIsUnauthorized) {
  usePrivateSystemBus("<deny send_destination=\"org.bluez\"/>");
  FakeBluez fake;
  auto recorder = std::make_shared<BleRecorder>();
  auto central = ble::backendNamed("bluez")(recorder);
  ASSERT_TRUE(MainQueue::main().runUntil([&] { return !recorder->states.empty(); }, 2s));
  EXPECT_EQ(recorder->states, States{CentralManagerStateUnauthorized});
}

// bluetoothd merges the filters of its clients and shows every client the devices of every
// adapter: another client scans on hci1 for everything. A scan stopped and started again at
// once (while bluetoothd still ends the session) still hears.
TEST_F(BluezLink, ScansReportEachAdvertisementOfTheirAdapterAndServicesUntilStopScan) {
  fake->addAdapter("hci1", true);
  sim::PostSetup setup;
  setup.identifier = "C0:FF:EE:00:00:03";
  fake->addPost(setup, "hci1");
  setup.identifier = "C0:FF:EE:00:00:02";
  setup.name = "";
  setup.rssi = -90;
  fake->addPost(setup);
  auto other = bluez::Bus::openSystem();
  other->call("org.bluez", "/org/bluez/hci1", "org.bluez.Adapter1", "StartDiscovery", {}, 2s);
  central->scanForPeripheralsWithServices({UUID::fromString("180D")}, {});
  ASSERT_TRUE(
      runUntil([&] { return called("StartDiscovery hci0") && called("StartDiscovery hci1"); }));
  barrier();
  EXPECT_TRUE(recorder->events.empty()) << "bluetoothd merges filters: ours is applied again";
  central->stopScan();
  central->scanForPeripheralsWithServices({UUID::fromString("FFF0")}, {});
  ASSERT_TRUE(runUntil([&] { return recorder->events.size() >= 6; }))
      << testing::PrintToString(fake->calls());
  central->stopScan();
  const auto reports = recorder->events.size();
  fake->advertise();  // before bluetoothd hears of the stop
  barrier();
  EXPECT_EQ(recorder->events.size(), reports) << "no report after stopScan";
  const std::vector<std::string> uuids{"0000fff0-0000-1000-8000-00805f9b34fb"};
  EXPECT_EQ(fake->filters["hci0"],
            (bluez::BusDict{{"DuplicateData", true}, {"Transport", "le"}, {"UUIDs", uuids}}));
  EXPECT_EQ(std::set<std::string>(recorder->events.begin(), recorder->events.end()),
            (std::set<std::string>{"discover C0:FF:EE:00:00:01 TQ-AC7-0042 -58",
                                   "discover C0:FF:EE:00:00:02 - -90"}))
      << "the alias is not a name";
}

// Each connection reaches the delegate once, however often it is asked for meanwhile.
TEST_F(BluezLink, RefusedCancelledExpiredAndSilentConnectionsReachTheDelegateOnce) {
  const std::string failed =
      "fail C0:FF:EE:00:00:01 error 10 The connection to the charging post failed. (";
  const std::string forgotten = "the post is no longer known: scan for it again)";
  const bluez::BusError abort{"org.bluez.Error.Failed", "le-connection-abort-by-local"};
  const struct {
    const char* name;
    std::optional<bluez::BusError> refusal;
    bool hang, expire, silent;  // hang: Connect answers only when cancelled, which the test does
    std::string expected;
  } cases[] = {
      {"refused", abort, false, false, false, failed + abort.message + ")"},
      {"cancelled while connecting", {}, true, false, false, "disconnect C0:FF:EE:00:00:01"},
      {"expired device", {}, false, true, false, failed + forgotten},
      {"connected without a Connected signal", {}, false, false, true, "connect C0:FF:EE:00:00:01"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    fake->faults(post).connectError = c.refusal;
    fake->faults(post).connectHangs = c.hang;
    fake->faults(post).silentConnected = c.silent;
    auto p = find();
    recorder->events.clear();
    if (c.expire) fake->expire(post);
    central->connectPeripheral(p, {});
    central->connectPeripheral(p, {});
    if (c.hang) central->cancelPeripheralConnection(p);  // after Connect, on the same bus
    barrier();
    EXPECT_EQ(recorder->events, std::vector<std::string>{c.expected});
  }
  EXPECT_EQ(std::count(fake->calls().begin(), fake->calls().end(), "Connect C0:FF:EE:00:00:01"), 3);
}

}  // namespace
}  // namespace tqble::test
