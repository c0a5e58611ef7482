// The virtual post on its own: what it accepts, how its state moves, how answers are cut.
#include <gtest/gtest.h>

#include "ble/sim/SimInternal.h"
#include "support/Hex.h"
#include "tqble/platform/MainQueue.h"
#include "tqble/sim/VirtualPost.h"

namespace tqble::sim {
namespace {

using test::hex;
using test::spaced;
using namespace std::chrono_literals;

TEST(VirtualPost, IgnoresRequestsWithABadStartLengthOrChecksum) {
  MainQueue::main().useVirtualClock();
  VirtualPost post;
  EXPECT_TRUE(post.handleWrite(hex("69 b5 00 00 01 00 00 dd 00")).empty());  // start byte
  EXPECT_TRUE(post.handleWrite(hex("68 b5 00 00 02 00 00 df 00")).empty());  // body too short
  EXPECT_TRUE(post.handleWrite(hex("68 b5 00 00 01 00 00 dd 00")).empty());  // checksum
  EXPECT_TRUE(post.handleWrite(hex("68 b9 00 00 01 00 00 d0 00")).empty());  // unknown command
  EXPECT_TRUE(post.handleWrite(hex("68 b5 00")).empty());
  EXPECT_EQ(post.receivedWrites().size(), 5u);
  EXPECT_TRUE(post.sentAnswers().empty());
}

TEST(VirtualPost, AnswersEveryFrameOfOneWriteInOrder) {
  MainQueue::main().useVirtualClock();
  VirtualPost post;
  const auto answers = post.handleWrite(hex("68 b6 00 00 01 00 00 df 00 | 68 b2 00 00 01 00 00 ee 35"));
  ASSERT_EQ(answers.size(), 2u);
  EXPECT_EQ(spaced(answers[0]), "68 B6 00 00 01 00 00 DE 01");
  EXPECT_EQ(spaced(answers[1]), "68 B2 00 00 01 00 00 DB 00");
}

TEST(VirtualPost, ReadsVolumesWrittenAsDecimalDigits) {
  MainQueue::main().useVirtualClock();
  struct Case {
    const char* request;
    int volume;  // -1: refused, volume unchanged
  };
  for (const Case& c : {Case{"68 b2 00 00 01 00 00 db 00", 0}, Case{"68 b2 00 00 01 00 00 cb 10", 10},
                        Case{"68 b2 00 00 01 00 00 42 99", 99}, Case{"68 b2 00 00 01 00 00 d1 0a", -1},
                        Case{"68 b2 00 00 02 00 00 d9 01 00", 100}, Case{"68 b2 00 00 02 00 00 d8 01 01", -1}}) {
    VirtualPost post;
    const auto answers = post.handleWrite(hex(c.request));
    ASSERT_EQ(answers.size(), 1u) << c.request;
    EXPECT_EQ(answers[0].back(), c.volume < 0 ? 1 : 0) << c.request;
    EXPECT_EQ(post.model().volume(), c.volume < 0 ? 5 : c.volume) << c.request;
  }
}

TEST(PostModel, MovesTheGunOnlyAlongItsAllowedPaths) {
  MainQueue::main().useVirtualClock();
  PostModel m;
  EXPECT_FALSE(m.startCharging());
  EXPECT_FALSE(m.stopCharging());
  m.plugIn();
  EXPECT_EQ(m.gunState(), GunState::PluggedIn);
  ASSERT_TRUE(m.startCharging());
  EXPECT_FALSE(m.startCharging());
  m.unplug();
  EXPECT_EQ(m.gunState(), GunState::Charging) << "the connector is locked while charging";
  MainQueue::main().runFor(30min);
  EXPECT_EQ(m.sessionEnergy(), 3500u);
  EXPECT_EQ(m.cumulativeEnergy(), 123'500u);
  ASSERT_TRUE(m.stopCharging());
  EXPECT_EQ(m.gunState(), GunState::Finished);
  EXPECT_EQ(m.sessionEnergy(), 0u);
  EXPECT_EQ(m.history().back().duration, 1800);
  EXPECT_TRUE(m.startCharging()) << "a finished car still plugged in may charge again";
  m.raiseFault(FaultEmergencyStop);
  EXPECT_EQ(m.gunState(), GunState::Fault);
  EXPECT_EQ(m.history().size(), 2u);
  EXPECT_EQ(m.errors().back().code, 1);
  m.plugIn();
  EXPECT_EQ(m.gunState(), GunState::Fault);
  m.clearFault();
  EXPECT_EQ(m.gunState(), GunState::Idle);
}

TEST(PostModel, KeepsARunningSessionsLengthAcrossAClockChangeAndRunsFasterWhenScaled) {
  MainQueue::main().useVirtualClock();
  PostModel m;
  m.plugIn();
  m.startCharging();
  MainQueue::main().runFor(10s);
  m.setClock(100);
  EXPECT_EQ(m.sessionDuration(), 10u);
  m.setTimeScale(60);
  MainQueue::main().runFor(1s);
  EXPECT_EQ(m.clock(), 160);
  EXPECT_EQ(m.sessionDuration(), 70u);
}

TEST(CutAnswer, FollowsTheSizesLossesAndDelaysAskedFor) {
  const Bytes answer(45, 0xAB);
  Timing timing;
  timing.notificationGap = 2ms;
  Faults faults;
  auto sizes = [&] {
    std::vector<std::size_t> out;
    for (const auto& p : cutAnswer(answer, faults, timing)) out.push_back(p.bytes.size());
    return out;
  };
  EXPECT_EQ(sizes(), (std::vector<std::size_t>{20, 20, 5}));
  faults.chunkSizes = {8};
  EXPECT_EQ(sizes(), (std::vector<std::size_t>{8, 20, 17}));
  faults.chunkSizes = {30, 30};
  EXPECT_EQ(sizes(), (std::vector<std::size_t>{30, 15}));

  faults.chunkSizes = {};
  faults.lostNotifications = {1};
  faults.lateNotifications = {{1, 100ms}};
  const auto pieces = cutAnswer(answer, faults, timing);
  ASSERT_EQ(pieces.size(), 3u);
  EXPECT_FALSE(pieces[0].lost);
  EXPECT_TRUE(pieces[1].lost);
  EXPECT_EQ(pieces[0].due, 0ms);
  EXPECT_EQ(pieces[1].due, 102ms);
  EXPECT_EQ(pieces[2].due, 104ms) << "a late piece holds back the ones behind it";
}

}  // namespace
}  // namespace tqble::sim
