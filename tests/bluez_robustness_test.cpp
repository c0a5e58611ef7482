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
  EXPECT_TRUE(runUntil([&] { return heard("discover C0:FF:EE:00:00:01 TQ-AC7-0042"); }));
}

}  // namespace
}  // namespace tqble::test
