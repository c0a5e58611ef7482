// `tqble post`: a virtual charging post on a real Bluetooth adapter, for trying an
// application against it. Each request and answer is printed, decoded, as it happens.
#include <csignal>
#include <cstdio>
#include <ctime>
#include <string>
#include <thread>

#include "CommandCatalogue.h"
#include "Subcommands.h"
#include "protocol/Frame.h"
#include "tqble/AnswerDecoding.h"
#include "tqble/BLESDKConst.h"
#include "tqble/platform/Log.h"
#include "tqble/platform/MainQueue.h"

#if TQBLE_HAVE_BLUEZ
#include "ble/bluez/post/PostServer.h"
#endif

namespace tqble::cli {
namespace {

#if TQBLE_HAVE_BLUEZ

constexpr char kPostUsage[] =
    "usage: tqble post [--adapter hciN] [--name NAME] [--state idle|plugged|charging|fault]\n"
    "                  [--refuse CODE,...] [--split N,...] [--lose I,...] [--late I:MS,...]\n"
    "                  [--drop-after N] [--mute]\n"
    "  Serves a virtual charging post on a Bluetooth adapter through bluetoothd: service FFF0,\n"
    "  FFF3 (write, write without response), FFF4 (read, notify), advertised under NAME\n"
    "  (default TQ-AC7-0042). Answers are cut into notifications of at most 20 bytes.\n"
    "  Faults: --refuse makes the post refuse the commands with these codes (hex, e.g. B4,B6,\n"
    "  or 'all'); --split cuts answers into pieces of these sizes first; --lose drops the pieces\n"
    "  with these indices (from 0); --late delays piece I by MS milliseconds; --drop-after ends\n"
    "  the link after N pieces of the next answer; --mute answers nothing.\n"
    "  Runs until Ctrl-C, then unregisters the advertisement and the application.\n";

struct CommandName {
  std::uint8_t code;
  const char* name;
};
// The request codes as the catalogue names their commands (the state code serves two).
constexpr CommandName kNames[] = {
    {protocol::kCmdSynchroTime, "synchroTimeWithError"},
    {protocol::kCmdSystemInfo, "querySystemInfoWithError"},
    {protocol::kCmdVolume, "setVolumeWithVolumeSize"},
    {protocol::kCmdOrder, "orderChargerWithStartHour"},
    {protocol::kCmdStartCharging, "startChargingWithError"},
    {protocol::kCmdChargerState, "queryChargerStateWithError"},
    {protocol::kCmdStopCharge, "stopChargeWithError"},
    {protocol::kCmdHistory, "queryHistoryChargingListWithError"},
    {protocol::kCmdCumulation, "queryCumulationElecQuantityWithError"},
    {protocol::kCmdErrorLog, "queryHistoryErrorLogListWithError"},
    {protocol::kCmdDiagnosis, "runningDiagnosticInfoWithError"},
};

const char* commandName(const Bytes& frame) {
  if (frame.size() < 2) return "(too short for a frame)";
  for (const auto& n : kNames) {
    if (n.code == frame[1]) return n.name;
  }
  return "(unknown command)";
}

const char* text(const OptionalText& t) {
  return t ? t->c_str() : "-";
}

// One line saying what the application will make of `answer`.
std::string describe(const Bytes& answer) {
  if (answer.size() < 2) return "";
  char line[512];
  switch (findCommand(commandName(answer)).answer) {
    case AnswerKind::Result:
      return decode::setResult(answer).resultType == TQSetCmdSuccess ? "result: success"
                                                                     : "result: failure";
    case AnswerKind::ChargerState: {
      const auto s = decode::chargerState(answer);
      std::snprintf(line, sizeof line, "gun %s, %lld Wh, %lld V, %lld A, %lld s%s%s",
                    text(s.gunStatus), static_cast<long long>(s.elecQuantity),
                    static_cast<long long>(s.voltage), static_cast<long long>(s.electric),
                    static_cast<long long>(s.duration), s.failureReason ? ", fault: " : "",
                    s.failureReason ? s.failureReason->c_str() : "");
      return line;
    }
    case AnswerKind::SystemInfo: {
      if (answer.size() < 67) return "(too short for system information)";
      std::string rows;
      for (const auto& row : decode::systemInfo(answer)) rows += (rows.empty() ? "" : " | ") + row;
      return rows;
    }
    case AnswerKind::History:
      return std::to_string(decode::chargingHistory(answer).size()) + " charging sessions";
    case AnswerKind::Energy:
      return answer.size() < 12
                 ? ""
                 : std::to_string(decode::cumulativeEnergy(answer)) + " Wh delivered in all";
    case AnswerKind::ErrorLog:
      return std::to_string(decode::errorLog(answer).size()) + " errors logged";
    case AnswerKind::Diagnosis: {
      if (answer.size() < 54) return "(too short for diagnostics)";
      const auto d = decode::runningDiagnosis(answer);
      std::snprintf(line, sizeof line, "state %s, errors %s, firmware %s", text(d.chargeState),
                    text(d.errorInfo), text(d.versionNum));
      return line;
    }
  }
  return "";
}

void stamp(const char* what, const std::string& line) {
  const std::time_t now = std::time(nullptr);
  char clock[16];
  std::strftime(clock, sizeof clock, "%H:%M:%S", std::localtime(&now));
  std::printf("%s %-8s %s\n", clock, what, line.c_str());
  std::fflush(stdout);
}

// The comma-separated items of an option's value.
std::vector<std::string> items(const std::string& list) {
  std::vector<std::string> out;
  std::size_t at = 0;
  while (at <= list.size()) {
    const std::size_t comma = std::min(list.find(',', at), list.size());
    out.push_back(list.substr(at, comma - at));
    at = comma + 1;
  }
  return out;
}

// Each item of `list` as a whole number in [min, max], named by `option` in errors.
std::vector<std::int64_t> integers(const std::string& list, const std::string& option,
                                   std::int64_t min, std::int64_t max) {
  std::vector<std::int64_t> out;
  for (const auto& item : items(list)) out.push_back(parseInteger(item, option, min, max));
  return out;
}

void applyState(sim::PostModel& model, const std::string& state) {
  if (state == "idle") return;
  if (state == "plugged") return model.plugIn();
  if (state == "charging") return model.plugIn(), void(model.startCharging());
  if (state == "fault") model.raiseFault(sim::FaultOverCurrent);
}

int servePost(const std::vector<std::string>& args) {
  bluez::PostOptions options;
  options.timing.answer = std::chrono::milliseconds(5);
  std::string state = "idle";
  sim::Faults faults;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "--help") {
      std::fputs(kPostUsage, stdout);
      return 0;
    }
    if (a == "--mute") {
      faults.mute = true;
      continue;
    }
    if (i + 1 >= args.size())
      throw UsageError(a.starts_with("--") ? a + " needs a value" : "unexpected '" + a + "'");
    const std::string& v = args[++i];
    if (a == "--adapter") {
      options.adapter = v;
    } else if (a == "--name") {
      options.setup.name = v;
    } else if (a == "--state") {
      if (v != "idle" && v != "plugged" && v != "charging" && v != "fault") {
        throw UsageError("unknown state '" + v + "'");
      }
      state = v;
    } else if (a == "--refuse") {
      if (v == "all") {
        for (const auto& n : kNames) faults.refuse.insert(n.code);
      } else {
        for (const auto& item : items(v)) {
          const Bytes code = parseHex(item);
          if (code.size() != 1)
            throw UsageError("--refuse takes one-byte command codes, not '" + item + "'");
          faults.refuse.insert(code[0]);
        }
      }
    } else if (a == "--split") {
      for (auto n : integers(v, "--split", 1, 512))
        faults.chunkSizes.push_back(static_cast<std::size_t>(n));
    } else if (a == "--lose") {
      for (auto n : integers(v, "--lose", 0, 1000))
        faults.lostNotifications.insert(static_cast<std::size_t>(n));
    } else if (a == "--late") {
      for (const auto& item : items(v)) {
        const auto colon = item.find(':');
        if (colon == std::string::npos)
          throw UsageError("bad --late '" + item + "' (want INDEX:MS)");
        const auto index =
            static_cast<std::size_t>(parseInteger(item.substr(0, colon), "--late", 0, 1000));
        faults.lateNotifications[index] =
            std::chrono::milliseconds(parseInteger(item.substr(colon + 1), "--late", 0, 600000));
      }
    } else if (a == "--drop-after") {
      faults.dropLinkAfterNotifications =
          static_cast<std::size_t>(parseInteger(v, "--drop-after", 0, 1000));
    } else {
      throw UsageError("unknown option '" + a + "'");
    }
  }
  setLogSink([](std::string_view) {});  // the decoders' own log lines are the application's

  // Ctrl-C and termination are taken by a thread of their own, so the queue stops cleanly;
  // blocked here, before the bus starts its thread, so that no other thread takes them.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  auto bus = bluez::Bus::openSystem();
  bluez::PostEvents events;
  events.status = [](const std::string& line) { stamp("post", line); };
  events.request = [](const Bytes& write, const std::string& type) {
    stamp("request", std::string(commandName(write)) + (type.empty() ? "" : " (" + type + ")") +
                         ": " + spacedHex(write));
  };
  events.answer = [](const Bytes& answer) {
    stamp("answer", spacedHex(answer));
    if (const std::string d = describe(answer); !d.empty()) stamp("", d);
  };
  auto server = bluez::PostServer::make(bus, options, events);
  applyState(server->post().model(), state);
  server->post().faults() = faults;

  int status = 0;
  bool stopping = false;
  auto finish = [&] {
    if (stopping) return;
    stopping = true;
    server->stop([] { MainQueue::main().stop(); });
    MainQueue::main().asyncAfter(std::chrono::seconds(3), [] { MainQueue::main().stop(); });
  };
  std::thread waiter([&stopSignals, &finish] {
    int signal = 0;
    sigwait(&stopSignals, &signal);
    MainQueue::main().async(finish);
  });
  server->start([&](std::optional<std::string> error) {
    if (!error) return;
    std::fprintf(stderr, "tqble post: %s\n", error->c_str());
    status = 1;
    MainQueue::main().stop();
  });
  MainQueue::main().run();
  if (waiter.joinable()) {
    if (!stopping) pthread_kill(waiter.native_handle(), SIGTERM);
    waiter.join();
  }
  server.reset();
  bus->close();
  return status;
}

#else

int servePost(const std::vector<std::string>&) {
  std::fputs("tqble post: this build has no BlueZ support (configure with TQBLE_BLUEZ=ON)\n",
             stderr);
  return 1;
}

#endif

}  // namespace

int runPost(const std::vector<std::string>& args) {
  try {
    return servePost(args);
  } catch (const UsageError& e) {
    std::fprintf(stderr, "tqble post: %s (see 'tqble post --help')\n", e.what());
    return 2;
  }
}

}  // namespace tqble::cli
