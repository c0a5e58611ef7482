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

/// Starts the daemon once and points DBUS_SYSTEM_BUS_ADDRESS at it. Call before any
/// thread starts (the bus library reads the variable). `extraPolicy` (XML rules) is added
/// to its default policy, which lets everyone own any name and send anything.
/// @throws std::runtime_error when dbus-daemon cannot be started.
inline const std::string& usePrivateSystemBus(const std::string& extraPolicy = "") {
  static const std::string address = [&extraPolicy] {
    char dir[] = "/tmp/tqble-bus-XXXXXX";
    if (!mkdtemp(dir)) throw std::runtime_error("mkdtemp failed");
    const std::string file = std::string(dir) + "/bus.conf";
    std::ofstream(file)
        << "<busconfig><type>session</type><listen>unix:dir=" << dir
        << "</listen><policy context=\"default\"><allow send_destination=\"*\" eavesdrop=\"true\"/>"
        << "<allow eavesdrop=\"true\"/><allow own=\"*\"/>" << extraPolicy
        << "</policy></busconfig>\n";
    const std::string config = "--config-file=" + file;
    int fds[2];
    if (pipe(fds) != 0) throw std::runtime_error("pipe failed");
    const pid_t child = fork();
    if (child < 0) throw std::runtime_error("fork failed");
    if (child == 0) {
      prctl(PR_SET_PDEATHSIG, SIGTERM);
      close(fds[0]);
      freopen("/dev/null", "w", stderr);  // its notes about fd limits are not ours
      const std::string fd = "--print-address=" + std::to_string(fds[1]);
      execlp("dbus-daemon", "dbus-daemon", config.c_str(), "--nofork", "--nopidfile", fd.c_str(),
             static_cast<char*>(nullptr));
      _exit(127);
    }
    close(fds[1]);
    std::string text;
    char buffer[256];
    ssize_t n;
    while (text.find('\n') == std::string::npos && (n = read(fds[0], buffer, sizeof buffer)) > 0) {
      text.append(buffer, static_cast<std::size_t>(n));
    }
    close(fds[0]);
    if (text.find('\n') == std::string::npos) throw std::runtime_error("dbus-daemon did not start");
    text.erase(text.find('\n'));
    setenv("DBUS_SYSTEM_BUS_ADDRESS", text.c_str(), 1);
    return text;
  }();
  return address;
}

}  // namespace tqble::test
