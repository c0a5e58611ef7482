// `tqble post`'s server on a private bus, with the test standing in for bluetoothd, for what
// the radio guest does not show: the exact notifications each request gets with the post's
// faults, the value a new link reads first, and the unregistration when the post stops.
#include <gtest/gtest.h>

#include "ble/bluez/post/PostServer.h"
#include "support/PrivateBus.h"
#include "tqble/platform/MainQueue.h"

namespace tqble::bluez {
namespace {

using namespace std::chrono_literals;
using Calls = std::vector<std::string>;
constexpr char kChrc[] = "org.bluez.GattCharacteristic1";
constexpr char kRead[] = "/tqble/post/service0/char1";
constexpr char kDevice[] = "/org/bluez/hci0/dev_00_AA_01_01_00_01";
const Bytes kSystemInfoRequest{0x68, 0xB1, 0x00, 0x00, 0x01, 0x00, 0x00, 0xD8, 0x00};
const Bytes kVolumeRequest{0x68, 0xB2, 0x00, 0x00, 0x01, 0x00, 0x00, 0xEE, 0x35};

// bluetoothd's side: the adapter's two managers and a connected device, with the calls they got.
class PostServerTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { test::usePrivateSystemBus(); }

  void SetUp() override {
    daemon = Bus::openSystem();
    daemon->requestName("org.bluez");
    adapter = daemon->exportObject("/org/bluez/hci0");
    for (const char* method : {"RegisterApplication", "UnregisterApplication"})
      record(*adapter, "org.bluez.GattManager1", method);
    for (const char* method : {"RegisterAdvertisement", "UnregisterAdvertisement"})
      record(*adapter, "org.bluez.LEAdvertisingManager1", method);
    adapter->finish();
    device = daemon->exportObject(kDevice);
    record(*device, "org.bluez.Device1", "Disconnect");
    device->addProperty("org.bluez.Device1", "Connected", true);
    device->finish();
  }

  void TearDown() override { MainQueue::main().clear(); }

  void record(BusObject& object, const std::string& interface, const std::string& method) {
    const std::string in = method.starts_with("Register") ? "oa{sv}"
                           : method == "Disconnect"       ? ""
                                                          : "o";
    object.addMethod(interface, method, in, "", [this, method](const BusCall& call) {
      calls.push_back(method +
                      (call.args().empty() ? "" : " " + *call.args()[0].as<std::string>()));
      post = call.sender();
      call.reply();
    });
  }

  // Calls the post and waits for its answer.
  BusReply ask(const std::string& path, const std::string& interface, const std::string& method,
               const BusList& args, const std::string& replySignature = "") {
    std::optional<BusReply> reply;
    daemon->call(post, path, interface, method, args, 2s, replySignature,
                 [&](const BusReply& r) { reply = r; });
    EXPECT_TRUE(MainQueue::main().runUntil([&] { return reply.has_value(); }, 2s)) << method;
    return reply.value_or(BusReply{BusError{"no answer", ""}, {}});
  }

  std::shared_ptr<PostServer> start(const sim::Faults& faults = {}) {
    PostEvents events;
    events.request = [this](const Bytes& write, const std::string&) { requests.push_back(write); };
    auto server = PostServer::make(Bus::openSystem(), PostOptions{}, events);
    server->post().faults() = faults;
    std::optional<std::optional<std::string>> outcome;
    server->start([&](std::optional<std::string> error) { outcome = error; });
    EXPECT_TRUE(MainQueue::main().runUntil([&] { return outcome.has_value(); }, 2s));
    EXPECT_EQ(outcome.value_or("no answer"), std::nullopt);
    return server;
  }

  // As bluetoothd for a connected central: notifications on, one write, every piece notified
  // (the post has nothing left to send, and a call answered after its last piece came back).
  std::vector<Bytes> exchange(const Bytes& request) {
    std::vector<Bytes> pieces;
    auto values = daemon->subscribe(
        "type='signal',member='PropertiesChanged',path='" + std::string(kRead) + "'", "sa{sv}as",
        [&](const BusSignal& s) {
          if (const BusValue* v = s.args[1].at("Value")) pieces.push_back(*v->as<Bytes>());
        });
    ask(kRead, kChrc, "StartNotify", {});
    EXPECT_FALSE(ask("/tqble/post/service0/char0", kChrc, "WriteValue",
                     {BusValue(request), BusValue(BusDict{{"device", BusValue::path(kDevice)}})})
                     .error);
    EXPECT_TRUE(MainQueue::main().runUntil([] { return MainQueue::main().pending() == 0; }, 2s));
    ask(kRead, "org.freedesktop.DBus.Properties", "Get", {BusValue(kChrc), BusValue("UUID")}, "v");
    return pieces;
  }

  std::shared_ptr<Bus> daemon;
  std::unique_ptr<BusObject> adapter, device;
  Calls calls;
  std::vector<Bytes> requests;
  std::string post;  ///< the post's bus name
};

TEST_F(PostServerTest, RegistersItsApplicationAndAdvertisementAndUnregistersBothWhenStopped) {
  auto server = start();
  EXPECT_EQ(calls, (Calls{"RegisterApplication /tqble/post",
                          "RegisterAdvertisement /tqble/advertisement0"}));
  calls.clear();
  bool stopped = false;
  server->stop([&] { stopped = true; });
  ASSERT_TRUE(MainQueue::main().runUntil([&] { return stopped; }, 2s));
  EXPECT_EQ(calls, (Calls{"UnregisterAdvertisement /tqble/advertisement0",
                          "UnregisterApplication /tqble/post"}));
}

TEST_F(PostServerTest, AReadAfterTheLinkEndedGetsTheInitialValueNotTheLastPiece) {
  auto server = start();
  auto read = [&] {
    return *ask(kRead, kChrc, "ReadValue", {BusValue(BusDict{})}, "ay").values.at(0).as<Bytes>();
  };
  ASSERT_EQ(exchange(kVolumeRequest).size(), 1u);
  EXPECT_EQ(read(), server->post().sentAnswers().at(0));  // the last piece, on the same link
  // The signal reaches the post before the read that follows it from the same sender.
  device->set("org.bluez.Device1", "Connected", false);
  EXPECT_EQ(read(), Bytes{});
}

TEST_F(PostServerTest, NotifiesEachAnswerInThePiecesTheSimulatorCutsWithItsFaults) {
  sim::Faults split, lost, dropped, refused;
  split.chunkSizes = {8, 12};
  lost.lostNotifications = {1};
  dropped.dropLinkAfterNotifications = 2;
  refused.refuse = {0xB2};
  const struct {
    const char* what;
    sim::Faults faults;
    Bytes request;
    std::vector<std::size_t> sizes;  ///< of the notifications, in order
    bool linkDropped = false;
    std::optional<std::uint8_t> ack;  ///< the acknowledgement's body byte
  } cases[] = {
      {"twenty-byte pieces", {}, kSystemInfoRequest, {20, 20, 20, 7}, false, {}},
      {"other splits", split, kSystemInfoRequest, {8, 12, 20, 20, 7}, false, {}},
      {"a lost piece", lost, kSystemInfoRequest, {20, 20, 7}, false, {}},
      {"a link dropped mid-answer", dropped, kSystemInfoRequest, {20, 20}, true, {}},
      {"an accepted setting", {}, kVolumeRequest, {9}, false, 0x00},
      {"a refusal", refused, kVolumeRequest, {9}, false, 0x01},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    calls.clear();
    requests.clear();
    auto server = start(c.faults);
    const auto pieces = exchange(c.request);
    EXPECT_EQ(requests, std::vector<Bytes>{c.request});
    std::vector<std::size_t> sizes;
    Bytes joined;
    for (const auto& p : pieces)
      sizes.push_back(p.size()), joined.insert(joined.end(), p.begin(), p.end());
    EXPECT_EQ(sizes, c.sizes);
    // The pieces are the answer's bytes in order (a lost piece leaves a gap).
    const Bytes& answer = server->post().sentAnswers().at(0);
    if (c.faults.lostNotifications.empty()) {
      EXPECT_EQ(joined,
                Bytes(answer.begin(), answer.begin() + static_cast<std::ptrdiff_t>(joined.size())));
    }
    EXPECT_EQ(calls.back() == "Disconnect", c.linkDropped);
    EXPECT_EQ(c.ack.value_or(pieces.at(0).back()), pieces.at(0).back());
  }
}

}  // namespace
}  // namespace tqble::bluez
