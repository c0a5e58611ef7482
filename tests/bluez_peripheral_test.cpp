// The bluez peripheral against the stand-in bluetoothd: service discovery in the orders the
// real daemon may take (resolved before it is asked, the charger's service late or missing),
// one value update per notification, equal ones included, and attributes of an earlier link.
// (One update per read and per notification of a whole answer is proven in the radio guest.)
#include "support/BluezSession.h"

namespace tqble::test {
namespace {

using Lines = std::vector<std::string>;
const Bytes kStateQuery = {0x68, 0xB5, 0x00, 0x00, 0x01, 0x00, 0x00, 0xDC, 0x00};

TEST_F(BluezSession, ServicesAreReportedOnceResolvedInThePeersHandleOrder) {
  const Lines charger = {"services 180A FFF0", "characteristics FFF0: FFF3/12 FFF4/18"};
  struct Case {
    const char* name;
    void (*arrange)(BluezSession&);
    bool resolvedFirst;  // ServicesResolved already true when discoverServices is called
    Lines expected;
  } cases[] = {
      {"resolved after asked", nullptr, false, charger},
      {"resolved before asked", nullptr, true, charger},
      {"charger service exported late",
       [](BluezSession& s) { s.fake->faults(s.post).lateChargerService = true; }, false, charger},
      {"charger service missing",
       [](BluezSession& s) { s.post->faults().missingService = true; },
       false,
       {"services 180A"}},
  };
  makeCentral();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.arrange) c.arrange(*this);
    auto p = find();
    recorder->events.clear();
    central->connectPeripheral(p, {});
    ASSERT_TRUE(runUntil([&] { return heard("connect C0:FF:EE:00:00:01"); }));
    if (c.resolvedFirst) barrier();
    p->discoverServices({});
    ASSERT_TRUE(runUntil([&] { return recorder->events.size() == 2; }));
    if (p->services().size() == 2) {
      p->discoverCharacteristics({}, p->services().back());
      ASSERT_TRUE(runUntil([&] { return recorder->events.size() == 3; }));
    }
    EXPECT_EQ(Lines(recorder->events.begin() + 1, recorder->events.end()), c.expected);
    post->faults() = {};
    fake->faults(post) = {};
    const auto states = recorder->states.size();
    fake->setPowered(false);  // the device goes, the GATT cache with it
    fake->setPowered(true);
    ASSERT_TRUE(runUntil([&] { return recorder->states.size() == states + 2; }));
  }
}

TEST_F(BluezSession,
       EveryNotificationIsOneValueUpdateEqualNeighboursIncludedAndWritesKeepTheirType) {
  makeCentral();
  auto [write, read] = link();
  // Pieces of one byte: equal neighbours are separate notifications.
  post->faults().chunkSizes = {1, 1, 1, 1, 1, 1};
  peripheral()->setNotifyValue(true, read);
  peripheral()->writeValue(kStateQuery, write, ble::WriteType::WithoutResponse);
  ASSERT_TRUE(runUntil([&] { return !post->sentAnswers().empty(); }));
  const Bytes answer = post->sentAnswers().back();
  Lines expected;
  for (std::size_t at = 0; at < answer.size(); at += at < 6 ? 1 : 20) {
    const std::size_t size = at < 6 ? 1 : std::min<std::size_t>(20, answer.size() - at);
    expected.push_back("update FFF4 " +
                       spaced(Bytes(answer.begin() + at, answer.begin() + at + size), ""));
  }
  barrier();
  EXPECT_EQ(recorder->events, expected);
  EXPECT_EQ(fake->calls().back(), "WriteValue FFF3 command 68B50000010000DC00");

  // A write with response is confirmed; its answer follows as notifications.
  recorder->events.clear();
  peripheral()->writeValue(kStateQuery, write, ble::WriteType::WithResponse);
  ASSERT_TRUE(runUntil([&] { return !recorder->events.empty(); }));
  EXPECT_EQ(recorder->events.front(), "write FFF3");
  EXPECT_EQ(fake->calls().back(), "WriteValue FFF3 request 68B50000010000DC00");
}

TEST_F(BluezSession, FailedReadsAreReportedAndAttributesOfAnEarlierLinkAreRefused) {
  makeCentral();
  auto [write, read] = link();
  post->faults().readError = TQError{"busy", 0, {}};
  peripheral()->readValueForCharacteristic(read);
  ASSERT_TRUE(runUntil([&] { return !recorder->events.empty(); }));
  barrier();
  EXPECT_EQ(recorder->events,
            Lines{"update FFF4 00 error 0 Reading the characteristic failed. (busy)"});

  peripheral()->setNotifyValue(true, read);
  ASSERT_TRUE(runUntil([&] { return fake->notifySessions(post) == 1; }));
  fake->dropLink(post);
  ASSERT_TRUE(runUntil([&] { return fake->notifySessions(post) == 0; }))
      << "a notify session left behind would resume on the next link";
  auto [newWrite, newRead] = link();
  const auto calls = fake->calls().size();
  peripheral()->writeValue(kStateQuery, write, ble::WriteType::WithoutResponse);
  peripheral()->readValueForCharacteristic(read);
  peripheral()->setNotifyValue(true, read);
  barrier();
  EXPECT_EQ(fake->calls().size(), calls) << "nothing reaches the post through an old attribute";
  EXPECT_TRUE(recorder->events.empty());
  EXPECT_NE(newWrite, write);
}

}  // namespace
}  // namespace tqble::test
