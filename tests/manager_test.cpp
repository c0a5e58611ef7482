#include <gtest/gtest.h>

#include "support/FakeBle.h"

namespace tqble {
namespace {

TEST(Singleton, IsMadeOnceWithOneCentralEvenFromSeveralThreadsAndThenKeepsItsBackend) {
  int made = 0;
  std::shared_ptr<test::FakeCentral> central;
  TQBleManager::useCentralFactory([&](std::weak_ptr<ble::CentralManagerDelegate>) {
    ++made;
    return central = std::make_shared<test::FakeCentral>();
  });
  std::vector<std::shared_ptr<TQBleManager>> seen(8);
  std::vector<std::thread> threads;
  for (auto& slot : seen) threads.emplace_back([&slot] { slot = TQBleManager::shareManager(); });
  for (auto& t : threads) t.join();
  for (const auto& m : seen) EXPECT_EQ(m, seen[0]);
  EXPECT_EQ(made, 1);
  EXPECT_EQ(seen[0]->centralManager(), central);
  EXPECT_FALSE(TQBleManager::useBackend("sim")) << "too late once the manager exists";
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

}  // namespace
}  // namespace tqble
