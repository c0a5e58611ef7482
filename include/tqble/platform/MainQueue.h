#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

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

  /// A descriptor that polls readable while a task is due or a watched descriptor (a bus
  /// connection) is ready; the application's loop calls dispatch() when it does. Made on
  /// the first call, owned by the queue.
  /// @throws std::system_error when the system gives no timer or epoll descriptor.
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

  /// What a watcher waits for: `events` (poll(2) flags) on `fd`, or `deadline` at the latest.
  struct Interest {
    int fd = -1;
    short events = 0;
    Clock::time_point deadline = Clock::time_point::max();
  };
  /// Lets the queue wait on a descriptor beside its tasks (a bus connection's socket), so
  /// that what arrives on it is handled on this thread without a hand-over. `interest` is
  /// asked before each wait; `ready` runs as a task when the descriptor is ready or the
  /// deadline has passed. Returns the watcher's number for unwatch(). Queue thread only.
  std::uint64_t watch(std::function<Interest()> interest, Task ready);
  /// Ends a watcher; its `ready` is not called again. Queue thread only.
  void unwatch(std::uint64_t id);

 private:
  MainQueue() = default;
  ~MainQueue();
  struct Watcher {
    std::function<Interest()> interest;
    Task ready;
    int fd = -1;        // as registered with the event descriptor
    short events = 0;
  };
  bool runOneDue(Clock::time_point upTo, bool peek);
  std::pair<bool, Clock::time_point> nextTimer() const;
  void armLocked(bool force);
  /// Asks every watcher what it waits for: their descriptors join the event descriptor
  /// (when one was asked for) and the soonest deadline arms its timer. Queue thread only.
  void syncWatchers();
  /// Waits until `until` for tasks or watched descriptors (none watched: the condition
  /// variable), then runs the watchers that are ready. The lock is held on entry and exit.
  /// Returns whether a watcher ran.
  bool wait(std::unique_lock<std::mutex>& lock, Clock::time_point until, bool forever);
  /// Polls the watchers (and the wake-up descriptor) for up to `timeoutMs`; runs the ready
  /// ones. Returns whether one ran.
  bool pollWatchers(int timeoutMs);

  mutable std::mutex mutex_;  // only guards hand-over from other threads
  std::condition_variable wake_;
  std::deque<Task> ready_;
  std::multimap<std::pair<Clock::time_point, std::uint64_t>, Task> timers_;
  std::uint64_t sequence_ = 0;  // orders timers due at the same time; counts every hand-over
  std::atomic<bool> virtual_ = false;
  Clock::time_point virtualNow_{};
  bool stopRequested_ = false;
  int fd_ = -1;       // the timer of the event descriptor, once asked for
  int epollFd_ = -1;  // the event descriptor: the timer and the watched descriptors
  Clock::time_point armedFor_ = Clock::time_point::max();  // when the timer next fires
  Clock::time_point watchDeadline_ = Clock::time_point::max();  // the watchers' soonest
  // Watchers are only touched on the queue's thread; a hand-over while it polls them
  // writes to wakeFd_ instead of notifying the condition variable.
  std::map<std::uint64_t, std::shared_ptr<Watcher>> watchers_;
  std::uint64_t nextWatcher_ = 0;
  int wakeFd_ = -1;
  bool polling_ = false;
};

}  // namespace tqble
