// The manager on a scripted central: the singleton, the write path, stopping a link and
// the delegate's calls.
#include <gtest/gtest.h>

#include "support/FakeBle.h"
#include "support/Hex.h"

namespace tqble {
namespace {

using test::FakePeripheral;
using test::FakeStack;

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

TEST(WritePath, WritesTheWholeFrameOnceWithoutResponseEvenToAStaleCharacteristic) {
  FakeStack stack;
  auto first = stack.connectReadyPost();
  const auto staleWrite = stack.write;
  stack.manager->didDisconnectPeripheral(*stack.central, first, std::nullopt);
  auto second = std::make_shared<FakePeripheral>();  // nothing discovered on this link
  stack.manager->didConnectPeripheral(*stack.central, second);
  const Bytes frame(300, 0xAB);  // longer than any notification: still one write
  stack.manager->writeData(frame, second, [](const TQError& e) { ADD_FAILURE() << e.code; });
  ASSERT_EQ(second->writes.size(), 1u);
  EXPECT_EQ(second->writes[0].data, frame);
  EXPECT_EQ(second->writes[0].characteristic, staleWrite);
  EXPECT_EQ(second->writes[0].type, ble::WriteType::WithoutResponse);
}

TEST(StopConnection, WithoutPeripheralReportsNoPeripheralAndLeavesScanningAlone) {
  FakeStack stack;
  std::vector<TQError> errors;
  const TQErrorHandler record = [&](const TQError& e) { errors.push_back(e); };
  stack.manager->stopConnectPeripheral(nullptr, nullptr);  // no handler: nothing at all
  stack.manager->stopConnectPeripheral(nullptr, record);
  EXPECT_TRUE(FakeStack::central->calls.empty());
  stack.manager->stopConnectPeripheral(std::make_shared<FakePeripheral>(), record);
  EXPECT_EQ(FakeStack::central->calls, (std::vector<std::string>{"stopScan", "cancel"}));
  EXPECT_EQ(errors, std::vector<TQError>{(TQError{"没有连接的外设", 1002, {}})});
}

TEST(WriteConfirmation, IsForwardedUnchanged) {
  FakeStack stack;
  auto delegate = std::make_shared<TQBleManagerDelegate>();
  std::vector<std::optional<TQError>> seen;
  delegate->didWriteValueForCharacteristic = [&](TQBleManager&, const auto& c, const auto& e) {
    EXPECT_EQ(c, stack.write);
    seen.push_back(e);
  };
  stack.manager->setDelegate(delegate);
  auto post = stack.connectReadyPost();
  const TQError platformError{"link busy", 14, {{"retry", Value{true}}}};
  stack.manager->didWriteValueForCharacteristic(post, stack.write, platformError);
  stack.manager->didWriteValueForCharacteristic(post, stack.write, std::nullopt);
  EXPECT_EQ(seen, (std::vector<std::optional<TQError>>{platformError, std::nullopt}));
}

TEST(Delegate, ThatImplementsNothingOrWasReleasedReceivesNothingAndNothingFails) {
  FakeStack stack;
  int calls = 0;
  auto empty = std::make_shared<TQBleManagerDelegate>();
  {
    auto released = std::make_shared<TQBleManagerDelegate>();
    released->didConnectPeripheral = [&](TQBleManager&, const auto&) { ++calls; };
    stack.manager->setDelegate(released);
  }
  for (int round = 0; round < 2; ++round) {
    auto post = stack.connectReadyPost();
    stack.manager->centralManagerDidUpdateState(*stack.central);
    stack.manager->didDiscoverPeripheral(*stack.central, post, {}, -60);
    stack.manager->didWriteValueForCharacteristic(post, stack.write, std::nullopt);
    stack.notify(post, test::hex("68 b0 00 00 01 00 00 d9 00"));
    stack.manager->didDisconnectPeripheral(*stack.central, post, std::nullopt);
    stack.manager->didFailToConnectPeripheral(*stack.central, post, std::nullopt);
    stack.manager->setDelegate(empty);
  }
  EXPECT_EQ(calls, 0);
}

TEST(Delegate, GetsOnlyTheCallbacksItImplementsAndIsReadAfreshBeforeEach) {
  FakeStack stack;
  std::vector<std::string> calls;
  auto first = std::make_shared<TQBleManagerDelegate>();
  auto second = std::make_shared<TQBleManagerDelegate>();
  first->didConnectPeripheral = [&](TQBleManager& m, const auto&) {
    calls.push_back("first connect");
    m.setDelegate(second);
  };
  first->didDisconnectPeripheral = [&](TQBleManager&, const auto&, const auto&) {
    calls.push_back("first disconnect");
  };
  second->didDisconnectPeripheral = [&](TQBleManager&, const auto&, const auto&) {
    calls.push_back("second disconnect");
  };
  stack.manager->setDelegate(first);
  auto post = stack.connectReadyPost();
  stack.notify(post, test::hex("00"));
  stack.manager->didDisconnectPeripheral(*stack.central, post, std::nullopt);
  EXPECT_EQ(calls, (std::vector<std::string>{"first connect", "second disconnect"}));
}

}  // namespace
}  // namespace tqble
