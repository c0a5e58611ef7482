#include "tqble/platform/MainQueue.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace tqble {

MainQueue& MainQueue::main() {
  static MainQueue queue;
  return queue;
}

void MainQueue::async(Task task) {
  {
    std::lock_guard lock(mutex_);
    ready_.push_back(std::move(task));
    ++sequence_;
    armLocked(false);
  }
  wake_.notify_all();
}

void MainQueue::asyncAfter(Duration delay, Task task) {
  {
    std::lock_guard lock(mutex_);
    const auto due = (virtual_ ? virtualNow_ : Clock::now()) + std::max(delay, Duration::zero());
    timers_.emplace(std::make_pair(due, sequence_++), std::move(task));
    armLocked(false);
  }
  wake_.notify_all();
}

MainQueue::Clock::time_point MainQueue::now() const {
  std::lock_guard lock(mutex_);
  return virtual_ ? virtualNow_ : Clock::now();
}

std::size_t MainQueue::pending() const {
  std::lock_guard lock(mutex_);
  return ready_.size() + timers_.size();
}

void MainQueue::clear() {
  std::lock_guard lock(mutex_);
  ready_.clear();
  timers_.clear();
  armLocked(true);
}

void MainQueue::useVirtualClock() {
  std::lock_guard lock(mutex_);
  if (virtual_) return;
  // Delayed tasks keep their remaining delay on the new clock.
  const auto realNow = Clock::now();
  virtualNow_ = Clock::time_point{} + std::chrono::hours(24);
  decltype(timers_) moved;
  for (auto& [key, task] : timers_) {
    moved.emplace(std::make_pair(virtualNow_ + std::max(key.first - realNow, Duration::zero()),
                                 key.second),
                  std::move(task));
  }
  timers_.swap(moved);
  virtual_ = true;
  armLocked(true);
}

std::pair<bool, MainQueue::Clock::time_point> MainQueue::nextTimer() const {
  if (timers_.empty()) return {false, {}};
  return {true, timers_.begin()->first.first};
}

// Runs one task: a ready one first, else the earliest timer due at or before `upTo`.
// A virtual clock moves forward to the timer's due time.
bool MainQueue::runOneDue(Clock::time_point upTo) {
  Task task;
  {
    std::lock_guard lock(mutex_);
    if (!ready_.empty()) {
      task = std::move(ready_.front());
      ready_.pop_front();
    } else if (!timers_.empty() && timers_.begin()->first.first <= upTo) {
      auto first = timers_.begin();
      if (virtual_) virtualNow_ = std::max(virtualNow_, first->first.first);
      task = std::move(first->second);
      timers_.erase(first);
    } else {
      return false;
    }
  }
  if (task) task();
  return true;
}

std::size_t MainQueue::runUntilIdle() {
  std::size_t count = 0;
  while (runOneDue(now())) ++count;
  return count;
}

std::size_t MainQueue::runFor(Duration span) {
  std::size_t count = 0;
  runUntil(
      [&count] {
        ++count;
        return false;
      },
      span);
  return count > 0 ? count - 1 : 0;
}

bool MainQueue::runUntil(const std::function<bool()>& done, Duration limit) {
  const auto deadline = now() + limit;
  if (done()) return true;
  for (;;) {
    if (isVirtual()) {
      if (!runOneDue(deadline)) {
        std::lock_guard lock(mutex_);
        virtualNow_ = std::max(virtualNow_, deadline);
        return false;
      }
      if (done()) return true;
      continue;
    }
    if (Clock::now() >= deadline) return false;  // even while tasks keep coming
    if (runOneDue(Clock::now())) {
      if (done()) return true;
      continue;
    }
    std::unique_lock lock(mutex_);
    if (!ready_.empty()) continue;  // handed over after the look above: no wait
    auto [has, due] = nextTimer();
    const auto until = has ? std::min(due, deadline) : deadline;
    // Any task or timer handed over meanwhile (maybe due sooner) ends the wait.
    const auto seen = sequence_;
    wake_.wait_until(lock, until, [this, seen] { return sequence_ != seen; });
  }
}

void MainQueue::run() {
  {
    std::lock_guard lock(mutex_);
    stopRequested_ = false;
  }
  for (;;) {
    {
      std::lock_guard lock(mutex_);
      if (stopRequested_) return;
    }
    if (runOneDue(isVirtual() ? Clock::time_point::max() : Clock::now())) continue;
    std::unique_lock lock(mutex_);
    if (stopRequested_) return;
    if (!ready_.empty()) continue;  // handed over after the look above: no wait
    auto [has, due] = nextTimer();
    const auto seen = sequence_;
    auto ready = [this, seen] { return sequence_ != seen || stopRequested_; };
    if (has && !virtual_) {
      wake_.wait_until(lock, due, ready);
    } else {
      wake_.wait(lock, ready);
    }
  }
}

MainQueue::~MainQueue() {
  if (fd_ >= 0) ::close(fd_);
}

int MainQueue::eventFd() {
  std::lock_guard lock(mutex_);
  if (fd_ < 0) {
    fd_ = ::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (fd_ < 0) throw std::system_error(errno, std::generic_category(), "timerfd_create");
    armLocked(true);
  }
  return fd_;
}

// Sets the descriptor to poll readable when the next task is due: at once for a ready
// task (or any timer on a virtual clock), at the earliest timer's time on the real clock
// (the steady clock is CLOCK_MONOTONIC). Unforced, it only ever moves that moment earlier.
void MainQueue::armLocked(bool force) {
  if (fd_ < 0) return;
  auto when = Clock::time_point::max();
  if (!ready_.empty() || (virtual_ && !timers_.empty())) {
    when = Clock::time_point{};
  } else if (!timers_.empty()) {
    when = timers_.begin()->first.first;
  }
  if (!force && when >= armedFor_) return;
  armedFor_ = when;
  itimerspec due{};
  if (when != Clock::time_point::max()) {
    // An absolute time already past fires at once; zero would disarm.
    const auto ns = std::max<std::int64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(when.time_since_epoch()).count(), 1);
    due.it_value.tv_sec = static_cast<time_t>(ns / 1'000'000'000);
    due.it_value.tv_nsec = static_cast<long>(ns % 1'000'000'000);
  }
  ::timerfd_settime(fd_, TFD_TIMER_ABSTIME, &due, nullptr);
}

std::size_t MainQueue::dispatch() {
  if (fd_ >= 0) {
    std::uint64_t expirations = 0;
    while (::read(fd_, &expirations, sizeof expirations) < 0 && errno == EINTR) {
    }
  }
  struct Rearm {
    MainQueue& queue;
    ~Rearm() {
      std::lock_guard lock(queue.mutex_);
      queue.armLocked(true);
    }
  } rearm{*this};
  std::size_t count = runUntilIdle();
  if (count == 0 && isVirtual()) {
    Clock::time_point due;
    {
      std::lock_guard lock(mutex_);
      auto next = nextTimer();
      if (!next.first) return 0;
      due = next.second;
    }
    while (runOneDue(due)) ++count;
  }
  return count;
}

void MainQueue::stop() {
  {
    std::lock_guard lock(mutex_);
    stopRequested_ = true;
  }
  wake_.notify_all();
}

}  // namespace tqble
