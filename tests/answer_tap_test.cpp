// The answer tap sees each complete answer and changes nothing the manager does.
#include <gtest/gtest.h>

#include "support/SimSession.h"

namespace tqble {
namespace {

using namespace test;

TEST(AnswerTap, SeesEachCompleteAnswerOnceWithItsTagChangesNothingAndMayBeRemovedFromWithin) {
  SimSession s;
  s.connectAndSettle();
  int selfRemoving = 0;
  std::uint64_t self = 0;
  self = s.manager->addAnswerObserver([&](std::int64_t, const Bytes&) {
    ++selfRemoving;
    s.manager->removeAnswerObserver(self);
  });
  std::vector<std::pair<std::int64_t, std::size_t>> seen;
  const auto token = s.manager->addAnswerObserver(
      [&seen](std::int64_t tag, const Bytes& answer) { seen.emplace_back(tag, answer.size()); });
  for (auto call : {systemInfo, state, stopCharge}) s.command(call);
  EXPECT_EQ(selfRemoving, 1);
  EXPECT_EQ(seen, (std::vector<std::pair<std::int64_t, std::size_t>>{{2, 67}, {6, 26}, {7, 9}}))
      << "an observer removing itself leaves the next one called";
  EXPECT_EQ(s.log.updates.size(), 4u + 2u + 1u) << "one delegate call per notification";
  EXPECT_NE(s.log.updates[5]->chargingData, nullptr);
  EXPECT_EQ(s.log.updates[6]->result->resultType, 0);
  EXPECT_EQ(s.manager->systemInfoModelList().size(), 20u);

  s.manager->removeAnswerObserver(token);
  s.manager->removeAnswerObserver(token + 100);  // unknown: ignored
  s.command(state);
  EXPECT_EQ(seen.size(), 3u);
  EXPECT_EQ(s.tapped.size(), 4u) << "the session's own tap stays";
}

}  // namespace
}  // namespace tqble
