#include "tqble/platform/MainQueue.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace tqble {
namespace {

// Descriptors watched at once: a bus connection or two.
constexpr std::size_t kMaxWatchers = 8;

void signal(int fd) {
  const std::uint64_t one = 1;
  (void)!::write(fd, &one, sizeof one);
}

}  // namespace

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
    if (polling_) signal(wakeFd_);
  }
  wake_.notify_all();
}

void MainQueue::asyncAfter(Duration delay, Task task) {
  {
    std::lock_guard lock(mutex_);
    const auto due = (virtual_ ? virtualNow_ : Clock::now()) + std::max(delay, Duration::zero());
    timers_.emplace(std::make_pair(due, sequence_++), std::move(task));
    armLocked(false);
    if (polling_) signal(wakeFd_);
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

// Runs one task: a ready one first, else the earliest timer due at or before `upTo`, else
// (with `peek`) the watchers whose descriptors are ready now. A virtual clock moves
// forward to the timer's due time.
bool MainQueue::runOneDue(Clock::time_point upTo, bool peek) {
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
    } else if (!peek || watchers_.empty()) {
      return false;
    }
  }
  if (!task) return pollWatchers(0);
  task();
  return true;
}

std::size_t MainQueue::runUntilIdle() {
  std::size_t count = 0;
  while (runOneDue(now(), true)) ++count;
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
      if (!runOneDue(deadline, true)) {
        std::lock_guard lock(mutex_);
        virtualNow_ = std::max(virtualNow_, deadline);
        return false;
      }
      if (done()) return true;
      continue;
    }
    if (Clock::now() >= deadline) return false;  // even while tasks keep coming
    if (runOneDue(Clock::now(), false)) {
      if (done()) return true;
      continue;
    }
    std::unique_lock lock(mutex_);
    if (!ready_.empty()) continue;  // handed over after the look above: no wait
    auto [has, due] = nextTimer();
    const bool watched = wait(lock, has ? std::min(due, deadline) : deadline, false);
    lock.unlock();
    if (watched && done()) return true;
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
    if (runOneDue(isVirtual() ? Clock::time_point::max() : Clock::now(), isVirtual())) continue;
    std::unique_lock lock(mutex_);
    if (stopRequested_) return;
    if (!ready_.empty()) continue;  // handed over after the look above: no wait
    auto [has, due] = nextTimer();
    wait(lock, due, !has || virtual_);
  }
}

MainQueue::~MainQueue() {
  for (int fd : {fd_, epollFd_, wakeFd_})
    if (fd >= 0) ::close(fd);
}

int MainQueue::eventFd() {
  {
    std::lock_guard lock(mutex_);
    if (epollFd_ >= 0) return epollFd_;
    fd_ = ::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (fd_ < 0) throw std::system_error(errno, std::generic_category(), "timerfd_create");
    epollFd_ = ::epoll_create1(EPOLL_CLOEXEC);
    if (epollFd_ < 0) throw std::system_error(errno, std::generic_category(), "epoll_create1");
    epoll_event timer{};
    timer.events = EPOLLIN;
    timer.data.fd = fd_;
    ::epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd_, &timer);
  }
  syncWatchers();
  return epollFd_;
}

void MainQueue::syncWatchers() {
  auto soonest = Clock::time_point::max();
  for (auto& [id, w] : watchers_) {
    const Interest in = w->interest();
    soonest = std::min(soonest, in.deadline);
    if (epollFd_ < 0) continue;
    if (w->fd >= 0 && w->fd != in.fd) {
      ::epoll_ctl(epollFd_, EPOLL_CTL_DEL, w->fd, nullptr);
      w->fd = -1;
    }
    if (in.fd < 0) continue;
    epoll_event e{};
    e.events = ((in.events & POLLIN) ? EPOLLIN : 0u) | ((in.events & POLLOUT) ? EPOLLOUT : 0u);
    e.data.fd = in.fd;
    ::epoll_ctl(epollFd_, w->fd == in.fd ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, in.fd, &e);
    w->fd = in.fd;
    w->events = in.events;
  }
  std::lock_guard lock(mutex_);
  watchDeadline_ = soonest;
  armLocked(true);
}

// Sets the descriptor to poll readable when the next task is due: at once for a ready
// task (or any timer on a virtual clock), at the earliest timer's time on the real clock
// (the steady clock is CLOCK_MONOTONIC). Unforced, it only ever moves that moment earlier.
void MainQueue::armLocked(bool force) {
  if (fd_ < 0) return;
  auto when = watchDeadline_;  // a watched connection's own time-out
  if (!ready_.empty() || (virtual_ && !timers_.empty())) {
    when = Clock::time_point{};
  } else if (!timers_.empty()) {
    when = std::min(when, timers_.begin()->first.first);
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
    ~Rearm() { queue.syncWatchers(); }
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
    while (runOneDue(due, false)) ++count;
  }
  return count;
}

bool MainQueue::wait(std::unique_lock<std::mutex>& lock, Clock::time_point until, bool forever) {
  if (watchers_.empty()) {
    // Any task or timer handed over meanwhile (maybe due sooner) ends the wait.
    const auto seen = sequence_;
    auto woken = [this, seen] { return sequence_ != seen || stopRequested_; };
    if (forever) wake_.wait(lock, woken);
    else wake_.wait_until(lock, until, woken);
    return false;
  }
  // From here a hand-over writes to wakeFd_, which ends the poll.
  polling_ = true;
  lock.unlock();
  int timeout = -1;
  if (!forever) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()).count();
    timeout = static_cast<int>(std::clamp<long long>(left, 0, 24 * 3600 * 1000));
  }
  const bool ran = pollWatchers(timeout);
  lock.lock();
  polling_ = false;
  return ran;
}

bool MainQueue::pollWatchers(int timeoutMs) {
  std::array<std::shared_ptr<Watcher>, kMaxWatchers> polled;
  std::array<Clock::time_point, kMaxWatchers> deadlines;
  std::array<pollfd, kMaxWatchers + 1> fds{};
  std::size_t count = 0;
  auto soonest = Clock::time_point::max();
  for (const auto& [id, watcher] : watchers_) {
    const Interest interest = watcher->interest();
    polled[count] = watcher;
    deadlines[count] = interest.deadline;
    fds[count] = {interest.fd, interest.events, 0};
    soonest = std::min(soonest, interest.deadline);
    ++count;
  }
  fds[count] = {wakeFd_, POLLIN, 0};
  if (soonest != Clock::time_point::max()) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(soonest - Clock::now()).count();
    const int untilDeadline = static_cast<int>(std::clamp<long long>(left, 0, 24 * 3600 * 1000));
    timeoutMs = timeoutMs < 0 ? untilDeadline : std::min(timeoutMs, untilDeadline);
  }
  if (::poll(fds.data(), count + 1, timeoutMs) < 0) return false;  // EINTR: the caller looks again
  if (fds[count].revents & POLLIN) {
    std::uint64_t value = 0;
    (void)!::read(wakeFd_, &value, sizeof value);
  }
  bool ran = false;
  const auto now = Clock::now();
  for (std::size_t i = 0; i < count; ++i) {
    if (fds[i].revents == 0 && deadlines[i] > now) continue;
    // Still watched: an earlier watcher's work may have ended this one.
    const bool live = std::any_of(watchers_.begin(), watchers_.end(), [&](const auto& w) { return w.second == polled[i]; });
    if (!live) continue;
    polled[i]->ready();
    ran = true;
  }
  return ran;
}

std::uint64_t MainQueue::watch(std::function<Interest()> interest, Task ready) {
  if (watchers_.size() >= kMaxWatchers) throw std::length_error("too many descriptors watched by the main queue");
  std::uint64_t id = 0;
  {
    std::lock_guard lock(mutex_);
    if (wakeFd_ < 0) {
      wakeFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
      if (wakeFd_ < 0) throw std::runtime_error("the main queue cannot make its wake-up descriptor");
    }
    id = ++nextWatcher_;
    watchers_[id] = std::make_shared<Watcher>(Watcher{std::move(interest), std::move(ready), -1, 0});
  }
  if (epollFd_ >= 0) syncWatchers();  // the application's loop hears this descriptor too
  return id;
}

void MainQueue::unwatch(std::uint64_t id) {
  const auto it = watchers_.find(id);
  if (it == watchers_.end()) return;
  // A descriptor already closed has left the event descriptor by itself.
  if (epollFd_ >= 0 && it->second->fd >= 0) ::epoll_ctl(epollFd_, EPOLL_CTL_DEL, it->second->fd, nullptr);
  watchers_.erase(it);
}

void MainQueue::stop() {
  {
    std::lock_guard lock(mutex_);
    stopRequested_ = true;
    if (polling_) signal(wakeFd_);
  }
  wake_.notify_all();
}

}  // namespace tqble
