#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <utility>

namespace tqble {

/// The one serial executor that carries every BLE callback, delayed task and, by
/// convention, the application's calls. Its clock is real unless a virtual one is chosen.
class MainQueue {
 public:
  using Clock = std::chrono::steady_clock;
  using Duration = std::chrono::nanoseconds;
  using Task = std::function<void()>;

  /// The process-wide main queue.
  static MainQueue& main();

  /// Queues a task to run after the tasks already queued. Safe from any thread.
  void async(Task task);
  /// Queues a task to run once the clock has advanced by `delay`. Safe from any thread.
  void asyncAfter(Duration delay, Task task);

  /// Runs every task that is due now, including tasks they queue for now; returns how many ran.
  std::size_t runUntilIdle();
  /// Runs tasks for `span` of queue time: a virtual clock jumps from timer to timer,
  /// a real clock waits. Returns how many ran.
  std::size_t runFor(Duration span);
  /// Runs tasks until `done()` holds or `limit` of queue time has passed; returns `done()`.
  bool runUntil(const std::function<bool()>& done, Duration limit);
  /// Runs tasks until stop() is called.
  void run();
  /// Makes run() return after the current task. Safe from any thread.
  void stop();

  // ---- Driven by the application's own loop, instead of run() ----

  /// A descriptor that polls readable while a task is due; the application's loop calls
  /// dispatch() when it does. Made on the first call, owned by the queue.
  /// @throws std::system_error when the system gives no timer descriptor.
  int eventFd();
  /// Runs the tasks due now (on a virtual clock with none due, the earliest timer's, the
  /// clock jumping there) and re-arms the descriptor; returns how many ran. A task's
  /// exception passes through, the descriptor re-armed.
  std::size_t dispatch();

  /// Switches to a virtual clock that moves only while the queue runs. Drops nothing queued.
  void useVirtualClock();
  /// Whether the clock is virtual.
  bool isVirtual() const { return virtual_.load(); }
  /// The queue's current time.
  Clock::time_point now() const;
  /// Number of tasks waiting, immediate and delayed.
  std::size_t pending() const;
  /// Drops every queued task (tests).
  void clear();

 private:
  MainQueue() = default;
  ~MainQueue();
  bool runOneDue(Clock::time_point upTo);
  std::pair<bool, Clock::time_point> nextTimer() const;
  void armLocked(bool force);

  mutable std::mutex mutex_;  // only guards hand-over from other threads
  std::condition_variable wake_;
  std::deque<Task> ready_;
  std::multimap<std::pair<Clock::time_point, std::uint64_t>, Task> timers_;
  std::uint64_t sequence_ = 0;  // orders timers due at the same time; counts every hand-over
  std::atomic<bool> virtual_ = false;
  Clock::time_point virtualNow_{};
  bool stopRequested_ = false;
  int fd_ = -1;                                        // the timer descriptor, once asked for
  Clock::time_point armedFor_ = Clock::time_point::max();  // when it next polls readable
};

}  // namespace tqble
