// The D-Bus plumbing on a private bus: values keep their types both ways, errors keep
// their names, subscriptions end at once, calls are left for closing. (Every stand-in
// bluetoothd test goes through it as well: the object manager, the properties' signals and
// callbacks on the main queue's thread are proven there.)
#include <gtest/gtest.h>

#include "ble/bluez/Bus.h"
#include "support/PrivateBus.h"
#include "tqble/platform/MainQueue.h"

namespace tqble::bluez {
namespace {

using namespace std::chrono_literals;
constexpr char kService[] = "org.example.BusTest";
constexpr char kIface[] = "org.example.Echo";

class BusTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { test::usePrivateSystemBus(); }

  void SetUp() override {
    server = Bus::openSystem();
    client = Bus::openSystem();
    server->requestName(kService);
    object = server->exportObject("/echo");
    object->addMethod(kIface, "Echo", "v", "v",
                      [](const BusCall& call) { call.reply({call.args().at(0)}); });
    object->addMethod(kIface, "Refuse", "", "", [this](const BusCall& call) {
      ++refusals;
      call.fail("org.example.Error.Refused", "Not today");
    });
    object->addProperty(kIface, "Level", BusValue::int16(-58));
    object->finish();
  }

  BusReply call(const std::string& method, const BusList& args, const std::string& replySignature) {
    return test::callAndWait(*client, kService, "/echo", kIface, method, args, replySignature);
  }

  int refusals = 0;
  std::shared_ptr<Bus> server, client;
  std::unique_ptr<BusObject> object;
};

TEST_F(BusTest, ValuesKeepTheirTypesThroughACallAndItsReplyAndErrorsTheirNames) {
  // clang-format off
  const BusValue values[] = {
      BusValue(true), BusValue::byte(0xFE), BusValue::int16(-127), BusValue::uint16(517), BusValue::int32(-5),
      BusValue::uint32(4000000000u), BusValue(std::int64_t{-1} << 40), BusValue(2.5), BusValue("TQ-AC7-0042"),
      BusValue::path("/org/bluez/hci0"), BusValue(Bytes{0x68, 0x00, 0xFF}), BusValue::paths({"/a", "/a/b"}),
      BusValue(std::vector<std::string>{"0000fff0-0000-1000-8000-00805f9b34fb", ""}),
      BusValue(BusDict{{"type", BusValue("command")}, {"nested", BusValue(BusDict{{"n", BusValue::int16(3)}})}}),
      BusValue("a{qv}", BusIntDict{{0x05F1, BusValue(Bytes{1, 2})}}), BusValue("(sb)", BusList{BusValue("x"), BusValue(false)}),
      BusValue("a{oa{sa{sv}}}", BusDict{{"/p", BusValue("a{sa{sv}}", BusDict{{"i", BusValue(BusDict{})}})}}),
  };
  // clang-format on
  for (const auto& value : values) {
    EXPECT_EQ(call("Echo", {BusValue::variant(value)}, "v").values, BusList{value})
        << value.signature();
  }
  EXPECT_EQ(call("Refuse", {}, "").error, (BusError{"org.example.Error.Refused", "Not today"}));
}

// Nothing more is delivered once a subscription is dropped, not even a signal sent before.
TEST_F(BusTest, ADroppedSubscriptionDeliversNothingMore) {
  int signals = 0;
  auto subscription = client->subscribe("type='signal',sender='" + std::string(kService) + "'",
                                        "sa{sv}as", [&](const BusSignal&) { ++signals; });
  object->set(kIface, "Level", BusValue::int16(-60));
  ASSERT_TRUE(MainQueue::main().runUntil([&] { return signals == 1; }, 2s));
  object->set(kIface, "Level", BusValue::int16(-1));
  subscription = {};
  call("Echo", {BusValue::variant(BusValue(true))}, "v");  // its reply comes after the signal
  EXPECT_EQ(signals, 1);
}

TEST_F(BusTest, CallsLeftForClosingAreSentWhenTheBusCloses) {
  client->callOnClose("a", kService, "/echo", kIface, "Refuse");
  client->callOnClose("b", kService, "/echo", kIface, "Refuse");
  client->cancelOnClose("b");
  bool gone = false;
  auto subscription = server->subscribe(
      "type='signal',member='NameOwnerChanged',arg0='" + client->uniqueName() + "'", "sss",
      [&](const BusSignal&) { gone = true; });
  client->close();
  client->close();
  // The calls reach the server before the name's end does.
  ASSERT_TRUE(MainQueue::main().runUntil([&] { return gone; }, 2s));
  EXPECT_EQ(refusals, 1);
}

}  // namespace
}  // namespace tqble::bluez
