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

TEST(Properties, SystemTitleRowsAreFixedObjectsWithTheirTitles) {
  FakeStack stack;
  const auto rows = stack.manager->systemTitleArr();
  const std::vector<std::string> titles = {"桩号",           "桩类型",       "厂商",
                                           "Magic Number",   "通信协议版本", "设备嵌入式软件开发",
                                           "嵌入式软件型号", "音量大小",     "充电桩时间",
                                           "枪状态"};
  ASSERT_EQ(rows.size(), titles.size());
  for (std::size_t i = 0; i < rows.size(); ++i) {
    EXPECT_EQ(rows[i]->title, titles[i]);
    EXPECT_EQ(rows[i]->content, "--");
    EXPECT_EQ(rows[i]->detailType, 0);
    EXPECT_EQ(stack.manager->systemTitleArr()[i], rows[i]) << "same row object";
  }
}

}  // namespace
}  // namespace tqble
