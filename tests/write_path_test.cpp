#include <gtest/gtest.h>

#include "support/FakeBle.h"
#include "support/Hex.h"
#include "tqble/BLESDKConst.h"

namespace tqble {
namespace {

using test::FakePeripheral;
using test::FakeStack;

struct HandlerLog {
  std::vector<TQError> errors;
  TQErrorHandler handler() {
    return [this](const TQError& e) { errors.push_back(e); };
  }
};

TEST(WritePath, ReportsEachLocalFailureOnceWithItsExactErrorAndWritesNothing) {
  FakeStack stack;
  auto post = std::make_shared<FakePeripheral>();  // connected but nothing discovered
  HandlerLog log;
  stack.manager->writeData(test::hex("68 b5"), nullptr, log.handler());
  stack.manager->writeData(test::hex("68 b5"), post, log.handler());
  ASSERT_EQ(log.errors.size(), 2u);
  EXPECT_EQ(log.errors[0], (TQError{"没有连接的外设", 1002, {}}));
  EXPECT_EQ(log.errors[1], (TQError{"蓝牙写入特征为空，请检查蓝牙连接设备", 1001, {}}));
  EXPECT_TRUE(post->writes.empty());
}

TEST(WritePath, SuccessWritesWholeFrameOnceWithoutResponseAndNeverCallsHandler) {
  FakeStack stack;
  auto post = stack.connectReadyPost();
  HandlerLog log;
  const Bytes frame(300, 0xAB);  // longer than any notification: still one write
  stack.manager->writeData(frame, post, log.handler());
  EXPECT_TRUE(log.errors.empty());
  ASSERT_EQ(post->writes.size(), 1u);
  EXPECT_EQ(post->writes[0].data, frame);
  EXPECT_EQ(post->writes[0].characteristic, stack.write);
  EXPECT_EQ(post->writes[0].type, ble::WriteType::WithoutResponse);
}

TEST(StopConnection, WithoutPeripheralReportsNoPeripheralAndLeavesScanningAlone) {
  FakeStack stack;
  HandlerLog log;
  stack.manager->stopConnectPeripheral(nullptr, nullptr);  // no handler: nothing at all
  stack.manager->stopConnectPeripheral(nullptr, log.handler());
  ASSERT_EQ(log.errors.size(), 1u);
  EXPECT_EQ(log.errors[0], (TQError{"没有连接的外设", 1002, {}}));
  EXPECT_TRUE(FakeStack::central->calls.empty());
  stack.manager->stopConnectPeripheral(std::make_shared<FakePeripheral>(), log.handler());
  EXPECT_EQ(FakeStack::central->calls, (std::vector<std::string>{"stopScan", "cancel"}));
  EXPECT_EQ(log.errors.size(), 1u);
}

TEST(WritePath, WritesToStaleCharacteristicOfAnEarlierConnection) {
  FakeStack stack;
  auto first = stack.connectReadyPost();
  const auto staleWrite = stack.write;
  stack.manager->didDisconnectPeripheral(*stack.central, first, std::nullopt);
  auto second = std::make_shared<FakePeripheral>();
  stack.manager->didConnectPeripheral(*stack.central, second);
  HandlerLog log;
  stack.manager->stopChargeWithError(log.handler());
  EXPECT_TRUE(log.errors.empty());
  ASSERT_EQ(second->writes.size(), 1u);
  EXPECT_EQ(second->writes[0].characteristic, staleWrite);
}

TEST(WriteConfirmation, IsForwardedUnchangedWhenImplemented) {
  FakeStack stack;
  auto delegate = std::make_shared<TQBleManagerDelegate>();
  std::vector<std::pair<std::shared_ptr<ble::Characteristic>, std::optional<TQError>>> seen;
  delegate->didWriteValueForCharacteristic = [&](TQBleManager& m, const auto& c, const auto& e) {
    EXPECT_EQ(&m, stack.manager.get());
    seen.emplace_back(c, e);
  };
  stack.manager->setDelegate(delegate);
  auto post = stack.connectReadyPost();
  const TQError platformError{"link busy", 14, {{"retry", Value{true}}}};
  stack.manager->didWriteValueForCharacteristic(post, stack.write, platformError);
  stack.manager->didWriteValueForCharacteristic(post, stack.write, std::nullopt);
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].first, stack.write);
  EXPECT_EQ(seen[0].second, platformError);
  EXPECT_FALSE(seen[1].second.has_value());
}

TEST(Delegate, ThatImplementsNothingReceivesNothingAndNothingFails) {
  FakeStack stack;
  auto delegate = std::make_shared<TQBleManagerDelegate>();
  stack.manager->setDelegate(delegate);
  auto post = stack.connectReadyPost();
  stack.manager->centralManagerDidUpdateState(*stack.central);
  stack.manager->didDiscoverPeripheral(*stack.central, post, {}, -60);
  stack.manager->didWriteValueForCharacteristic(post, stack.write, std::nullopt);
  stack.notify(post, test::hex("68 b0 00 00 01 00 00 d9 00"));
  stack.manager->didDisconnectPeripheral(*stack.central, post, std::nullopt);
  stack.manager->didFailToConnectPeripheral(*stack.central, post, std::nullopt);
  SUCCEED();
}

TEST(Delegate, ThatImplementsSomeCallbacksGetsOnlyThose) {
  FakeStack stack;
  auto delegate = std::make_shared<TQBleManagerDelegate>();
  std::vector<std::string> calls;
  delegate->didConnectPeripheral = [&](TQBleManager&, const auto&) { calls.push_back("connect"); };
  delegate->didDisconnectPeripheral = [&](TQBleManager&, const auto&, const auto&) {
    calls.push_back("disconnect");
  };
  stack.manager->setDelegate(delegate);
  auto post = stack.connectReadyPost();
  stack.notify(post, test::hex("00"));
  stack.manager->didDisconnectPeripheral(*stack.central, post, std::nullopt);
  EXPECT_EQ(calls, (std::vector<std::string>{"connect", "disconnect"}));
}

TEST(Delegate, ReleasedByTheApplicationIsSimplyNotCalled) {
  FakeStack stack;
  int calls = 0;
  {
    auto delegate = std::make_shared<TQBleManagerDelegate>();
    delegate->didConnectPeripheral = [&](TQBleManager&, const auto&) { ++calls; };
    stack.manager->setDelegate(delegate);
  }
  stack.connectReadyPost();
  EXPECT_EQ(calls, 0);
  EXPECT_TRUE(stack.manager->delegate().expired());
}

TEST(Delegate, IsReadAfreshBeforeEveryCall) {
  FakeStack stack;
  std::vector<std::string> calls;
  auto first = std::make_shared<TQBleManagerDelegate>();
  auto second = std::make_shared<TQBleManagerDelegate>();
  first->didConnectPeripheral = [&](TQBleManager& m, const auto&) {
    calls.push_back("first");
    m.setDelegate(second);
  };
  second->didDisconnectPeripheral = [&](TQBleManager&, const auto&, const auto&) {
    calls.push_back("second");
  };
  stack.manager->setDelegate(first);
  auto post = stack.connectReadyPost();
  stack.manager->didDisconnectPeripheral(*stack.central, post, std::nullopt);
  EXPECT_EQ(calls, (std::vector<std::string>{"first", "second"}));
}

}  // namespace
}  // namespace tqble
