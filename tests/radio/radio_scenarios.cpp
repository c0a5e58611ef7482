// tqble_radio: the SDK's link scenarios against a real radio, one per process (the manager
// is a process singleton). Run in the radio guest (scripts/radio/guest.sh) with the bluez
// backend on hci1 while `tqble post --state plugged` serves hci0; actions on the radio from
// outside the SDK go through the command in RADIO_CTL. Also runs on the simulator
// (TQBLE_BACKEND=sim), with one virtual post in range, for trying it out.
// Usage: tqble_radio --list | tqble_radio SCENARIO   (exit 0: passed; the last line says
// what was seen)
#include <grp.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <stdexcept>

#include "support/Commands.h"
#include "support/Recorder.h"
#include "tqble/platform/Log.h"
#include "tqble/platform/MainQueue.h"
#include "tqble/sim/SimRadio.h"

namespace {

using namespace std::chrono_literals;
using namespace tqble;
using test::CommandRow;
using test::kCommandRows;
using Clock = std::chrono::steady_clock;

struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

void expect(bool ok, const std::string& what) {
  if (!ok) throw Failure(what);
}

std::string env(const char* name, const char* fallback) {
  const char* value = std::getenv(name);
  return value ? value : fallback;
}

const std::string kPostName = env("RADIO_POST_NAME", "TQ-RADIO-POST");

// Acts on the radio from outside the SDK (the post's side, the adapter, the daemon).
void radioControl(const std::string& action) {
  const std::string ctl = env("RADIO_CTL", "");
  expect(!ctl.empty(), "RADIO_CTL is not set: cannot " + action);
  expect(std::system((ctl + " " + action).c_str()) == 0, "'" + action + "' failed");
}

std::string seconds(double s) {
  char text[16];
  std::snprintf(text, sizeof text, "%.2f s", s);
  return text;
}

double since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

void waitFor(const std::function<bool()>& done, MainQueue::Duration limit, const std::string& what) {
  const auto start = Clock::now();
  if (!MainQueue::main().runUntil(done, limit))
    throw Failure("no " + what + " after " + seconds(since(start)));
}

// The application's side: the manager with the tests' delegate recorder, and the steps
// every scenario takes.
class App {
 public:
  App() {
    setLogSink([this](std::string_view line) { log.emplace_back(line); });
    manager = TQBleManager::shareManager();
    r.attach(*manager);
  }

  std::int64_t state() const { return r.states.empty() ? -1 : r.states.back(); }

  // Scans until the post is heard or `window` passed; prints and returns seconds taken, or -1.
  double scanOnce(MainQueue::Duration window) {
    waitFor([this] { return state() == ble::CentralManagerStatePoweredOn; }, 10s, "powered-on adapter");
    const auto start = Clock::now();
    post = nullptr;
    r.discoveries.clear();
    manager->scanForPeripherals();
    MainQueue::main().runUntil(
        [this] {
          for (const auto& [p, rssi] : r.discoveries)
            if (p->name() == kPostName) post = p;
          return post != nullptr;
        },
        window);
    manager->stopScan();
    const double took = post ? since(start) : -1;
    std::printf("  scan: %s\n", post ? ("heard after " + seconds(took)).c_str() : "missed");
    return took;
  }

  void scan() { expect(scanOnce(20s) >= 0, "no advertisement of " + kPostName + " in 20 s"); }

  // Connects and waits for both characteristics; returns seconds taken.
  double connect() {
    const auto start = Clock::now();
    const int before = r.connects;
    manager->startConnectPeripheral(post);
    waitFor([&] { return r.connects > before || !r.failures.empty(); }, 40s, "connection");
    if (!r.failures.empty()) throw Failure("connection failed: " + (r.failures[0] ? r.failures[0]->domain : "-"));
    waitFor([this] { return manager->writeCharacteristic() && manager->readCharacteristic(); }, 20s,
            "FFF3 and FFF4");
    return since(start);
  }

  // Connects, then waits for the query the manager sends by itself 3 s later: a command
  // issued before its answer would have that answer dispatched as its own.
  double connectAndSettle() {
    const double took = connect();
    waitFor([&] { return !r.tapped.empty() && r.tapped.back().first == 2; }, 10s, "automatic system information");
    return took;
  }

  void disconnect() {
    r.disconnects.clear();
    manager->stopConnectPeripheral(manager->connectedPheral(), nullptr);
    waitFor([&] { return !r.disconnects.empty(); }, 10s, "disconnection");
    expect(!r.disconnects.back(), "a requested disconnection reported an error");
    expect(!manager->connectedPheral(), "connectedPheral kept after the disconnection");
  }

  // The charger state, asked on the manager: its whole answer and every piece delivered.
  void askState() {
    const CommandRow& row = test::commandRow("queryChargerStateWithError");
    r.tapped.clear(), r.updates.clear();
    row.issue(*manager, nullptr);
    waitFor([&] { return !r.tapped.empty() && r.updates.size() >= row.notifications; }, 10s, "state answer");
    expect(r.tapped.back().first == row.tag && r.tapped.back().second.at(1) == row.code, "not the state answer");
  }

  // A link loss with its error, and nothing left connected.
  void lost() {
    waitFor([&] { return !r.disconnects.empty(); }, 15s, "link loss");
    expect(r.disconnects.size() == 1 && r.disconnects[0], "a link loss without an error, or more than one");
    expect(!manager->connectedPheral(), "connectedPheral kept after the link loss");
  }

  std::shared_ptr<TQBleManager> manager;
  test::Recorder r;
  std::shared_ptr<ble::Peripheral> post;
  std::vector<std::string> log;
};

// ---- Scenarios ----

// Scan after scan, each must hear the post in its window (RADIO_SCANS of RADIO_SCAN_MS).
std::string scan(App& app) {
  const int scans = std::stoi(env("RADIO_SCANS", "10"));
  const std::chrono::milliseconds window(std::stoi(env("RADIO_SCAN_MS", "2900")));
  std::vector<double> heard;
  for (int i = 0; i < scans; ++i) {
    if (const double took = app.scanOnce(window); took >= 0) heard.push_back(took);
    if (std::getenv("RADIO_CTL")) radioControl("wait-idle");  // the next scan starts afresh
  }
  std::sort(heard.begin(), heard.end());
  const std::string seen = "heard in " + std::to_string(heard.size()) + " of " + std::to_string(scans) +
                           " scans of " + seconds(window.count() / 1000.0) +
                           (heard.empty() ? "" : " (longest " + seconds(heard.back()) + ")");
  expect(heard.size() == static_cast<std::size_t>(scans), seen);
  return seen;
}

std::string connect(App& app) {
  app.scan();
  const double took = app.connect();
  expect(app.manager->connectedPheral() == app.post, "connectedPheral is not the post");
  app.disconnect();
  return "connected and discovered in " + seconds(took) + ", disconnected";
}

std::string discovery(App& app) {
  app.scan();
  app.connect();
  expect(app.manager->writeCharacteristic()->uuid().UUIDString() == "FFF3", "write characteristic is not FFF3");
  expect(app.manager->readCharacteristic()->uuid().UUIDString() == "FFF4", "read characteristic is not FFF4");
  // The properties as bluetoothd reports the post's flags, one log line each.
  std::vector<std::string> seen;
  for (const auto& line : app.log)
    if (line.starts_with("************ ")) seen.push_back(line.substr(13));
  std::sort(seen.begin(), seen.end());
  expect(seen == std::vector<std::string>{"CBCharacteristicPropertyNotify", "CBCharacteristicPropertyRead",
                                          "CBCharacteristicPropertyWrite",
                                          "CBCharacteristicPropertyWriteWithoutResponse"},
         std::to_string(seen.size()) + " property lines, not the four expected");
  // The initial read of FFF4 reaches the delegate while nothing is pending.
  waitFor([&] { return !app.r.updates.empty(); }, 5s, "delegate call of the initial read");
  app.disconnect();
  return "FFF3 (write, write without response) and FFF4 (read, notify); initial read delivered";
}

// Every row of the command table through the client, on one link.
std::string commands(App& app) {
  ChargerClient client(ClientOptions{.connectTimeout = 60s, .requestTimeout = 10s, .reconnect = {}});
  std::optional<std::string> linked;
  client.connect(kPostName, [&](const Outcome<ChargerClient::PeripheralPtr>& o) {
    linked = o.ok() ? "" : o.error().message;
  });
  waitFor([&] { return linked.has_value(); }, 70s, "client link");
  expect(linked->empty(), "the client did not connect: " + *linked);
  waitFor([&] { return !app.r.tapped.empty(); }, 10s, "automatic system information");
  for (const CommandRow& row : kCommandRows) {
    const auto start = Clock::now();
    app.r.clear();
    std::optional<std::optional<ClientError>> done;
    row.ask(client, [&](const std::optional<ClientError>& e) { done = e; });
    waitFor([&] { return done && app.r.updates.size() >= row.notifications; }, 15s, std::string(row.name) + " answer");
    const std::string name = row.name;
    expect(!*done, name + ": " + (*done ? (*done)->message : ""));
    expect(app.r.tapped.size() == 1 && app.r.tapped[0].first == row.tag && app.r.tapped[0].second.at(1) == row.code,
           name + ": not one answer of its own");
    expect(app.r.updates.size() == row.notifications, name + ": " + std::to_string(app.r.updates.size()) + " updates");
    const auto& result = app.r.updates.back()->result;
    expect((result ? result->resultType : -1) == row.resultType, name + ": not the result expected");
    if (row.check == test::rows::charging) expect(app.r.updates.back()->chargingData->gunStatus == "正在充电中",
                                                    name + ": not charging");
    std::printf("  %-38s %s, %zu bytes\n", row.name, seconds(since(start)).c_str(), app.r.tapped[0].second.size());
  }
  client.disconnect();
  waitFor([&] { return !app.r.disconnects.empty(); }, 10s, "disconnection");
  return "all " + std::to_string(std::size(kCommandRows)) + " commands answered through the client";
}

std::string reconnect(App& app) {
  app.scan();
  const double first = app.connect();
  app.disconnect();
  // The daemon keeps the device and its attributes: the second link needs no scan.
  const double second = app.connectAndSettle();
  app.askState();
  app.disconnect();
  return "first link ready in " + seconds(first) + ", second (cached) in " + seconds(second) + ", answered on it";
}

std::string linkLoss(App& app) {
  app.scan();
  app.connect();
  radioControl("drop-link");
  app.lost();
  return "reported with code " + std::to_string(*app.r.disconnects.back());
}

// A link, then asked once more on a new link after `outage` (which must report the loss).
std::string survive(App& app, const char* outage, std::int64_t down) {
  app.scan();
  app.connect();
  app.r.states.clear(), app.r.disconnects.clear();
  radioControl(outage);
  waitFor([&] { return std::count(app.r.states.begin(), app.r.states.end(), down) > 0; }, 15s,
          "state " + std::to_string(down));
  app.lost();
  if (std::string(outage) == "power-off") radioControl("power-on");
  app.scan();
  app.connectAndSettle();
  app.askState();
  app.disconnect();
  std::string states;
  for (auto s : app.r.states) states += (states.empty() ? "" : ",") + std::to_string(s);
  return "states " + states + "; the link loss reported; served again after";
}

std::string powerOff(App& app) { return survive(app, "power-off", ble::CentralManagerStatePoweredOff); }
std::string daemonRestart(App& app) { return survive(app, "restart-bluetoothd", ble::CentralManagerStateResetting); }

std::string unprivileged(App& app) {
  app.scan();
  app.connectAndSettle();
  app.askState();
  app.disconnect();
  return "scan, connection and an answer as uid " + std::to_string(getuid());
}

// `tqble demo --backend bluez`, as its user runs it.
std::string demo(App&) {
  FILE* out = popen(TQBLE_CLI_PATH " demo --quiet --backend bluez 2>&1", "r");
  expect(out != nullptr, "cannot run tqble");
  std::string text;
  char buffer[512];
  while (fgets(buffer, sizeof buffer, out)) text += buffer;
  const int status = pclose(out);
  for (const char* line : {"heard TQ-RADIO-POST", "== Volume 35\n  answer   68 B2 00 00 01 00 00 DB 00\n  result   accepted\n",
                           "\ndone.\n"}) {
    expect(status == 0 && text.find(line) != std::string::npos, "exit " + std::to_string(status) + ":\n" + text);
  }
  return "the scripted session ran to its end";
}

struct Scenario {
  const char* name;
  std::string (*run)(App&);
};

const Scenario kScenarios[] = {
    {"scan", scan},          {"connect", connect},           {"discovery", discovery},
    {"commands", commands},  {"reconnect", reconnect},       {"link-loss", linkLoss},
    {"power-off", powerOff}, {"unprivileged", unprivileged}, {"daemon-restart", daemonRestart},
    {"demo", demo},
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: tqble_radio --list | tqble_radio SCENARIO\n", stderr);
    return 2;
  }
  const std::string name = argv[1];
  for (const auto& s : kScenarios) {
    if (name == "--list") std::printf("%s\n", s.name);
    if (name != s.name) continue;
    try {
      // Leaves root before any thread starts: the rest of the run is an ordinary user's.
      if (name == "unprivileged" && getuid() == 0)
        expect(setgroups(0, nullptr) == 0 && setgid(65534) == 0 && setuid(65534) == 0, "cannot become uid 65534");
      if (env("TQBLE_BACKEND", "") == "sim") {
        sim::PostSetup setup;
        setup.name = kPostName;
        sim::SimRadio::shared().addPost(setup)->model().plugIn();
      }
      App app;
      try {
        std::printf("%s\n", s.run(app).c_str());
        return 0;
      } catch (const std::exception&) {
        // What the SDK logged last, then the verdict (the guest shows the tail).
        for (std::size_t i = app.log.size() > 12 ? app.log.size() - 12 : 0; i < app.log.size(); ++i)
          std::printf("  log: %s\n", app.log[i].c_str());
        throw;
      }
    } catch (const std::exception& e) {
      std::printf("FAILED: %s\n", e.what());
      return 1;
    }
  }
  if (name == "--list") return 0;
  std::fprintf(stderr, "tqble_radio: unknown scenario '%s'\n", name.c_str());
  return 2;
}
