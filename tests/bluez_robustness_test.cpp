// The bluez central when the bus or bluetoothd misbehave: the bus daemon dies and comes
// back, notifications refused, an earlier process's link still going down, neighbours
// whose objects the bus library will not read.
#include "support/BluezSession.h"

namespace tqble::test {
namespace {

using ble::CentralManagerStatePoweredOn;
using ble::CentralManagerStateResetting;

TEST_F(BluezLink, TheProcessOutlivesTheBusAndWorksAgainOnceItIsBack) {
  central->scanForPeripheralsWithServices({}, {});
  ASSERT_TRUE(runUntil([&] { return recorder->last != nullptr; }));
  restartPrivateSystemBus(false);
  ASSERT_TRUE(runUntil([&] { return recorder->states.back() == CentralManagerStateResetting; }));
  restartPrivateSystemBus();
  startBluez();
  ASSERT_TRUE(runUntil([&] { return central->state() == CentralManagerStatePoweredOn; }, 5s));
  link();
}

TEST_F(BluezLink, ARefusedStartNotifyFailsTheLinkAndClosesIt) {
  fake->faults(post).startNotifyError =
      bluez::BusError{"org.bluez.Error.NotPermitted", "Notify not permitted"};
  auto [write, read] = link();
  recorder->last->setNotifyValue(true, read);
  ASSERT_TRUE(runUntil([&] { return !recorder->events.empty() && !fake->connected(post); }));
  EXPECT_EQ(recorder->events,
            std::vector<std::string>{"disconnect C0:FF:EE:00:00:01 error 10 The notifications of "
                                     "the charging post could not be set up. (Notify not "
                                     "permitted)"});
}

// bluetoothd keeps a link 2 s after its client asked to end it, and refuses notifications
// meanwhile; the links this process makes end with its bus.
TEST_F(BluezLink, AConnectionToALinkGoingDownAwaitsItsEndAndOursEndsWithTheProcess) {
  auto p = find();
  fake->leaveDyingLink(post, 200ms);
  barrier();  // its Connected signal is known
  auto [write, read] = link(p);
  p->setNotifyValue(true, read);
  ASSERT_TRUE(runUntil([&] { return fake->notifySessions(post) == 1; })) << "a fresh link";
  bluez::Bus::system()->close();
  ASSERT_TRUE(runUntil([&] { return !fake->connected(post); }));
  EXPECT_EQ(fake->calls().back(), "Disconnect C0:FF:EE:00:00:01");
}

// Found by another client's scan before the central starts: the first GetManagedObjects
// reply carries its name.
TEST_F(BluezSession, ANeighbourWhoseNameTheBusLibraryRefusesHidesNoPost) {
  sim::PostSetup setup;
  setup.identifier = "C0:FF:EE:00:00:09";
  setup.name = "TQ\uFFFF\uFDD0";  // noncharacters, which dbus-daemon passes and sd-bus refuses
  fake->addPost(setup);
  auto other = bluez::Bus::openSystem();
  other->call("org.bluez", "/org/bluez/hci0", "org.bluez.Adapter1", "StartDiscovery", {}, 2s);
  ASSERT_TRUE(runUntil([&] { return called("StartDiscovery hci0"); }));  // and the posts heard
  makeCentral();
  EXPECT_EQ(recorder->states, std::vector<std::int64_t>{CentralManagerStatePoweredOn});
  auto [write, read] = link();
  recorder->last->readValueForCharacteristic(read);
  EXPECT_TRUE(runUntil([&] { return heard("update FFF4 00"); }));
}

}  // namespace
}  // namespace tqble::test
