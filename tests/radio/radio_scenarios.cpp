// tqble_radio: the SDK's link scenarios against a real radio, one per process (the manager
// is a process singleton). Run in the radio guest (scripts/radio/guest.sh) with the bluez
// backend on hci1 while `tqble post --state plugged` serves hci0; actions on the radio from
// outside the SDK go through the command in RADIO_CTL.
// Usage: tqble_radio --list | tqble_radio SCENARIO   (exit 0: passed; the last line says
// what was seen)
#include <grp.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <thread>

#include "support/Commands.h"
#include "support/Recorder.h"
#include "tqble/platform/Log.h"
#include "tqble/platform/MainQueue.h"

namespace {

using namespace std::chrono_literals;
using namespace tqble;
using test::CommandRow;
using Clock = std::chrono::steady_clock;
constexpr char kPostName[] = "TQ-RADIO-POST";

void expect(bool ok, const std::string& what) {
  if (!ok) throw std::runtime_error(what);
}

std::string seconds(Clock::time_point since) {
  char text[16];
  std::snprintf(text, sizeof text, "%.2f s",
                std::chrono::duration<double>(Clock::now() - since).count());
  return text;
}

void waitFor(const std::function<bool()>& done, MainQueue::Duration limit,
             const std::string& what) {
  const auto start = Clock::now();
  if (!MainQueue::main().runUntil(done, limit))
    throw std::runtime_error("no " + what + " after " + seconds(start));
}

// Acts on the radio from outside the SDK (the post's side, the adapter, the daemon).
void radioControl(const std::string& action) {
  const char* ctl = std::getenv("RADIO_CTL");
  expect(ctl && std::system((std::string(ctl) + " " + action).c_str()) == 0,
         "'" + action + "' failed");
}

// The application: the manager with the tests' delegate recorder, the client on top (which
// forwards every delegate call to the recorder), and the steps scenarios take.
struct App {
  // Starts scanning once the adapter is on.
  void startScan() {
    waitFor(
        [this] {
          return !r.states.empty() && r.states.back() == ble::CentralManagerStatePoweredOn;
        },
        10s, "powered-on adapter");
    manager.scanForPeripherals();
  }

  // Whether the post is heard (again) within `window` of scanning.
  bool hear(MainQueue::Duration window) {
    const auto start = Clock::now();
    bool heard = false;
    r.discoveries.clear();
    MainQueue::main().runUntil(
        [&] {
          for (const auto& [p, rssi] : r.discoveries) heard = heard || p->name() == kPostName;
          return heard;
        },
        window);
    std::printf("  scan: %s\n", heard ? ("heard after " + seconds(start)).c_str() : "missed");
    return heard;
  }

  // Finds the post and connects (or connects to `again`); returns once the link is ready.
  std::string connect(const ChargerClient::PeripheralPtr& again = nullptr) {
    const auto start = Clock::now();
    r.tapped.clear(), r.updates.clear();
    std::optional<std::string> failed;
    auto done = [&](const Outcome<ChargerClient::PeripheralPtr>& o) {
      failed = o.ok() ? "" : o.error().message;
    };
    again ? client.connect(again, done) : client.connect(kPostName, done);
    waitFor([&] { return failed.has_value(); }, 70s, "ready link");
    expect(failed->empty(), "no link: " + *failed);
    std::printf("  link: ready after %s\n", seconds(start).c_str());
    return seconds(start);
  }

  // Pieces of the answers tapped since the `from`th: one value update each.
  std::size_t pieces(std::size_t from) const {
    std::size_t n = 0;
    for (auto i = from; i < r.tapped.size(); ++i)
      n += std::find_if(std::begin(test::kCommandRows), std::end(test::kCommandRows),
                        [&](const auto& row) { return row.tag == r.tapped[i].first; })
               ->notifications;
    return n;
  }

  // Asks `row` through the client: its answer, and every answer meanwhile (the manager's
  // own system query too) reached the delegate as one value update per piece.
  void ask(const CommandRow& row) {
    const auto taps = r.tapped.size(), updates = r.updates.size();
    std::optional<std::optional<ClientError>> done;
    row.ask(client, [&](const std::optional<ClientError>& e, const Bytes&) { done = e; });
    const std::string name = row.name;
    waitFor([&] { return done.has_value(); }, 20s, name);
    expect(!*done, name + ": " + (*done ? (*done)->message : ""));
    expect(r.tapped.size() > taps && r.tapped.back().first == row.tag &&
               r.tapped.back().second.at(1) == row.code,
           name + ": not its answer");
    expect(r.updates.size() - updates == pieces(taps),
           name + ": " + std::to_string(r.updates.size() - updates) + " value updates");
  }
  void askState() { ask(test::commandRow("queryChargerStateWithError")); }

  // The client's disconnection, or `outage`, ends the link: reported once, with an error
  // for an outage only.
  void down(const std::string& outage = "") {
    r.disconnects.clear();
    outage.empty() ? client.disconnect() : radioControl(outage);
    waitFor([&] { return !r.disconnects.empty(); }, 15s, "end of the link");
    expect(r.disconnects.size() == 1 && r.disconnects[0].has_value() == !outage.empty() &&
               !manager.connectedPheral(),
           "the link's end reported more than once, or with the wrong outcome");
  }

  std::vector<std::string> log;
  bool logging = (setLogSink([this](std::string_view line) { log.emplace_back(line); }), true);
  TQBleManager& manager = *TQBleManager::shareManager();
  test::Recorder r;
  bool attached = (r.attach(manager), true);  // before the client takes the delegate over
  ChargerClient client{{.connectTimeout = 60s, .requestTimeout = 10s, .reconnect = {}}};
};

// ---- Scenarios ----

// Scan after scan, each must hear the post in its window (RADIO_SCANS of RADIO_SCAN_MS).
std::string scan(App& app) {
  const int scans = std::atoi(std::getenv("RADIO_SCANS") ? std::getenv("RADIO_SCANS") : "10");
  const auto window = std::chrono::milliseconds(
      std::atoi(std::getenv("RADIO_SCAN_MS") ? std::getenv("RADIO_SCAN_MS") : "2900"));
  int heard = 0;
  for (int i = 0; i < scans; ++i) {
    app.startScan();
    heard += app.hear(window);
    app.manager.stopScan();
    radioControl("wait-idle");  // the next scan starts afresh
  }
  const std::string seen = "heard in " + std::to_string(heard) + " of " + std::to_string(scans) +
                           " scans of " + std::to_string(window.count()) + " ms";
  expect(heard == scans, seen);
  return seen;
}

// A whole link as an ordinary user: the post's attributes and their properties as bluetoothd
// reports them, one value update for the initial read and for each piece of every answer,
// then a second link from the daemon's cache that answers too.
std::string link(App& app) {
  using namespace ble;
  const std::string first = app.connect();
  const auto write = app.manager.writeCharacteristic(), read = app.manager.readCharacteristic();
  expect(write->uuid().UUIDString() == "FFF3" && read->uuid().UUIDString() == "FFF4" &&
             write->properties() == (CharacteristicPropertyWriteWithoutResponse | CharacteristicPropertyWrite) &&
             read->properties() == (CharacteristicPropertyRead | CharacteristicPropertyNotify),
         "not FFF3 (write, write without response) and FFF4 (read, notify)");
  app.askState();
  expect(app.r.updates.size() == 1 + app.pieces(0), "the initial read is not one value update");
  const auto post = app.client.peripheral();
  app.down();
  const std::string second = app.connect(post);
  app.askState();
  app.down();
  return "as uid " + std::to_string(getuid()) + ": ready in " + first + ", again (cached) in " +
         second + ", answered";
}

// Every row of the command table through the client, on one link.
std::string commands(App& app) {
  app.connect();
  for (const CommandRow& row : test::kCommandRows) {
    const auto start = Clock::now();
    app.ask(row);
    const auto& last = *app.r.updates.back();
    expect((last.result ? last.result->resultType : -1) == row.resultType &&
               (row.check != test::rows::charging || last.chargingData->gunStatus == "正在充电中"),
           std::string(row.name) + ": not its result");
    std::printf("  %-38s %s, %zu bytes\n", row.name, seconds(start).c_str(),
                app.r.tapped.back().second.size());
  }
  app.down();
  return "all " + std::to_string(std::size(test::kCommandRows)) +
         " commands answered through the client";
}

std::string linkLoss(App& app) {
  app.connect();
  app.down("drop-link");
  return "reported with code " + std::to_string(*app.r.disconnects[0]);
}

// The link lost to `outage`, then served again on a new one once `back` is done.
std::string survive(App& app, const char* outage, const char* back, std::int64_t down) {
  app.connect();
  app.r.states.clear();
  app.down(outage);
  waitFor([&] { return std::count(app.r.states.begin(), app.r.states.end(), down) > 0; }, 15s,
          "state " + std::to_string(down));
  if (*back) radioControl(back);
  // At once: the lost link's system query, still to come, goes out on the new link.
  app.connect();
  app.askState();
  app.down();
  std::string states;
  for (auto s : app.r.states) states += " " + std::to_string(s);
  return "states" + states + "; the loss reported, served again after";
}

std::string powerOff(App& app) {
  return survive(app, "power-off", "power-on", ble::CentralManagerStatePoweredOff);
}
std::string daemonRestart(App& app) {
  return survive(app, "restart-bluetoothd", "", ble::CentralManagerStateResetting);
}

// Runs the tqble tool as its user would: it must exit 0 having printed each of `lines`.
void tool(const std::string& arguments, std::initializer_list<const char*> lines) {
  FILE* out = popen((TQBLE_CLI_PATH " " + arguments + " 2>&1").c_str(), "r");
  std::string text;
  char buffer[512];
  while (out && fgets(buffer, sizeof buffer, out)) text += buffer;
  const int status = out ? pclose(out) : -1;
  for (const char* line : lines)
    expect(status == 0 && text.find(line) != std::string::npos,
           "tqble " + arguments + ": exit " + std::to_string(status) + ":\n" + text);
}

std::string demo(App&) {
  tool("demo --quiet --backend bluez", {"heard TQ-RADIO-POST", "\ndone.\n",
                                        "== Volume 35\n  answer   68 B2 00 00 01 00 00 DB "
                                        "00\n  result   accepted\n"});
  return "the scripted session ran to its end";
}

// Two `tqble run` in a row, the second started 0.3 s after the first ended: bluetoothd is
// still taking the first link down (it keeps it some 2 s), and the second waits for that.
std::string runTwice(App&) {
  for (const auto gap : {0ms, 300ms}) {
    std::this_thread::sleep_for(gap);  // the gap under test, not a wait for anything
    tool("run TQ-RADIO-POST state --backend bluez", {"\"gun_state\": \""});
  }
  return "both answered, the second started 0.3 s after the first ended";
}

// clang-format off
const std::pair<const char*, std::string (*)(App&)> kScenarios[] = {
    {"scan", scan}, {"link", link}, {"commands", commands}, {"link-loss", linkLoss}, {"power-off", powerOff},
    {"daemon-restart", daemonRestart}, {"demo", demo}, {"run-twice", runTwice}};
// clang-format on

}  // namespace

int main(int argc, char** argv) {
  const std::string name = argc == 2 ? argv[1] : "";
  for (const auto& [scenario, run] : kScenarios) {
    if (name == "--list") std::printf("%s\n", scenario);
    if (name != scenario) continue;
    try {
      // Leaves root before any thread starts: the rest of the run is an ordinary user's.
      if (name == "link" && getuid() == 0)
        expect(setgroups(0, nullptr) == 0 && setgid(65534) == 0 && setuid(65534) == 0,
               "not uid 65534");
      App app;
      try {
        std::printf("%s\n", run(app).c_str());
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
  std::fputs("usage: tqble_radio --list | tqble_radio SCENARIO\n", stderr);
  return 2;
}
