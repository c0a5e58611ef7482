// The answer tap sees each complete answer; every suite's recorder taps beside the delegate.
#include <gtest/gtest.h>

#include "support/SimSession.h"

namespace tqble {
namespace {

using namespace test;

TEST(AnswerTap, SeesEachCompleteAnswerOnceWithItsTagAndMayBeRemovedFromWithin) {
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

  s.manager->removeAnswerObserver(token);
  s.manager->removeAnswerObserver(token + 100);  // unknown: ignored
  s.command(state);
  EXPECT_EQ(seen.size(), 3u);
  EXPECT_EQ(s.tapped.size(), 4u) << "the session's own tap stays";
}

}  // namespace
}  // namespace tqble
