// Every command from the manager's call to its delegate, once per backend: the simulated
// radio on virtual time, and the bluez backend against the stand-in bluetoothd on the
// real clock. One post, one link, the rows of the command table in order.
#include <gtest/gtest.h>

#include "support/Commands.h"
#include "support/Hex.h"
#include "support/Recorder.h"
#include "tqble/platform/MainQueue.h"
#include "tqble/sim/SimRadio.h"
#ifdef TQBLE_TEST_BLUEZ
#include "support/FakeBluez.h"
#include "support/PrivateBus.h"
#endif

// The backends, named plainly: CTest shows each case with its backend's name.
struct SimulatorBackend {
  SimulatorBackend() {
    tqble::MainQueue::main().useVirtualClock();
    tqble::TQBleManager::useBackend("sim");
    post = tqble::sim::SimRadio::shared().addPost();
  }
  std::shared_ptr<tqble::sim::VirtualPost> post;
};

#ifdef TQBLE_TEST_BLUEZ
struct BluezBackend {
  BluezBackend() {
    tqble::sim::PostSetup setup;
    setup.identifier = "C0:FF:EE:00:00:01";
    post = fake.addPost(setup);
    tqble::TQBleManager::useBackend("bluez");
  }
  bool bus = !tqble::test::usePrivateSystemBus().empty();  // before the stand-in takes its name on it
  tqble::test::FakeBluez fake;
  std::shared_ptr<tqble::sim::VirtualPost> post;
};
using Backends = testing::Types<SimulatorBackend, BluezBackend>;
#else
using Backends = testing::Types<SimulatorBackend>;
#endif

namespace tqble::test {
namespace {

using namespace std::chrono_literals;

template <typename Backend>
class EveryCommand : public testing::Test {};
TYPED_TEST_SUITE(EveryCommand, Backends);

TYPED_TEST(EveryCommand, GoesFromTheCallToTheDelegateWithOneAnswerAndItsChangeToThePost) {
  TypeParam backend;
  auto& post = *backend.post;
  post.model().setClock(1'700'000'000);
  auto manager = TQBleManager::shareManager();
  Recorder r;
  r.attach(*manager);
  auto& queue = MainQueue::main();
  ASSERT_TRUE(queue.runUntil([&] { return !r.states.empty(); }, 5s));  // powered on
  EXPECT_EQ(r.states, std::vector<std::int64_t>{ble::CentralManagerStatePoweredOn});
  manager->scanForPeripherals();
  ASSERT_TRUE(queue.runUntil([&] { return !r.discoveries.empty(); }, 5s));
  manager->stopScan();
  manager->startConnectPeripheral(r.discoveries.back().first);
  // The initial read of FFF4, then the system information the manager asks for by itself.
  ASSERT_TRUE(queue.runUntil([&] { return r.tapped.size() == 1; }, 10s));
  EXPECT_EQ(r.tapped[0].first, 2);
  EXPECT_EQ(manager->writeCharacteristic()->uuid().UUIDString(), "FFF3");

  for (const CommandRow& row : kCommandRows) {
    SCOPED_TRACE(row.name);
    if (row.prepare) row.prepare(post.model());
    r.clear();
    const std::size_t sent = post.sentAnswers().size();
    row.issue(*manager, nullptr);
    ASSERT_TRUE(queue.runUntil(
        [&] { return !r.tapped.empty() && r.updates.size() >= row.notifications; }, 5s));
    ASSERT_EQ(post.sentAnswers().size(), sent + 1);
    ASSERT_EQ(r.tapped.size(), 1u);
    EXPECT_EQ(r.tapped[0].first, row.tag);
    EXPECT_EQ(spaced(r.tapped[0].second), spaced(post.sentAnswers().back()));
    EXPECT_EQ(post.receivedWrites().back().at(1), row.code);
    EXPECT_EQ(r.updates.size(), row.notifications);
    EXPECT_EQ(r.updateErrors, Errors(r.updates.size()));
    const auto& result = r.updates.back()->result;
    EXPECT_EQ(result ? result->resultType : -1, row.resultType);
    EXPECT_EQ(manager->cmdType(), 0);
    EXPECT_TRUE(row.check({post, *manager, r.tapped[0].second, *r.updates.back()}));
  }

  manager->stopConnectPeripheral(manager->connectedPheral(), nullptr);
  ASSERT_TRUE(queue.runUntil([&] { return !r.disconnects.empty(); }, 5s));
  EXPECT_EQ(r.disconnects, (std::vector<std::optional<std::int64_t>>{std::nullopt}))
      << "asked for, so without an error";
}

TEST(VirtualPost, IgnoresRequestsWithABadStartLengthChecksumOrCommand) {
  MainQueue::main().useVirtualClock();
  sim::VirtualPost post;
  for (const char* request :
       {"69 b5 00 00 01 00 00 dd 00", "68 b5 00 00 02 00 00 df 00", "68 b5 00 00 01 00 00 dd 00",
        "68 b9 00 00 01 00 00 d0 00", "68 b5 00"})
    EXPECT_TRUE(post.handleWrite(hex(request)).empty()) << request;
  EXPECT_EQ(post.receivedWrites().size(), 5u);
  EXPECT_TRUE(post.sentAnswers().empty());
}

}  // namespace
}  // namespace tqble::test
