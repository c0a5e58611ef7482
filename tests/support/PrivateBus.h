#pragma once

// A dbus-daemon of the test process's own, standing in for the system bus: the machine's
// system bus is never touched. It ends with the process (the kernel signals it).

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>

namespace tqble::test {

namespace detail {

// The running daemon, kept so that it can be killed and started again at its address.
struct PrivateDaemon {
  std::string config, socket;
  pid_t pid = -1;
};

inline PrivateDaemon& privateDaemon() {
  static PrivateDaemon daemon;
  return daemon;
}

// Starts dbus-daemon on privateDaemon().config and waits until it listens.
inline void startPrivateDaemon() {
  auto& daemon = privateDaemon();
  int fds[2];
  if (pipe(fds) != 0) throw std::runtime_error("pipe failed");
  const pid_t child = fork();
  if (child < 0) throw std::runtime_error("fork failed");
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    close(fds[0]);
    freopen("/dev/null", "w", stderr);  // its notes about fd limits are not ours
    const std::string config = "--config-file=" + daemon.config;
    const std::string fd = "--print-address=" + std::to_string(fds[1]);
    execlp("dbus-daemon", "dbus-daemon", config.c_str(), "--nofork", "--nopidfile", fd.c_str(),
           static_cast<char*>(nullptr));
    _exit(127);
  }
  close(fds[1]);
  daemon.pid = child;
  std::string text;
  char buffer[256];
  ssize_t n;
  while (text.find('\n') == std::string::npos && (n = read(fds[0], buffer, sizeof buffer)) > 0) {
    text.append(buffer, static_cast<std::size_t>(n));
  }
  close(fds[0]);
  if (text.find('\n') == std::string::npos) throw std::runtime_error("dbus-daemon did not start");
}

}  // namespace detail

/// Starts the daemon once and points DBUS_SYSTEM_BUS_ADDRESS at it. Call before any
/// thread starts (the bus library reads the variable). `extraPolicy` (XML rules) is added
/// to the default policy of a session bus. It listens on a fixed socket path, so that
/// restartPrivateSystemBus() brings it back at the same address.
/// @throws std::runtime_error when dbus-daemon cannot be started.
inline const std::string& usePrivateSystemBus(const std::string& extraPolicy = "") {
  static const std::string address = [&extraPolicy] {
    char dir[] = "/tmp/tqble-bus-XXXXXX";
    if (!mkdtemp(dir)) throw std::runtime_error("mkdtemp failed");
    auto& daemon = detail::privateDaemon();
    daemon.config = std::string(dir) + "/bus.conf";
    daemon.socket = std::string(dir) + "/socket";
    FILE* f = std::fopen(daemon.config.c_str(), "w");
    if (!f) throw std::runtime_error("cannot write " + daemon.config);
    std::fprintf(f,
                 "<busconfig><type>session</type><listen>unix:path=%s</listen><auth>EXTERNAL</auth>"
                 "<policy context=\"default\"><allow send_destination=\"*\" eavesdrop=\"true\"/>"
                 "<allow eavesdrop=\"true\"/><allow own=\"*\"/>%s</policy></busconfig>\n",
                 daemon.socket.c_str(), extraPolicy.c_str());
    std::fclose(f);
    detail::startPrivateDaemon();
    // Without the daemon's guid: a restarted daemon has a new one.
    const std::string text = "unix:path=" + daemon.socket;
    setenv("DBUS_SYSTEM_BUS_ADDRESS", text.c_str(), 1);
    return text;
  }();
  return address;
}

/// Kills the daemon (every connection breaks at once); with `again`, starts a new one at
/// the same address.
inline void restartPrivateSystemBus(bool again = true) {
  auto& daemon = detail::privateDaemon();
  if (daemon.pid > 0) {
    kill(daemon.pid, SIGKILL);
    waitpid(daemon.pid, nullptr, 0);
    daemon.pid = -1;
    unlink(daemon.socket.c_str());
  }
  if (again) detail::startPrivateDaemon();
}

}  // namespace tqble::test
