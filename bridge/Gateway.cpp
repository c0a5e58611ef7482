#include "Gateway.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <chrono>
#include <csignal>
#include <vector>

#include "Log.h"

namespace tqble::bridge {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// A worker silent this long is stuck: its loop beats every second whatever the post does.
constexpr auto kHangLimit = 15s;
constexpr auto kMaxBackoff = 60s;
// A worker that ran this long before it ended starts again after the shortest backoff.
constexpr auto kHealthyRun = 60s;

int signalPipe[2] = {-1, -1};

void onSignal(int number) {
  const int saved = errno;
  const char byte = static_cast<char>(number);
  [[maybe_unused]] const auto n = ::write(signalPipe[1], &byte, 1);
  errno = saved;
}

struct Worker {
  std::string id;
  pid_t pid = -1;
  int beat = -1;  // read end of its heartbeat pipe
  Clock::time_point lastBeat, startedAt, restartAt;
  std::chrono::seconds backoff{1};
};

class Supervisor {
 public:
  Supervisor(const BridgeConfig& config, std::string backend, std::string self)
      : config_(config), backend_(std::move(backend)), self_(std::move(self)) {
    for (const auto& p : config.posts) {
      workers_.emplace_back();
      workers_.back().id = p.id;
    }
  }

  int run() {
    for (auto& w : workers_) spawn(w);
    while (!stopping_) {
      std::vector<pollfd> fds{{signalPipe[0], POLLIN, 0}};
      for (const auto& w : workers_)
        if (w.beat >= 0) fds.push_back({w.beat, POLLIN, 0});
      ::poll(fds.data(), fds.size(), timeoutMs());
      if (fds[0].revents & POLLIN) readSignals();
      for (auto& w : workers_) readBeats(w);
      reap();
      const auto now = Clock::now();
      for (auto& w : workers_) {
        if (w.pid > 0 && now - w.lastBeat > kHangLimit) {
          log("worker of post %s (pid %d) is stuck; ending it", w.id.c_str(), w.pid);
          ::kill(w.pid, SIGKILL);
          w.lastBeat = now;  // reaped and restarted on its SIGCHLD
        }
        if (w.pid < 0 && !stopping_ && now >= w.restartAt) spawn(w);
      }
    }
    stopAll();
    return 0;
  }

 private:
  void spawn(Worker& w) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
      log("cannot start the worker of post %s: no pipe", w.id.c_str());
      w.restartAt = Clock::now() + w.backoff;
      return;
    }
    const pid_t parent = ::getpid();
    const pid_t pid = ::fork();
    if (pid == 0) {
      // The worker dies with the gateway, so its last will says the post is offline.
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (::getppid() != parent) ::_exit(1);
      ::dup2(fds[1], 3);
      std::signal(SIGCHLD, SIG_DFL);
      std::signal(SIGTERM, SIG_DFL);
      std::signal(SIGINT, SIG_DFL);
      const char* argv[] = {self_.c_str(),  "bridge",           config_.path.c_str(),
                            "--worker",     w.id.c_str(),       "--backend",
                            backend_.c_str(), "--heartbeat-fd", "3",
                            nullptr};
      ::execv(self_.c_str(), const_cast<char* const*>(argv));
      ::_exit(127);
    }
    ::close(fds[1]);
    if (pid < 0) {
      ::close(fds[0]);
      log("cannot start the worker of post %s: %s", w.id.c_str(), std::strerror(errno));
      w.restartAt = Clock::now() + w.backoff;
      return;
    }
    ::fcntl(fds[0], F_SETFL, O_NONBLOCK);
    w.pid = pid;
    w.beat = fds[0];
    w.startedAt = w.lastBeat = Clock::now();
    log("worker of post %s started (pid %d)", w.id.c_str(), pid);
  }

  int timeoutMs() const {
    auto next = Clock::now() + 1h;
    for (const auto& w : workers_) next = std::min(next, w.pid > 0 ? w.lastBeat + kHangLimit : w.restartAt);
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now());
    return static_cast<int>(std::clamp<std::int64_t>(wait.count(), 0, 3'600'000));
  }

  void readSignals() {
    char signals[64];
    const auto n = ::read(signalPipe[0], signals, sizeof signals);
    for (ssize_t i = 0; i < n; ++i)
      if (signals[i] == SIGTERM || signals[i] == SIGINT) stopping_ = true;
  }

  void readBeats(Worker& w) {
    if (w.beat < 0) return;
    char buffer[64];
    ssize_t n;
    while ((n = ::read(w.beat, buffer, sizeof buffer)) > 0) w.lastBeat = Clock::now();
    if (n == 0) {  // the worker is gone; its SIGCHLD follows
      ::close(w.beat);
      w.beat = -1;
    }
  }

  void reap() {
    int status = 0;
    pid_t pid;
    while ((pid = ::waitpid(-1, &status, WNOHANG)) > 0) {
      const auto w = std::find_if(workers_.begin(), workers_.end(),
                                  [pid](const Worker& x) { return x.pid == pid; });
      if (w == workers_.end()) continue;
      if (w->beat >= 0) ::close(w->beat);
      w->beat = -1;
      w->pid = -1;
      const auto now = Clock::now();
      if (now - w->startedAt >= kHealthyRun) w->backoff = 1s;
      if (!stopping_) {
        if (WIFSIGNALED(status))
          log("worker of post %s ended by signal %d; restart in %llds", w->id.c_str(),
              WTERMSIG(status), static_cast<long long>(w->backoff.count()));
        else
          log("worker of post %s exited with status %d; restart in %llds", w->id.c_str(),
              WEXITSTATUS(status), static_cast<long long>(w->backoff.count()));
      }
      w->restartAt = now + w->backoff;
      w->backoff = std::min<std::chrono::seconds>(w->backoff * 2, kMaxBackoff);
    }
  }

  // Asks every worker to leave (each publishes its post offline), then insists.
  void stopAll() {
    log("stopping %zu workers", workers_.size());
    for (const auto& w : workers_)
      if (w.pid > 0) ::kill(w.pid, SIGTERM);
    const auto deadline = Clock::now() + 5s;
    while (Clock::now() < deadline &&
           std::any_of(workers_.begin(), workers_.end(), [](const Worker& w) { return w.pid > 0; })) {
      pollfd fd{signalPipe[0], POLLIN, 0};
      ::poll(&fd, 1, 100);
      if (fd.revents & POLLIN) readSignals();
      reap();
    }
    for (const auto& w : workers_)
      if (w.pid > 0) ::kill(w.pid, SIGKILL);
    reap();
  }

  const BridgeConfig& config_;
  const std::string backend_, self_;
  std::vector<Worker> workers_;
  bool stopping_ = false;
};

}  // namespace

int runGateway(const BridgeConfig& config, const std::string& backend, const std::string& self) {
  setLogPrefix("gateway " + config.gateway);
  if (::pipe2(signalPipe, O_CLOEXEC | O_NONBLOCK) != 0) throw std::runtime_error("no signal pipe");
  struct sigaction action {};
  action.sa_handler = onSignal;
  action.sa_flags = SA_RESTART;
  for (int s : {SIGCHLD, SIGTERM, SIGINT}) ::sigaction(s, &action, nullptr);
  log("serving %zu posts", config.posts.size());
  return Supervisor(config, backend, self).run();
}

}  // namespace tqble::bridge
