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

}  // namespace
}  // namespace tqble::test
