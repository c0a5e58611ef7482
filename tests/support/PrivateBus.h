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

// The running daemon's folder (its configuration and socket) and process.
inline std::string privateBusFolder;
inline pid_t privateBusPid = -1;

// Starts dbus-daemon on the folder's configuration and waits until it listens.
inline void startPrivateBusDaemon() {
  int fds[2];
  if (pipe(fds) != 0) throw std::runtime_error("pipe failed");
  privateBusPid = fork();
  if (privateBusPid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    close(fds[0]);
    freopen("/dev/null", "w", stderr);  // its notes about fd limits are not ours
    const std::string config = "--config-file=" + privateBusFolder + "/bus.conf";
    const std::string fd = "--print-address=" + std::to_string(fds[1]);
    execlp("dbus-daemon", "dbus-daemon", config.c_str(), "--nofork", "--nopidfile", fd.c_str(),
           static_cast<char*>(nullptr));
    _exit(127);
  }
  close(fds[1]);
  FILE* printed = fdopen(fds[0], "r");
  char address[256];
  const bool listening = fgets(address, sizeof address, printed) != nullptr;
  fclose(printed);
  if (!listening) throw std::runtime_error("dbus-daemon did not start");
}

/// Starts the daemon once and points DBUS_SYSTEM_BUS_ADDRESS at it. Call before any
/// thread starts (the bus library reads the variable). `extraPolicy` (XML rules) is added
/// to the default policy of a session bus. It listens on a fixed socket path, so that
/// restartPrivateSystemBus() brings it back at the same address.
/// @throws std::runtime_error when dbus-daemon cannot be started.
inline const std::string& usePrivateSystemBus(const std::string& extraPolicy = "") {
  static const std::string address = [&extraPolicy] {
    char dir[] = "/tmp/tqble-bus-XXXXXX";
    if (!mkdtemp(dir)) throw std::runtime_error("mkdtemp failed");
    privateBusFolder = dir;
    std::ofstream(privateBusFolder + "/bus.conf")
        << "<busconfig><type>session</type><listen>unix:path=" << dir
        << "/socket</listen><auth>EXTERNAL</auth><policy context=\"default\"><allow "
           "send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/><allow "
           "own=\"*\"/>"
        << extraPolicy << "</policy></busconfig>\n";
    startPrivateBusDaemon();
    // Without the daemon's guid: a restarted daemon has a new one.
    const std::string text = "unix:path=" + privateBusFolder + "/socket";
    setenv("DBUS_SYSTEM_BUS_ADDRESS", text.c_str(), 1);
    return text;
  }();
  return address;
}

/// Kills the daemon (every connection breaks at once); with `again`, starts a new one at
/// the same address.
inline void restartPrivateSystemBus(bool again = true) {
  if (privateBusPid > 0) {
    kill(privateBusPid, SIGKILL);
    waitpid(privateBusPid, nullptr, 0);
    privateBusPid = -1;
    unlink((privateBusFolder + "/socket").c_str());
  }
  if (again) startPrivateBusDaemon();
}

}  // namespace tqble::test
