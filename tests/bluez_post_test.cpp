// `tqble post`'s server on a private bus, with the test standing in for bluetoothd: what it
// registers, the exact notifications each request gets (faults included), the link drop,
// and the unregistration when it stops.
#include <gtest/gtest.h>

#include "ble/bluez/post/PostServer.h"
#include "support/PrivateBus.h"
#include "tqble/platform/MainQueue.h"

namespace tqble::bluez {
namespace {

using namespace std::chrono_literals;
constexpr char kChrc[] = "org.bluez.GattCharacteristic1";
constexpr char kDevice[] = "/org/bluez/hci0/dev_00_AA_01_01_00_01";
const Bytes kSystemInfoRequest{0x68, 0xB1, 0x00, 0x00, 0x01, 0x00, 0x00, 0xD8, 0x00};
const Bytes kVolumeRequest{0x68, 0xB2, 0x00, 0x00, 0x01, 0x00, 0x00, 0xEE, 0x35};

// The adapter side of bluetoothd: the two managers, a device, and the calls they got.
class PostServerTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { test::usePrivateSystemBus(); }

  void SetUp() override {
    daemon = Bus::openSystem();
    daemon->requestName("org.bluez");
    adapter = daemon->exportObject("/org/bluez/hci0");
    for (const char* method : {"RegisterApplication", "UnregisterApplication"}) {
      record(*adapter, "org.bluez.GattManager1", method);
    }
    for (const char* method : {"RegisterAdvertisement", "UnregisterAdvertisement"}) {
      record(*adapter, "org.bluez.LEAdvertisingManager1", method);
    }
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
      sender = call.sender();
      call.reply();
    });
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

  // As bluetoothd for a connected central: notifications on, one write, the pieces seen.
  std::vector<Bytes> exchange(const Bytes& request) {
    std::vector<Bytes> pieces;
    auto values = daemon->subscribe(
        "type='signal',interface='org.freedesktop.DBus.Properties',"
        "member='PropertiesChanged',path='/tqble/post/service0/char1'",
        "sa{sv}as", [&](const BusSignal& s) {
          if (const BusValue* v = s.args[1].at("Value")) pieces.push_back(*v->as<Bytes>());
        });
    bool done = false;
    daemon->call(sender, "/tqble/post/service0/char1", kChrc, "StartNotify", {}, 2s);
    daemon->call(sender, "/tqble/post/service0/char0", kChrc, "WriteValue",
                 {BusValue(request), BusValue(BusDict{{"device", BusValue::path(kDevice)}})}, 2s,
                 "", [&](const BusReply& r) { done = !r.error; });
    EXPECT_TRUE(MainQueue::main().runUntil([&] { return done; }, 2s));
    MainQueue::main().runFor(200ms);
    return pieces;
  }

  static std::vector<std::size_t> sizes(const std::vector<Bytes>& pieces) {
    std::vector<std::size_t> out;
    for (const auto& p : pieces) out.push_back(p.size());
    return out;
  }

  std::shared_ptr<Bus> daemon;
  std::unique_ptr<BusObject> adapter, device;
  std::vector<std::string> calls;
  std::vector<Bytes> requests;
  std::string sender;
};

TEST_F(PostServerTest,
       RegistersAGattApplicationWithTheChargerServiceAndAnAdvertisementUnderItsName) {
  auto server = start();
  EXPECT_EQ(calls, (std::vector<std::string>{"RegisterApplication /tqble/post",
                                             "RegisterAdvertisement /tqble/advertisement0"}));
  std::optional<BusReply> tree, advert;
  daemon->call(sender, "/tqble/post", "org.freedesktop.DBus.ObjectManager", "GetManagedObjects", {},
               2s, "a{oa{sa{sv}}}", [&](const BusReply& r) { tree = r; });
  daemon->call(sender, "/tqble/advertisement0", "org.freedesktop.DBus.Properties", "GetAll",
               {BusValue("org.bluez.LEAdvertisement1")}, 2s, "a{sv}",
               [&](const BusReply& r) { advert = r; });
  ASSERT_TRUE(MainQueue::main().runUntil([&] { return tree && advert; }, 2s));
  const BusValue& objects = tree->values.at(0);
  auto property = [&](const char* path, const char* iface, const char* name) {
    const BusValue* object = objects.at(path);
    const BusValue* interface = object ? object->at(iface) : nullptr;
    const BusValue* value = interface ? interface->at(name) : nullptr;
    return value ? *value : BusValue{};
  };
  EXPECT_EQ(property("/tqble/post/service0", "org.bluez.GattService1", "UUID"),
            BusValue("0000fff0-0000-1000-8000-00805f9b34fb"));
  EXPECT_EQ(property("/tqble/post/service0/char0", kChrc, "UUID"),
            BusValue("0000fff3-0000-1000-8000-00805f9b34fb"));
  EXPECT_EQ(property("/tqble/post/service0/char0", kChrc, "Flags"),
            BusValue(std::vector<std::string>{"write", "write-without-response"}));
  EXPECT_EQ(property("/tqble/post/service0/char1", kChrc, "UUID"),
            BusValue("0000fff4-0000-1000-8000-00805f9b34fb"));
  EXPECT_EQ(property("/tqble/post/service0/char1", kChrc, "Flags"),
            BusValue(std::vector<std::string>{"read", "notify"}));
  EXPECT_EQ(*advert->values.at(0).at("LocalName"), BusValue("TQ-AC7-0042"));
  EXPECT_EQ(*advert->values.at(0).at("ServiceUUIDs"), BusValue(std::vector<std::string>{"FFF0"}));

  bool stopped = false;
  server->stop([&] { stopped = true; });
  ASSERT_TRUE(MainQueue::main().runUntil([&] { return stopped; }, 2s));
  EXPECT_EQ(std::vector<std::string>(calls.begin() + 2, calls.end()),
            (std::vector<std::string>{"UnregisterAdvertisement /tqble/advertisement0",
                                      "UnregisterApplication /tqble/post"}));
}

TEST_F(PostServerTest, RegistersAgainOnceARestartedBluetoothdOffersItsAdvertisingManager) {
  auto root = daemon->exportObjectManager("/");
  root->finish();
  auto server = start();
  daemon->releaseName("org.bluez");
  daemon->requestName("org.bluez");
  MainQueue::main().runFor(100ms);
  EXPECT_EQ(calls.size(), 2u);  // the name alone is too early: the managers come later
  adapter->emitAdded();
  ASSERT_TRUE(MainQueue::main().runUntil([&] { return calls.size() == 4; }, 2s));
  EXPECT_EQ(std::vector<std::string>(calls.begin() + 2, calls.end()),
            (std::vector<std::string>{"RegisterApplication /tqble/post",
                                      "RegisterAdvertisement /tqble/advertisement0"}));
}

TEST_F(PostServerTest, AReadAfterTheLinkEndedGetsTheInitialValueNotTheLastPiece) {
  auto server = start();
  auto read = [&] {
    std::optional<BusReply> reply;
    daemon->call(sender, "/tqble/post/service0/char1", kChrc, "ReadValue", {BusValue(BusDict{})},
                 2s, "ay", [&](const BusReply& r) { reply = r; });
    EXPECT_TRUE(MainQueue::main().runUntil([&] { return reply.has_value(); }, 2s));
    return reply && !reply->error ? *reply->values.at(0).as<Bytes>() : Bytes{0xEE};
  };
  ASSERT_EQ(exchange(kVolumeRequest).size(), 1u);
  EXPECT_EQ(read(), server->post().sentAnswers().at(0));  // the last piece, on the same link
  device->set("org.bluez.Device1", "Connected", false);
  MainQueue::main().runFor(100ms);
  EXPECT_EQ(read(), Bytes{});
}

struct PieceCase {
  const char* what;
  sim::Faults faults;
  Bytes request;
  std::vector<std::size_t> sizes;  ///< of the notifications, in order
  bool linkDropped = false;
  std::optional<std::uint8_t> ack;  ///< the acknowledgement's body byte
};

TEST_F(PostServerTest, NotifiesEachAnswerInThePiecesTheSimulatorCutsWithItsFaults) {
  sim::Faults split, lost, dropped, refused;
  split.chunkSizes = {8, 12};
  lost.lostNotifications = {1};
  dropped.dropLinkAfterNotifications = 2;
  refused.refuse = {0xB2};
  const PieceCase cases[] = {
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
    EXPECT_EQ(sizes(pieces), c.sizes);
    // The pieces are the answer's bytes in order (a lost piece leaves a gap).
    Bytes joined;
    for (const auto& p : pieces) joined.insert(joined.end(), p.begin(), p.end());
    const Bytes& answer = server->post().sentAnswers().at(0);
    if (c.faults.lostNotifications.empty()) {
      EXPECT_EQ(joined,
                Bytes(answer.begin(), answer.begin() + static_cast<std::ptrdiff_t>(joined.size())));
    }
    EXPECT_EQ(calls.back() == "Disconnect", c.linkDropped);
    if (c.ack) {
      EXPECT_EQ(pieces.at(0).back(), *c.ack);
    }
    bool stopped = false;
    server->stop([&] { stopped = true; });
    MainQueue::main().runUntil([&] { return stopped; }, 2s);
  }
}

}  // namespace
}  // namespace tqble::bluez
