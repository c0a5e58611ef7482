// The manager on the bluez backend, end to end against the stand-in bluetoothd: scan,
// connect, the system-information query 3 s later, every command from its call to the
// delegate, and the disconnection; all on the real clock.
#include <gtest/gtest.h>

#include "support/FakeBluez.h"
#include "support/PrivateBus.h"
#include "tqble/TQBleManager.h"
#include "tqble/platform/MainQueue.h"

namespace tqble::test {
namespace {

using namespace std::chrono_literals;

TEST(BluezManager, ServesEveryCommandFromTheCallToTheDelegate) {
  usePrivateSystemBus();
  FakeBluez fake;
  sim::PostSetup setup;
  setup.identifier = "C0:FF:EE:00:00:01";
  auto post = fake.addPost(setup);
  post->model().setClock(1'700'000'000);

  ASSERT_TRUE(TQBleManager::useBackend("bluez"));
  auto manager = TQBleManager::shareManager();
  auto delegate = std::make_shared<TQBleManagerDelegate>();
  std::vector<std::int64_t> states;
  std::shared_ptr<ble::Peripheral> heard;
  int connects = 0, disconnects = 0, updates = 0, updateErrors = 0;
  std::vector<Bytes> tapped;
  delegate->tqbleManagerCenterState = [&](std::int64_t s) { states.push_back(s); };
  delegate->didDiscoverPeripheral = [&](TQBleManager&, const auto& p, std::int64_t) { heard = p; };
  delegate->didConnectPeripheral = [&](TQBleManager&, const auto&) { ++connects; };
  delegate->didDisconnectPeripheral = [&](TQBleManager&, const auto&, const auto& e) { disconnects += e ? 100 : 1; };
  delegate->didUpdateValueForCharacteristicValue = [&](TQBleManager&, const auto&, const auto& e) {
    ++updates, updateErrors += e.has_value();
  };
  manager->setDelegate(delegate);
  manager->addAnswerObserver([&](std::int64_t, const Bytes& answer) { tapped.push_back(answer); });
  auto& queue = MainQueue::main();
  ASSERT_TRUE(queue.runUntil([&] { return !states.empty(); }, 2s));
  EXPECT_EQ(states, std::vector<std::int64_t>{ble::CentralManagerStatePoweredOn});

  manager->scanForPeripherals();
  ASSERT_TRUE(queue.runUntil([&] { return heard != nullptr; }, 2s));
  manager->stopScan();
  EXPECT_EQ(heard->name(), "TQ-AC7-0042");
  manager->startConnectPeripheral(heard);
  ASSERT_TRUE(queue.runUntil([&] { return connects == 1 && manager->readCharacteristic() != nullptr; }, 2s));
  EXPECT_EQ(manager->writeCharacteristic()->uuid().UUIDString(), "FFF3");

  // The manager asks for the system information by itself, 3 s after connecting.
  EXPECT_FALSE(queue.runUntil([&] { return !tapped.empty(); }, 2800ms));
  ASSERT_TRUE(queue.runUntil([&] { return !tapped.empty(); }, 1s));
  EXPECT_EQ(tapped.back(), post->sentAnswers().back());
  queue.runFor(100ms);
  EXPECT_EQ(manager->systemInfoModelList().size(), 10u);

  struct Step {
    const char* name;
    void (*prepare)(sim::PostModel&);
    void (*call)(TQBleManager&);
    int delegateCalls;
  } steps[] = {
      {"time sync", nullptr, [](TQBleManager& m) { m.synchroTimeWithError(nullptr); }, 1},
      {"volume", nullptr, [](TQBleManager& m) { m.setVolumeWithVolumeSize(35, nullptr); }, 1},
      {"start", [](sim::PostModel& p) { p.plugIn(); }, [](TQBleManager& m) { m.startChargingWithError(nullptr); }, 1},
      {"state", nullptr, [](TQBleManager& m) { m.queryChargerStateWithError(nullptr); }, 2},
      {"stop", nullptr, [](TQBleManager& m) { m.stopChargeWithError(nullptr); }, 1},
      {"error log", [](sim::PostModel& p) { p.raiseFault(sim::FaultOverVoltage); },
       [](TQBleManager& m) { m.queryHistoryErrorLogListWithError(nullptr); }, 1},
      {"diagnostics", nullptr, [](TQBleManager& m) { m.runningDiagnosticInfoWithError(nullptr); }, 4},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(step.name);
    if (step.prepare) step.prepare(post->model());
    tapped.clear(), updates = 0;
    const auto answers = post->sentAnswers().size();
    step.call(*manager);
    ASSERT_TRUE(queue.runUntil([&] { return !tapped.empty() && updates == step.delegateCalls; }, 1s));
    queue.runFor(50ms);
    EXPECT_EQ(tapped.size(), 1u);
    EXPECT_EQ(updates, step.delegateCalls);
    ASSERT_EQ(post->sentAnswers().size(), answers + 1);
    EXPECT_EQ(tapped.back(), post->sentAnswers().back());
    EXPECT_EQ(manager->cmdType(), 0);
  }
  EXPECT_EQ(post->model().volume(), 35);
  EXPECT_EQ(post->model().history().size(), 1u);
  EXPECT_EQ(updateErrors, 0);

  manager->stopConnectPeripheral(manager->connectedPheral(), nullptr);
  ASSERT_TRUE(queue.runUntil([&] { return disconnects > 0; }, 1s));
  EXPECT_EQ(disconnects, 1) << "asked for, so without an error";
  EXPECT_FALSE(fake.connected(post));
}

}  // namespace
}  // namespace tqble::test
