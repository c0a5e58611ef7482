// The manager on a scripted central: the singleton, every command's exact frame and local
// failures, the write path, stopping a link and the delegate's calls.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/DateFormat.h"
#include "support/Commands.h"
#include "support/FakeBle.h"
#include "support/Hex.h"

namespace tqble {
namespace {

using namespace test;

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
  const std::string built = ble::backendNames().size() == 2 ? "sim, bluez" : "sim";
  EXPECT_THAT([] { TQBleManager::shareManager(); },
              testing::ThrowsMessage<std::runtime_error>("unknown BLE backend: no-such-radio (built: " + built + ")"));
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
  EXPECT_TRUE(FakeStack::central->calls.empty());  // with a peripheral: the ended-link suite's
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
    stack.notify(post, hex("68 b0 00 00 01 00 00 d9 00"));
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
  first->didDisconnectPeripheral = [&](auto&, const auto&, const auto&) { calls.push_back("first disconnect"); };
  second->didDisconnectPeripheral = [&](auto&, const auto&, const auto&) { calls.push_back("second disconnect"); };
  stack.manager->setDelegate(first);
  auto post = stack.connectReadyPost();
  stack.notify(post, hex("00"));
  stack.manager->didDisconnectPeripheral(*stack.central, post, std::nullopt);
  EXPECT_EQ(calls, (std::vector<std::string>{"first connect", "second disconnect"}));
}

// The same commands with other arguments: a one-digit volume travels as an empty body,
// volumes of two or three digits as the byte of their first two, reservation fields as
// their low 8 bits.
TEST(CommandArguments, ShapeTheBodyAsThePostReadsIt) {
  // clang-format off
  const std::pair<void (*)(TQBleManager&), const char*> cases[] = {
      {[](auto& m) { m.setVolumeWithVolumeSize(5, nullptr); }, "68 B2 00 00 00 00 00 DA"},
      {[](auto& m) { m.setVolumeWithVolumeSize(10, nullptr); }, "68 B2 00 00 01 00 00 CB 10"},
      {[](auto& m) { m.setVolumeWithVolumeSize(100, nullptr); }, "68 B2 00 00 01 00 00 CB 10"},
      {[](auto& m) { m.orderChargerWithStartHour(256 + 22, 30, 6 - 256, 0, nullptr); }, "68 B3 00 00 05 00 00 D1 01 16 1E 06 00"},
      {[](auto& m) { m.synchroTimeWithError(nullptr); }, "68 B0 00 00 04 00 00 5C FF FF FF 7F"}};
  // clang-format on
  FakeStack stack;
  auto post = stack.connectReadyPost();
  detail::setNowSource([] { return 4'000'000'000.4; });  // past 2038: read as INT32_MAX
  for (const auto& [issue, frame] : cases) {
    issue(*stack.manager);
    EXPECT_EQ(spaced(post->writes.back().data), spaced(hex(frame)));
  }
  EXPECT_EQ(post->writes.size(), std::size(cases));
}

// The frame builder itself: a missing or empty body, the one code with another start
// byte, codes and statuses above 0x7F copied verbatim, the seed, and a length over 255.
TEST(FrameEncoding, ProducesExactBytes) {
  FakeStack stack;
  std::string longBody;
  for (int i = 0; i < 256; ++i) longBody += " 11";  // equal bytes cancel out in the checksum
  // clang-format off
  const std::tuple<std::uint8_t, std::uint8_t, std::optional<Bytes>, std::uint8_t, std::string> cases[] = {
      {0xB5, 0, std::nullopt, 0, "68 B5 00 00 00 00 00 DD"}, {0xB5, 0, Bytes{}, 0, "68 B5 00 00 00 00 00 DD"},
      {0xBA, 0, std::nullopt, 0, "AA BA 00 00 00 00 00 10"},  // 0xAA enters the checksum
      {0xB9, 0, std::nullopt, 0, "68 B9 00 00 00 00 00 D1"}, {0xBB, 0, std::nullopt, 0, "68 BB 00 00 00 00 00 D3"},
      {0xFF, 0x80, hex("01 02"), 0, "68 FF 80 00 02 00 00 16 01 02"},
      {0xB5, 0, hex("00"), 0x5A, "68 B5 00 00 01 00 00 86 00"}, {0x32, 0x07, hex("00"), 0xFF, "68 32 07 00 01 00 00 A3 00"},
      {0xB0, 0, Bytes(256, 0x11), 0, "68 B0 00 00 00 01 00 D9" + longBody}};
  // clang-format on
  for (const auto& [cmd, status, body, rand, frame] : cases)
    EXPECT_EQ(spaced(stack.manager->setDataWithCmd(cmd, status, body, rand)), spaced(hex(frame))) << frame;
}

class Command : public testing::TestWithParam<CommandRow> {
 protected:
  // The time sync carries the clock: every frame is issued at the same instant.
  void SetUp() override { detail::setNowSource([] { return 1'700'000'000.2; }); }
};

// Each command records its tag first, over another command's still pending, then fails
// locally without a link or a write characteristic; on a ready link it writes its frame,
// then once more with the status and seed properties set (the system query ignores them),
// over a buffer only some clear.
TEST_P(Command, RecordsItsTagFailsLocallyOrWritesItsExactFrameAndClearsTheBufferOnlyWhereItMust) {
  FakeStack stack;
  const auto& c = GetParam();
  std::vector<TQError> errors;
  const TQErrorHandler record = [&](const TQError& e) { errors.push_back(e); };
  stack.manager->setCmdType(99);
  c.issue(*stack.manager, record);
  EXPECT_EQ(stack.manager->cmdType(), c.tag);
  auto bare = std::make_shared<test::FakePeripheral>();
  stack.manager->didConnectPeripheral(*stack.central, bare);
  c.issue(*stack.manager, record);
  EXPECT_EQ(errors, (std::vector<TQError>{{"没有连接的外设", 1002, {}}, {"蓝牙写入特征为空，请检查蓝牙连接设备", 1001, {}}}));
  EXPECT_TRUE(bare->writes.empty());
  auto post = stack.connectReadyPost();
  c.issue(*stack.manager, record);
  stack.manager->setStatusCode(0x07);
  stack.manager->setRand(0x5A);
  stack.manager->systemInfoData() = hex("68 b1 00");
  c.issue(*stack.manager, nullptr);
  EXPECT_EQ(errors.size(), 2u);
  EXPECT_EQ(stack.manager->systemInfoData().empty(), c.clearsBuffer);
  ASSERT_EQ(post->writes.size(), 2u);
  EXPECT_EQ(spaced(post->writes[0].data), spaced(hex(c.frame)));
  EXPECT_EQ(spaced(post->writes[1].data), spaced(hex(c.seededFrame)));
  EXPECT_EQ(post->writes[0].type, ble::WriteType::WithoutResponse);
}

INSTANTIATE_TEST_SUITE_P(Catalogue, Command, testing::ValuesIn(kCommandRows),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace tqble
