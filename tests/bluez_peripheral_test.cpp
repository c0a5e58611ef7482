// The bluez peripheral against the stand-in bluetoothd: services resolved before they are
// asked for, the charger's service late or missing, one value update per notification,
// equal ones included, both write types, a failed read and attributes of an earlier link.
// (Discovery on a plain link, the attributes' properties and one update per read and per
// notification of every answer are proven in the radio guest.)
#include "support/BluezSession.h"

namespace tqble::test {
namespace {

using Lines = std::vector<std::string>;
const Bytes kStateQuery = {0x68, 0xB5, 0x00, 0x00, 0x01, 0x00, 0x00, 0xDC, 0x00};

// bluetoothd may report the services resolved before it exports the charger's service, or
// without it. (Resolved before they are asked for: every link() of these suites.)
TEST_F(BluezLink, ServicesAreReportedWhenTheChargersComesLateOrNever) {
  for (const bool late : {true, false}) {
    SCOPED_TRACE(late ? "late" : "missing");
    fake->faults(post).lateChargerService = late;
    post->faults().missingService = !late;
    auto p = find();
    recorder->events.clear();
    central->connectPeripheral(p, {});
    ASSERT_TRUE(runUntil([&] { return heard("connect C0:FF:EE:00:00:01"); }));
    p->discoverServices({});
    ASSERT_TRUE(runUntil([&] { return recorder->events.size() == 2; }));
    EXPECT_EQ(recorder->events.back(), late ? "services FFF0" : "services");
    central->cancelPeripheralConnection(p);
    fake->expire(post);  // the GATT cache goes with the device
    barrier();
  }
}

// One link: a failed read, one value update per notification (equal neighbours included),
// both write types; then the link is lost, and nothing reaches the post through its
// attributes any more.
TEST_F(BluezLink, ALinksReadsNotificationsAndWritesAndNoneOfItsAttributesAfterIt) {
  auto [write, read] = link();
  post->faults().readError = TQError{"busy", 0, {}};
  recorder->last->readValueForCharacteristic(read);
  barrier();
  EXPECT_EQ(recorder->events,
            Lines{"update FFF4 00 error 0 Reading the characteristic failed. (busy)"});

  recorder->events.clear();
  post->faults().chunkSizes.assign(100, 1);  // equal neighbours are separate notifications
  recorder->last->setNotifyValue(true, read);
  recorder->last->writeValue(kStateQuery, write, ble::WriteType::WithoutResponse);
  barrier();
  Lines expected;
  for (auto byte : post->sentAnswers().at(0))
    expected.push_back("update FFF4 " + spaced({byte}, ""));
  EXPECT_EQ(recorder->events, expected);
  EXPECT_EQ(fake->calls().back(), "WriteValue FFF3 command 68B50000010000DC00");
  // A write with response is confirmed; its answer follows as notifications.
  recorder->events.clear();
  recorder->last->writeValue(kStateQuery, write, ble::WriteType::WithResponse);
  ASSERT_TRUE(runUntil([&] { return !recorder->events.empty(); }));
  EXPECT_EQ(recorder->events.front(), "write FFF3");
  EXPECT_EQ(fake->calls().back(), "WriteValue FFF3 request 68B50000010000DC00");

  fake->dropLink(post);
  ASSERT_TRUE(runUntil([&] { return fake->notifySessions(post) == 0; }))
      << "a notify session left behind would resume on the next link";
  link();
  const auto calls = fake->calls().size();
  recorder->last->writeValue(kStateQuery, write, ble::WriteType::WithoutResponse);
  recorder->last->readValueForCharacteristic(read);
  recorder->last->setNotifyValue(true, read);
  barrier();
  EXPECT_EQ(fake->calls().size(), calls) << "nothing reaches the post through an old attribute";
  EXPECT_TRUE(recorder->events.empty());
}

}  // namespace
}  // namespace tqble::test
