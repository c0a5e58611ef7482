// tqble_radio: the SDK's link scenarios against a real radio, one per process (the manager
// is a process singleton). Run in the radio guest (scripts/radio/guest.sh) with the
// bluez backend on hci1 while `tqble post --state plugged` serves hci0; actions on the
// radio from outside the SDK go through the command in RADIO_CTL. Also runs on the
// simulator (TQBLE_BACKEND=sim), with one virtual post in range, for trying it out.
// Usage: tqble_radio --list | tqble_radio SCENARIO   (exit 0: passed; the last line says what was
// seen)
#include <grp.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "tqble/AnswerDecoding.h"
#include "tqble/BLESDKConst.h"
#include "tqble/TQBleManager.h"
#include "tqble/ZDataCoverTool.h"
#include "tqble/platform/Log.h"
#include "tqble/platform/MainQueue.h"
#include "tqble/sim/SimRadio.h"

namespace {

using namespace std::chrono_literals;
using namespace tqble;
using PeripheralPtr = TQBleManager::PeripheralPtr;

struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

std::string postName() {
  const char* name = std::getenv("RADIO_POST_NAME");
  return name ? name : "TQ-RADIO-POST";
}

// Acts on the radio from outside the SDK (the post's side, the adapter, the daemon).
void radioControl(const std::string& action) {
  const char* ctl = std::getenv("RADIO_CTL");
  if (!ctl) throw Failure("RADIO_CTL is not set: cannot " + action);
  if (std::system((std::string(ctl) + " " + action).c_str()) != 0)
    throw Failure("'" + action + "' failed");
}

double since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// The application's side: the manager, a delegate that records everything, and waits.
class App {
 public:
  App() {
    setLogSink([this](std::string_view line) { log.emplace_back(line); });
    manager = TQBleManager::shareManager();
    delegate_ = std::make_shared<TQBleManagerDelegate>();
    delegate_->tqbleManagerCenterState = [this](std::int64_t s) { states.push_back(s); };
    delegate_->didDiscoverPeripheral = [this](TQBleManager&, const PeripheralPtr& p,
                                              std::int64_t rssi) {
      heard.insert(p->identifier() + " \"" + p->name() + "\"");
      if (p->name() == postName() && !post) post = p, rssi_ = rssi;
    };
    delegate_->didConnectPeripheral = [this](TQBleManager&, const PeripheralPtr&) { ++connects; };
    delegate_->didDisconnectPeripheral = [this](TQBleManager&, const PeripheralPtr&,
                                                const std::optional<TQError>& e) {
      disconnects.push_back(e);
    };
    delegate_->didFailToConnectPeripheral = [this](TQBleManager&, const PeripheralPtr&,
                                                   const std::optional<TQError>& e) {
      failures.push_back(e ? e->domain : "(no error)");
    };
    delegate_->didUpdateValueForCharacteristicValue =
        [this](TQBleManager&, const std::shared_ptr<TQBleDataModel>& model,
               const std::optional<TQError>&) { models.push_back(model); };
    manager->setDelegate(delegate_);
    manager->addAnswerObserver([this](std::int64_t cmdType, const Bytes& answer) {
      answers.push_back({cmdType, answer});
    });
  }

  static void waitFor(const std::function<bool()>& done, MainQueue::Duration limit,
                      const std::string& what) {
    if (!MainQueue::main().runUntil(done, limit)) throw Failure("timed out waiting for " + what);
  }

  std::int64_t state() const { return states.empty() ? -1 : states.back(); }

  void poweredOn() {
    waitFor([this] { return state() == ble::CentralManagerStatePoweredOn; }, 10s,
            "the adapter to be powered on");
  }

  // Scans until the post is heard; returns seconds taken.
  double scan() {
    poweredOn();
    const auto start = std::chrono::steady_clock::now();
    post.reset();
    // The emulated scanner reports an advertiser once per scan, and when that report comes
    // before the kernel counts the scan as started it is dropped: the post stays unheard for
    // the whole scan. A new scan every few seconds (off the 1.28 s advertising beat) keeps
    // the wait short.
    for (int attempt = 0; attempt < 20 && !post; ++attempt) {
      manager->scanForPeripherals();
      MainQueue::main().runUntil([this] { return post != nullptr; }, 2900ms);
      manager->stopScan();
    }
    if (!post) {
      std::string seen;
      for (const auto& h : heard) seen += " " + h;
      throw Failure("no advertisement of " + postName() +
                    " in 58 s; heard:" + (seen.empty() ? " nothing" : seen));
    }
    return since(start);
  }

  // Connects and waits for both characteristics; returns seconds taken.
  double connect() {
    const auto start = std::chrono::steady_clock::now();
    const int before = connects;
    manager->setWriteCharacteristic(nullptr);
    manager->setReadCharacteristic(nullptr);
    manager->startConnectPeripheral(post);
    waitFor([&] { return connects > before || !failures.empty(); }, 40s, "the connection");
    if (!failures.empty()) throw Failure("connection failed: " + failures.back());
    waitFor([this] { return manager->writeCharacteristic() && manager->readCharacteristic(); }, 20s,
            "FFF3 and FFF4 to be discovered");
    return since(start);
  }

  // Connects, then waits for the query the manager sends by itself 3 s later: a command
  // issued before its answer would have that answer dispatched as its own.
  double connectAndSettle() {
    const std::size_t rows = manager->systemInfoModelList().size();
    const double took = connect();
    waitFor([&] { return manager->systemInfoModelList().size() > rows; }, 10s,
            "the automatic system information");
    return took;
  }

  void disconnect() {
    const auto before = disconnects.size();
    manager->stopConnectPeripheral(manager->connectedPheral(), nullptr);
    waitFor([&] { return disconnects.size() > before; }, 10s, "the disconnection");
    if (disconnects.back())
      throw Failure("a requested disconnection reported: " + disconnects.back()->domain);
  }

  // Issues a command and waits for its whole answer and the delegate call after it.
  Bytes exchange(const std::function<void(TQBleManager&)>& issue, std::int64_t cmdType) {
    answers.clear();
    models.clear();
    std::optional<TQError> local;
    issue(*manager);
    waitFor([&] { return !answers.empty() && !models.empty() && manager->cmdType() == 0; }, 10s,
            "the answer to command type " + std::to_string(cmdType));
    if (answers.back().first != cmdType) {
      throw Failure("answer dispatched as type " + std::to_string(answers.back().first));
    }
    return answers.back().second;
  }

  std::shared_ptr<TQBleManager> manager;
  PeripheralPtr post;
  std::vector<std::int64_t> states;
  int connects = 0;
  std::vector<std::optional<TQError>> disconnects;
  std::vector<std::string> failures;
  std::vector<std::shared_ptr<TQBleDataModel>> models;
  std::vector<std::pair<std::int64_t, Bytes>> answers;
  std::vector<std::string> log;
  std::set<std::string> heard;  ///< every peripheral reported, with its name
  std::int64_t rssi_ = 0;

 private:
  std::shared_ptr<TQBleManagerDelegate> delegate_;
};

void expect(bool ok, const std::string& what) {
  if (!ok) throw Failure(what);
}

// ---- Scenarios ----

std::string scan(App& app) {
  const double took = app.scan();
  return "heard " + postName() + " (" + app.post->identifier() + ", RSSI " +
         std::to_string(app.rssi_) + ") after " + std::to_string(took).substr(0, 4) + " s";
}

std::string connect(App& app) {
  app.scan();
  const double took = app.connect();
  expect(app.manager->connectedPheral() == app.post, "connectedPheral is not the post");
  app.disconnect();
  expect(!app.manager->connectedPheral(), "connectedPheral kept after the disconnection");
  return "connected and discovered in " + std::to_string(took).substr(0, 4) + " s, disconnected";
}

std::string discovery(App& app) {
  app.scan();
  app.connect();
  expect(app.manager->writeCharacteristic()->uuid().UUIDString() == "FFF3",
         "write characteristic is not FFF3");
  expect(app.manager->readCharacteristic()->uuid().UUIDString() == "FFF4",
         "read characteristic is not FFF4");
  // The properties as bluetoothd reports the post's flags, in the manager's log order.
  App::waitFor([&] { return app.log.size() >= 4; }, 5s, "the property log lines");
  const std::vector<std::string> expected = {
      "************ CBCharacteristicPropertyWriteWithoutResponse",
      "************ CBCharacteristicPropertyWrite", "************ CBCharacteristicPropertyRead",
      "************ CBCharacteristicPropertyNotify"};
  std::vector<std::string> seen;
  for (const auto& line : app.log) {
    if (line.starts_with("************")) seen.push_back(line);
  }
  std::vector<std::string> sorted = seen, want = expected;
  std::sort(sorted.begin(), sorted.end());
  std::sort(want.begin(), want.end());
  expect(sorted == want,
         "property log lines: " + std::to_string(seen.size()) + " lines, not the four expected");
  // The initial read of FFF4 reaches the delegate while nothing is pending.
  App::waitFor([&] { return !app.models.empty(); }, 5s, "the delegate call of the initial read");
  app.disconnect();
  return "FFF0 with FFF3 (write, write without response) and FFF4 (read, notify); initial read "
         "delivered";
}

struct CommandCase {
  const char* name;
  std::int64_t cmdType;
  std::function<void(TQBleManager&)> issue;
  std::function<std::string(App&, const Bytes&)> check;  // returns what was seen; throws Failure
};

std::string result(App& app, const Bytes&) {
  const auto& model = app.models.back();
  expect(model && model->result, "no result reached the delegate");
  expect(model->result->resultType == TQSetCmdSuccess, "the post refused");
  return "success";
}

std::string chargerState(App& app, const Bytes& answer) {
  const auto& model = app.models.back();
  expect(model && model->chargingData, "no charging data reached the delegate (" +
                                           ZDataCoverTool::coverFromDataToHexStr(answer) + ")");
  return "gun " + model->chargingData->gunStatus.value_or("-") + ", " +
         std::to_string(answer.size()) + " bytes";
}

std::string commands(App& app) {
  app.scan();
  app.connectAndSettle();
  std::vector<CommandCase> cases = {
      {"synchroTimeWithError", 1, [](TQBleManager& m) { m.synchroTimeWithError(nullptr); }, result},
      {"querySystemInfoWithError", 2, [](TQBleManager& m) { m.querySystemInfoWithError(nullptr); },
       [](App& a, const Bytes& answer) {
         expect(answer.size() == 67,
                "system information of " + std::to_string(answer.size()) + " bytes");
         // The list grows by the same ten rows with every answer: the automatic one came first.
         expect(a.manager->systemInfoModelList().size() == 20,
                "not twenty system-information rows");
         return "ten rows again, post " + decode::systemInfo(answer)[0];
       }},
      {"setVolumeWithVolumeSize", 3,
       [](TQBleManager& m) { m.setVolumeWithVolumeSize(35, nullptr); }, result},
      {"orderChargerWithStartHour", 4,
       [](TQBleManager& m) { m.orderChargerWithStartHour(22, 30, 6, 0, nullptr); }, result},
      {"startChargingWithError", 5, [](TQBleManager& m) { m.startChargingWithError(nullptr); },
       result},
      {"queryChargerStateWithError", 6,
       [](TQBleManager& m) { m.queryChargerStateWithError(nullptr); }, chargerState},
      {"queryChargingDataWithError", 6,
       [](TQBleManager& m) { m.queryChargingDataWithError(nullptr); }, chargerState},
      {"stopChargeWithError", 7, [](TQBleManager& m) { m.stopChargeWithError(nullptr); }, result},
      {"queryHistoryChargingListWithError", 8,
       [](TQBleManager& m) { m.queryHistoryChargingListWithError(nullptr); },
       [](App&, const Bytes& answer) {
         const auto sessions = decode::chargingHistory(answer);
         expect(!sessions.empty(), "no charging session in the history after one was stopped");
         return std::to_string(sessions.size()) + " sessions in " + std::to_string(answer.size()) +
                " bytes";
       }},
      {"queryCumulationElecQuantityWithError", 9,
       [](TQBleManager& m) { m.queryCumulationElecQuantityWithError(nullptr); },
       [](App&, const Bytes& answer) {
         expect(answer.size() == 13,
                "energy answer of " + std::to_string(answer.size()) + " bytes");
         return std::to_string(decode::cumulativeEnergy(answer)) + " Wh";
       }},
      {"queryHistoryErrorLogListWithError", 15,
       [](TQBleManager& m) { m.queryHistoryErrorLogListWithError(nullptr); },
       [](App&, const Bytes& answer) {
         return std::to_string(decode::errorLog(answer).size()) + " errors in " +
                std::to_string(answer.size()) + " bytes";
       }},
      {"runningDiagnosticInfoWithError", 13,
       [](TQBleManager& m) { m.runningDiagnosticInfoWithError(nullptr); },
       [](App&, const Bytes& answer) {
         expect(answer.size() == 66, "diagnostics of " + std::to_string(answer.size()) + " bytes");
         return "firmware " + decode::runningDiagnosis(answer).versionNum.value_or("-");
       }},
  };
  for (const auto& c : cases) {
    const auto start = std::chrono::steady_clock::now();
    const Bytes answer = app.exchange(c.issue, c.cmdType);
    const std::string seen = c.check(app, answer);
    std::printf("  %-38s %5.2f s  %s\n", c.name, since(start), seen.c_str());
  }
  app.disconnect();
  return "all twelve commands answered and delivered";
}

std::string reconnect(App& app) {
  app.scan();
  const double first = app.connect();
  app.disconnect();
  // The daemon keeps the device and its attributes: the second link needs no scan.
  const double second = app.connectAndSettle();
  const Bytes answer =
      app.exchange([](TQBleManager& m) { m.queryChargerStateWithError(nullptr); }, 6);
  chargerState(app, answer);
  app.disconnect();
  return "first link ready in " + std::to_string(first).substr(0, 4) + " s, second (cached) in " +
         std::to_string(second).substr(0, 4) + " s, answered on it";
}

std::string linkLoss(App& app) {
  app.scan();
  app.connect();
  radioControl("drop-link");
  App::waitFor([&] { return !app.disconnects.empty(); }, 15s, "the link loss to be reported");
  expect(app.disconnects.back().has_value(), "a link loss reported without an error");
  expect(!app.manager->connectedPheral(), "connectedPheral kept after the link loss");
  return "reported with \"" + app.disconnects.back()->domain + "\"";
}

std::string powerOff(App& app) {
  app.scan();
  app.connect();
  radioControl("power-off");
  App::waitFor([&] { return app.state() == ble::CentralManagerStatePoweredOff; }, 10s,
               "the powered-off state");
  const std::size_t lossesWhileOff = app.disconnects.size();
  radioControl("power-on");
  app.poweredOn();
  // The adapter works again: the post is heard and serves a new link.
  app.scan();
  app.connectAndSettle();
  app.exchange([](TQBleManager& m) { m.queryChargerStateWithError(nullptr); }, 6);
  app.disconnect();
  return "powered off and on; " + std::to_string(lossesWhileOff) +
         " link loss reported; served again after";
}

std::string daemonRestart(App& app) {
  app.scan();
  app.connect();
  radioControl("restart-bluetoothd");
  App::waitFor(
      [&] {
        for (auto s : app.states)
          if (s == ble::CentralManagerStateResetting || s == ble::CentralManagerStateUnsupported)
            return true;
        return false;
      },
      15s, "the daemon's absence to be reported");
  app.poweredOn();
  app.scan();
  app.connectAndSettle();
  app.exchange([](TQBleManager& m) { m.queryChargerStateWithError(nullptr); }, 6);
  app.disconnect();
  std::string seen;
  for (auto s : app.states) seen += (seen.empty() ? "" : ",") + std::to_string(s);
  return "states " + seen + "; served again after the restart";
}

std::string unprivileged(App& app) {
  app.scan();
  app.connectAndSettle();
  app.exchange([](TQBleManager& m) { m.queryChargerStateWithError(nullptr); }, 6);
  app.disconnect();
  return "scan, connection and an answer as uid " + std::to_string(getuid());
}

struct Scenario {
  const char* name;
  std::string (*run)(App&);
};

const Scenario kScenarios[] = {
    {"scan", scan},          {"connect", connect},           {"discovery", discovery},
    {"commands", commands},  {"reconnect", reconnect},       {"link-loss", linkLoss},
    {"power-off", powerOff}, {"unprivileged", unprivileged}, {"daemon-restart", daemonRestart},
};

// Leaves root before any thread starts: the rest of the run is an ordinary user's.
void becomeNobody() {
  if (getuid() != 0) return;
  if (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0)
    throw Failure("cannot become uid 65534");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: tqble_radio --list | tqble_radio SCENARIO\n", stderr);
    return 2;
  }
  const std::string name = argv[1];
  if (name == "--list") {
    for (const auto& s : kScenarios) std::printf("%s\n", s.name);
    return 0;
  }
  for (const auto& s : kScenarios) {
    if (name != s.name) continue;
    try {
      if (name == "unprivileged") becomeNobody();
      if (const char* backend = std::getenv("TQBLE_BACKEND");
          backend && std::string(backend) == "sim") {
        sim::PostSetup setup;
        setup.name = postName();
        sim::SimRadio::shared().addPost(setup)->model().plugIn();
      }
      App app;
      try {
        const std::string seen = s.run(app);
        std::printf("%s\n", seen.c_str());
        return 0;
      } catch (const std::exception& e) {
        // What the SDK logged last, then the verdict (the guest shows the tail).
        const std::size_t from = app.log.size() > 12 ? app.log.size() - 12 : 0;
        for (std::size_t i = from; i < app.log.size(); ++i)
          std::printf("  log: %s\n", app.log[i].c_str());
        throw;
      }
    } catch (const std::exception& e) {
      std::printf("FAILED: %s\n", e.what());
      return 1;
    }
  }
  std::fprintf(stderr, "tqble_radio: unknown scenario '%s'\n", name.c_str());
  return 2;
}
