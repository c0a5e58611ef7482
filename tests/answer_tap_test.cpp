// The answer tap sees each complete answer and changes nothing the manager does.
#include <gtest/gtest.h>

#include "support/SimSession.h"

namespace tqble {
namespace {

using test::SimSession;

TEST(AnswerTap, SeesEachCompleteAnswerOnceWithItsTagAndLeavesTheDelegateCallsAlone) {
  SimSession s;
  s.connectAndSettle();
  std::vector<std::pair<std::int64_t, std::size_t>> seen;
  const auto token = s.manager->addAnswerObserver(
      [&seen](std::int64_t tag, const Bytes& answer) { seen.emplace_back(tag, answer.size()); });
  s.command([](TQBleManager& m) { m.querySystemInfoWithError(nullptr); });
  s.command([](TQBleManager& m) { m.queryChargerStateWithError(nullptr); });
  s.command([](TQBleManager& m) { m.stopChargeWithError(nullptr); });
  EXPECT_EQ(seen, (std::vector<std::pair<std::int64_t, std::size_t>>{{2, 67}, {6, 26}, {7, 9}}));
  EXPECT_EQ(s.log.updates.size(), 4u + 2u + 1u)
      << "one delegate call per notification, as without a tap";
  EXPECT_NE(s.log.updates[5]->chargingData, nullptr);
  EXPECT_EQ(s.log.updates[6]->result->resultType, 0);
  EXPECT_EQ(s.manager->systemInfoModelList().size(), 20u);

  s.manager->removeAnswerObserver(token);
  s.manager->removeAnswerObserver(token + 100);  // unknown: ignored
  s.command([](TQBleManager& m) { m.queryChargerStateWithError(nullptr); });
  EXPECT_EQ(seen.size(), 3u);
}

TEST(AnswerTap, AnObserverMayRemoveItselfWhileBeingCalled) {
  SimSession s;
  s.connectAndSettle();
  int calls = 0;
  std::uint64_t token = 0;
  token = s.manager->addAnswerObserver([&](std::int64_t, const Bytes&) {
    ++calls;
    s.manager->removeAnswerObserver(token);
  });
  for (int i = 0; i < 2; ++i)
    s.command([](TQBleManager& m) { m.queryCumulationElecQuantityWithError(nullptr); });
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(s.tapped.size(), 2u) << "the session's own tap stays";
}

}  // namespace
}  // namespace tqble
