// `tqble post`'s server on a private bus, with the test standing in for bluetoothd, for what
// the radio guest does not show: lost pieces, a link dropped mid-answer, and the value a new
// link reads first. (Registering, advertising and every answer in pieces of 20 bytes are
// proven in the guest; unregistering at the end is not needed there, as bluetoothd drops
// what a client registered when it leaves the bus.)
#include <gtest/gtest.h>

#include "ble/bluez/post/PostServer.h"
#include "support/PrivateBus.h"
#include "tqble/platform/MainQueue.h"

namespace tqble::bluez {
namespace {

using namespace std::chrono_literals;
constexpr char kChrc[] = "org.bluez.GattCharacteristic1";
constexpr char kWrite[] = "/tqble/post/service0/char0";
constexpr char kRead[] = "/tqble/post/service0/char1";
constexpr char kDevice[] = "/org/bluez/hci0/dev_00_AA_01_01_00_01";

// bluetoothd's side: the adapter's two managers and a connected device, with the calls they got.
class PostServerTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { test::usePrivateSystemBus(); }

  void SetUp() override {
    daemon = Bus::openSystem();
    daemon->requestName("org.bluez");
    adapter = daemon->exportObject("/org/bluez/hci0");
    record(*adapter, "org.bluez.GattManager1", "RegisterApplication", "oa{sv}");
    record(*adapter, "org.bluez.LEAdvertisingManager1", "RegisterAdvertisement", "oa{sv}");
    adapter->finish();
    device = daemon->exportObject(kDevice);
    record(*device, "org.bluez.Device1", "Disconnect", "");
    device->addProperty("org.bluez.Device1", "Connected", true);
    device->finish();
  }

  void TearDown() override { MainQueue::main().clear(); }

  void record(BusObject& object, const char* interface, const char* method, const char* in) {
    object.addMethod(interface, method, in, "", [this, method](const BusCall& call) {
      calls.push_back(method);
      post = call.sender();
      call.reply();
    });
  }

  // Calls the post and waits for its answer.
  BusReply ask(const std::string& path, const std::string& interface, const std::string& method,
               const BusList& args, const std::string& replySignature = "") {
    return test::callAndWait(*daemon, post, path, interface, method, args, replySignature);
  }

  std::shared_ptr<Bus> daemon;
  std::unique_ptr<BusObject> adapter, device;
  std::vector<std::string> calls;
  std::string post;  ///< the post's bus name
};

// A lost piece leaves a gap and the rest follows; a link dropped after the third piece is
// ended by asking bluetoothd to disconnect, and nothing more is sent. A read gets the last
// piece while the link lasts, and a new link's first read the initial value.
TEST_F(PostServerTest, NotifiesWhatItsFaultsLeaveAndANewLinkReadsTheInitialValue) {
  auto server = PostServer::make(Bus::openSystem(), PostOptions{}, PostEvents{});
  server->post().faults().lostNotifications = {1};
  server->post().faults().dropLinkAfterNotifications = 3;
  server->start([](const std::optional<std::string>&) {});
  ASSERT_TRUE(MainQueue::main().runUntil([&] { return calls.size() == 2; }, 2s));  // registered
  // As bluetoothd for a connected central: notifications on, one write, every piece notified
  // (the post has nothing left to send, and a call answered after its last piece came back).
  std::vector<Bytes> pieces;
  auto values = daemon->subscribe(
      "type='signal',member='PropertiesChanged',path='" + std::string(kRead) + "'", "sa{sv}as",
      [&](const BusSignal& s) {
        if (const BusValue* v = s.args[1].at("Value")) pieces.push_back(*v->as<Bytes>());
      });
  ask(kRead, kChrc, "StartNotify", {});
  const Bytes systemInformation{0x68, 0xB1, 0x00, 0x00, 0x01, 0x00, 0x00, 0xD8, 0x00};
  const BusDict from{{"device", BusValue::path(kDevice)}};
  EXPECT_FALSE(
      ask(kWrite, kChrc, "WriteValue", {BusValue(systemInformation), BusValue(from)}).error);
  ASSERT_TRUE(MainQueue::main().runUntil([] { return MainQueue::main().pending() == 0; }, 2s));
  ask(kRead, "org.freedesktop.DBus.Properties", "Get", {BusValue(kChrc), BusValue("UUID")}, "v");
  const Bytes& answer = server->post().sentAnswers().at(0);  // the system information: 67 bytes
  ASSERT_GE(answer.size(), 61u);
  ASSERT_EQ(pieces, (std::vector<Bytes>{Bytes(answer.begin(), answer.begin() + 20),
                                        Bytes(answer.begin() + 40, answer.begin() + 60)}));
  EXPECT_EQ(calls.back(), "Disconnect");
  auto read = [&] {
    return *ask(kRead, kChrc, "ReadValue", {BusValue(BusDict{})}, "ay").values.at(0).as<Bytes>();
  };
  EXPECT_EQ(read(), pieces.back());
  // The signal reaches the post before the read that follows it from the same sender.
  device->set("org.bluez.Device1", "Connected", false);
  EXPECT_EQ(read(), Bytes{});
}

}  // namespace
}  // namespace tqble::bluez
