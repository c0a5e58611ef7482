#pragma once

// A dbus-daemon of the test process's own, standing in for the system bus: the machine's
// system bus is never touched. It ends with the process. And a call on it that waits.

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "ble/bluez/Bus.h"
#include "support/Processes.h"
#include "tqble/platform/MainQueue.h"

namespace tqble::test {

// The running daemon's folder (its configuration and socket) and process.
inline std::string privateBusFolder;
inline std::unique_ptr<Child> privateBus;

// Starts dbus-daemon on the folder's configuration and waits until it listens.
inline void startPrivateBusDaemon() {
  privateBus = std::make_unique<Child>(std::vector<std::string>{
      "dbus-daemon", "--config-file=" + privateBusFolder + "/bus.conf", "--nofork", "--nopidfile",
      "--print-address"});
  std::string address;
  if (!privateBus->line(address, Clock::now() + std::chrono::seconds(10)))
    throw std::runtime_error("dbus-daemon did not start");
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
  if (privateBus) {
    privateBus.reset();
    unlink((privateBusFolder + "/socket").c_str());
  }
  if (again) startPrivateBusDaemon();
}

/// Calls `method` and runs the main queue until its reply (at most `limit`).
inline bluez::BusReply callAndWait(bluez::Bus& bus, const std::string& service, const std::string& path,
                                   const std::string& interface, const std::string& method,
                                   const bluez::BusList& args = {}, const std::string& replySignature = "",
                                   std::chrono::milliseconds limit = std::chrono::seconds(2)) {
  std::optional<bluez::BusReply> reply;
  bus.call(service, path, interface, method, args, limit, replySignature,
           [&](const bluez::BusReply& r) { reply = r; });
  EXPECT_TRUE(MainQueue::main().runUntil([&] { return reply.has_value(); }, limit)) << method;
  return reply.value_or(bluez::BusReply{bluez::BusError{"no reply", ""}, {}});
}

}  // namespace tqble::test
