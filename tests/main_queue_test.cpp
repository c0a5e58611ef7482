#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "tqble/platform/MainQueue.h"
#include "tqble/platform/NotificationCenter.h"

namespace tqble {
namespace {

using namespace std::chrono_literals;

// The first task is queued on the real clock and keeps what is left of its delay when the
// clock turns virtual.
TEST(MainQueue, VirtualClockRunsDelayedTasksInDueOrderAndRunUntilStopsAtTheConditionOrTheLimit) {
  auto& queue = MainQueue::main();
  std::vector<std::string> order;
  queue.asyncAfter(3s, [&] { order.push_back("3s"); });
  queue.useVirtualClock();
  const auto start = queue.now();
  queue.asyncAfter(1s, [&] {
    order.push_back("1s");
    queue.async([&] { order.push_back("queued by 1s"); });
  });
  queue.async([&] { order.push_back("now"); });
  queue.asyncAfter(3s, [&] { order.push_back("3s second"); });

  EXPECT_EQ(queue.runUntilIdle(), 1u) << "only the immediate task is due";
  EXPECT_EQ(queue.runFor(2s), 2u);
  EXPECT_EQ(queue.now() - start, 2s) << "the clock ends at the end of the span";
  queue.runFor(1s);
  EXPECT_EQ(order, (std::vector<std::string>{"now", "1s", "queued by 1s", "3s", "3s second"}));
  int ticks = 0;
  std::function<void()> tick = [&] { ++ticks, queue.asyncAfter(100ms, tick); };
  queue.async(tick);
  EXPECT_TRUE(queue.runUntil([&] { return ticks == 5; }, 10s));
  EXPECT_EQ(queue.now() - start, 3400ms);
  EXPECT_FALSE(queue.runUntil([] { return false; }, 1s));
  EXPECT_EQ(queue.now() - start, 4400ms);
  queue.clear();
}

TEST(MainQueue, RealClockRunUntilNeverSleepsOverATaskHandedOverWhileItLookedAndRunTakesThemTillStopped) {
  auto& queue = MainQueue::main();
  std::atomic<int> asked = 0;
  int answered = 0;
  std::thread backend([&] {
    // Hands over the moment the queue starts looking: the window a lost wake-up needs.
    for (int i = 1; i <= 2000; ++i) {
      while (asked.load() != i) std::this_thread::yield();
      queue.async([&answered, i] { answered = i; });
    }
  });
  int late = 0;
  for (int i = 1; i <= 2000; ++i) {
    asked = i;
    if (!queue.runUntil([&] { return answered == i; }, 500ms)) ++late;
  }
  backend.join();
  EXPECT_EQ(late, 0);
  std::thread([&] {
    for (int i = 1; i <= 3; ++i) queue.async([&answered] { ++answered; });
    queue.async([&] { queue.stop(); });
  }).join();
  queue.run();
  EXPECT_EQ(answered, 2003);
}

TEST(NotificationCenter, DeliversToObserversOfTheNameUntilRemoved) {
  auto& center = NotificationCenter::defaultCenter();
  std::vector<std::string> seen;
  // What a notification carries: the adapter state's suite.
  const auto named = center.addObserver("A", [&](const Notification& n) { seen.push_back("named " + n.name); });
  const auto all = center.addObserver("", [&](const Notification& n) { seen.push_back("all " + n.name); });
  center.post("A", nullptr, {});
  center.post("B", nullptr, {});
  center.removeObserver(named);
  center.post("A", nullptr, {});
  center.removeObserver(all);
  EXPECT_EQ(seen, (std::vector<std::string>{"named A", "all A", "all B", "all A"}));
}

}  // namespace
}  // namespace tqble
