#include <gtest/gtest.h>

#include "support/FakeBle.h"

namespace tqble {
namespace {

using test::FakeStack;

TEST(Singleton, EveryCallReturnsTheSameManagerAndTheCentralIsMadeOnce) {
  FakeStack stack;
  auto again = TQBleManager::shareManager();
  EXPECT_EQ(stack.manager, again);
  EXPECT_EQ(FakeStack::centralsMade, 1);
  EXPECT_EQ(stack.manager->centralManager(), FakeStack::central);
  EXPECT_FALSE(TQBleManager::useBackend("sim")) << "too late once the manager exists";
}

TEST(Singleton, IsSafeToCreateFromSeveralThreads) {
  int made = 0;
  TQBleManager::useCentralFactory([&made](std::weak_ptr<ble::CentralManagerDelegate>) {
    ++made;
    return std::make_shared<test::FakeCentral>();
  });
  std::vector<std::shared_ptr<TQBleManager>> seen(8);
  std::vector<std::thread> threads;
  for (auto& slot : seen) threads.emplace_back([&slot] { slot = TQBleManager::shareManager(); });
  for (auto& t : threads) t.join();
  for (const auto& m : seen) EXPECT_EQ(m, seen[0]);
  EXPECT_EQ(made, 1);
}

TEST(Singleton, UnknownBackendIsAClearError) {
  ASSERT_TRUE(TQBleManager::useBackend("no-such-radio"));
  try {
    TQBleManager::shareManager();
    FAIL() << "expected an error";
  } catch (const std::runtime_error& e) {
    const std::string built = ble::backendNames().size() == 2 ? "sim, bluez" : "sim";
    EXPECT_EQ(e.what(), "unknown BLE backend: no-such-radio (built: " + built + ")");
  }
}

TEST(Properties, LazyOnesAreRecreatedEmptyAfterBeingReset) {
  FakeStack stack;
  auto& m = *stack.manager;
  EXPECT_EQ(m.cmdType(), 0);
  const auto model = m.dataModel();
  ASSERT_NE(model, nullptr);
  EXPECT_EQ(m.dataModel(), model) << "the same record until reset";
  m.setDataModel(nullptr);
  EXPECT_NE(m.dataModel(), model);

  m.systemInfoData().push_back(0x68);
  m.setSystemInfoData(std::nullopt);
  EXPECT_TRUE(m.systemInfoData().empty());

  m.systemInfoModelList().push_back(std::make_shared<ZRunStateModel>());
  m.setSystemInfoModelList(std::nullopt);
  EXPECT_TRUE(m.systemInfoModelList().empty());

  m.allPeripheral().push_back(std::make_shared<test::FakePeripheral>());
  m.setAllPeripheral(std::nullopt);
  EXPECT_TRUE(m.allPeripheral().empty());
}

}  // namespace
}  // namespace tqble
