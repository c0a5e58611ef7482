// The bluez central when the bus or bluetoothd misbehave: the bus daemon dies and comes
// back, scans restarted at once, notifications refused, links still going down,
// neighbours whose objects the bus library will not read.
#include "support/BluezSession.h"

namespace tqble::test {
namespace {

using ble::CentralManagerStatePoweredOn;
using ble::CentralManagerStateResetting;

TEST_F(BluezSession, TheProcessOutlivesTheBusAndWorksAgainOnceItIsBack) {
  makeCentral();
  central->scanForPeripheralsWithServices({}, {});
  ASSERT_TRUE(runUntil([&] { return recorder->last != nullptr; }));
  restartPrivateSystemBus(false);
  ASSERT_TRUE(runUntil([&] { return recorder->states.back() == CentralManagerStateResetting; }));
  restartPrivateSystemBus();
  fake->restart();
  ASSERT_TRUE(runUntil([&] { return central->state() == CentralManagerStatePoweredOn; }, 5s));
  recorder->last = nullptr;
  link();
  EXPECT_TRUE(fake->connected(post));
}

TEST_F(BluezSession, AScanStoppedAndStartedAtOnceStillHearsTheNextAdvertisement) {
  makeCentral();
  find();  // stops the scan
  central->scanForPeripheralsWithServices({}, {});  // while bluetoothd still ends the session
  recorder->events.clear();
  EXPECT_TRUE(runUntil([&] { return heard("discover C0:FF:EE:00:00:01 TQ-AC7-0042 -58"); }))
      << ::testing::PrintToString(fake->calls());
}

TEST_F(BluezSession, ARefusedStartNotifyFailsTheLinkAndClosesIt) {
  fake->faults(post).startNotifyError = bluez::BusError{"org.bluez.Error.NotPermitted", "Notify not permitted"};
  makeCentral();
  auto [write, read] = link();
  peripheral()->setNotifyValue(true, read);
  ASSERT_TRUE(runUntil([&] { return !recorder->events.empty() && !fake->connected(post); }));
  EXPECT_EQ(recorder->events, std::vector<std::string>{"disconnect C0:FF:EE:00:00:01 error 10 The notifications of the "
                                                       "charging post could not be set up. (Notify not permitted)"});
}

TEST_F(BluezSession, AConnectionToALinkGoingDownAwaitsItsEndAndConnectsAfresh) {
  makeCentral();
  auto p = find();
  sim::PostSetup other;
  other.identifier = "C0:FF:EE:00:00:02";
  fake->addPost(other);
  fake->leaveDyingLink(post, 200ms);
  // Heard after the dying link's Connected signal, which is then known to the central.
  central->scanForPeripheralsWithServices({}, {});
  ASSERT_TRUE(runUntil([&] { return heard("discover C0:FF:EE:00:00:02 TQ-AC7-0042 -58"); }))
      << ::testing::PrintToString(recorder->events);
  central->stopScan();
  central->connectPeripheral(p, {});
  ASSERT_TRUE(runUntil([&] { return heard("connect C0:FF:EE:00:00:01"); }));
  p->discoverServices({});
  ASSERT_TRUE(runUntil([&] { return !p->services().empty(); }));
  auto charger = p->services().back();
  p->discoverCharacteristics({}, charger);
  ASSERT_TRUE(runUntil([&] { return !charger->characteristics().empty(); }));
  p->setNotifyValue(true, charger->characteristics().at(1));
  EXPECT_TRUE(runUntil([&] { return fake->notifySessions(post) == 1; })) << "notifications on a fresh link";
  EXPECT_TRUE(fake->connected(post));
}

TEST_F(BluezSession, ANeighbourWhoseNameTheBusLibraryRefusesHidesNoPost) {
  fake->addNeighbour("C0:FF:EE:00:00:09", {'T', 'Q', 0xEF, 0xBF, 0xBF, 0xEF, 0xB7, 0x90});  // U+FFFF, U+FDD0
  makeCentral();
  EXPECT_EQ(recorder->states, std::vector<std::int64_t>{CentralManagerStatePoweredOn});
  auto [write, read] = link();
  peripheral()->readValueForCharacteristic(read);
  EXPECT_TRUE(runUntil([&] { return heard("update FFF4 00"); }));
}

}  // namespace
}  // namespace tqble::test
