// The bluez peripheral against a stand-in bluetoothd: service discovery in its odd
// orders, and exactly one value update per read and per notification.
#include "support/BluezSession.h"

namespace tqble::test {
namespace {

using Lines = std::vector<std::string>;
const Bytes kStateQuery = {0x68, 0xB5, 0x00, 0x00, 0x01, 0x00, 0x00, 0xDC, 0x00};
constexpr char kAddress[] = "C0:FF:EE:00:00:01";

TEST_F(BluezSession, ServicesAreReportedOnceResolvedInThePeersHandleOrder) {
  struct Case {
    const char* name;
    std::function<void(BluezSession&)> arrange;
    bool discoverLate;  // ServicesResolved already true when discoverServices is called
    bool reconnect;     // a second link, served from bluetoothd's cache
    Lines expected;
  } cases[] = {
      {"fresh", nullptr, false, false, {"services 180A FFF0", "characteristics FFF0: FFF3/12 FFF4/18"}},
      {"resolved before asked", nullptr, true, false, {"services 180A FFF0", "characteristics FFF0: FFF3/12 FFF4/18"}},
      {"cached on reconnection", nullptr, false, true, {"services 180A FFF0", "characteristics FFF0: FFF3/12 FFF4/18"}},
      {"read characteristic first",
       [](BluezSession& s) { s.post->faults().readCharacteristicFirst = true; }, false, false,
       {"services 180A FFF0", "characteristics FFF0: FFF4/18 FFF3/12"}},
      {"charger service exported late", [](BluezSession& s) { s.fake->faults(s.post).lateChargerService = true; },
       false, false, {"services 180A FFF0", "characteristics FFF0: FFF3/12 FFF4/18"}},
      {"charger service missing", [](BluezSession& s) { s.post->faults().missingService = true; }, false, false,
       {"services 180A"}},
  };
  makeCentral();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    post->faults() = {};
    fake->faults(post) = {};
    if (c.arrange) c.arrange(*this);
    recorder->last = nullptr;
    auto p = find();
    for (int link = 0; link < (c.reconnect ? 2 : 1); ++link) {
      recorder->events.clear();
      central->connectPeripheral(p, {});
      ASSERT_TRUE(runUntil([&] { return heard("connect C0:FF:EE:00:00:01"); }));
      if (c.discoverLate) settle();
      p->discoverServices({});
      ASSERT_TRUE(runUntil([&] { return recorder->events.size() == 2; }, 1s));
      if (link == 0 && c.reconnect) central->cancelPeripheralConnection(p), settle();
    }
    if (!p->services().empty() && p->services().back()->uuid().UUIDString() == "FFF0") {
      p->discoverCharacteristics({}, p->services().back());
      ASSERT_TRUE(runUntil([&] { return recorder->events.size() == 3; }));
    }
    const Lines tail(recorder->events.begin() + 1, recorder->events.end());
    EXPECT_EQ(tail, c.expected);
    fake->setPowered(false);  // the device goes, the GATT cache with it
    ASSERT_TRUE(runUntil([&] { return central->state() == ble::CentralManagerStatePoweredOff; }));
    fake->setPowered(true);
    ASSERT_TRUE(runUntil([&] { return central->state() == ble::CentralManagerStatePoweredOn; }));
  }
}

TEST_F(BluezSession, EveryReadAndEveryNotificationIsExactlyOneValueUpdate) {
  makeCentral();
  auto [write, read] = link();
  peripheral()->readValueForCharacteristic(read);
  settle();
  EXPECT_EQ(recorder->events, Lines{"update FFF4 00"}) << "the reply repeats the Value signal: it is no second update";

  // Pieces of one byte: equal neighbours are separate notifications.
  post->faults().chunkSizes = {1, 1, 1, 1, 1, 1};
  recorder->events.clear();
  peripheral()->setNotifyValue(true, read);
  peripheral()->writeValue(kStateQuery, write, ble::WriteType::WithoutResponse);
  ASSERT_TRUE(runUntil([&] { return !post->sentAnswers().empty(); }));
  const Bytes answer = post->sentAnswers().back();
  Lines expected;
  for (std::size_t at = 0; at < answer.size(); at += at < 6 ? 1 : 20) {
    const std::size_t size = at < 6 ? 1 : std::min<std::size_t>(20, answer.size() - at);
    expected.push_back("update FFF4 " + spaced(Bytes(answer.begin() + at, answer.begin() + at + size), ""));
  }
  ASSERT_TRUE(runUntil([&] { return recorder->events.size() >= expected.size(); }));
  settle();
  EXPECT_EQ(recorder->events, expected);
  EXPECT_EQ(fake->calls().back(), "WriteValue FFF3 command 68B50000010000DC00");

  // A write with response is confirmed; its answer follows as notifications.
  recorder->events.clear();
  peripheral()->writeValue(kStateQuery, write, ble::WriteType::WithResponse);
  ASSERT_TRUE(runUntil([&] { return !recorder->events.empty(); }));
  EXPECT_EQ(recorder->events.front(), "write FFF3");
  EXPECT_TRUE(called("WriteValue FFF3 request 68B50000010000DC00"));
}

TEST_F(BluezSession, FailedReadsAreReportedAndAttributesOfAnEarlierLinkAreRefused) {
  makeCentral();
  auto [write, read] = link();
  post->faults().readError = TQError{"busy", 0, {}};
  peripheral()->readValueForCharacteristic(read);
  ASSERT_TRUE(runUntil([&] { return !recorder->events.empty(); }));
  EXPECT_EQ(recorder->events, Lines{"update FFF4 00 error 0 Reading the characteristic failed. (busy)"});

  peripheral()->setNotifyValue(true, read);
  settle(30ms);
  fake->dropLink(post);
  ASSERT_TRUE(runUntil([&] { return fake->notifySessions(post) == 0; }))
      << "a notify session left behind would resume on the next link";
  auto [newWrite, newRead] = link();
  const auto calls = fake->calls().size();
  peripheral()->writeValue(kStateQuery, write, ble::WriteType::WithoutResponse);
  peripheral()->readValueForCharacteristic(read);
  peripheral()->setNotifyValue(true, read);
  settle(50ms);
  EXPECT_EQ(fake->calls().size(), calls) << "nothing reaches the post through an old attribute";
  EXPECT_TRUE(recorder->events.empty());
  EXPECT_NE(newWrite, write);
}

}  // namespace
}  // namespace tqble::test
