#include "Worker.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <memory>
#include <optional>

#include "Commands.h"
#include "Discovery.h"
#include "Log.h"
#include "Mqtt.h"
#include "PostValues.h"
#include "Topics.h"
#include "tqble/ble/CentralManager.h"
#include "tqble/platform/Log.h"
#include "tqble/platform/MainQueue.h"
#include "tqble/sim/SimRadio.h"

namespace tqble::bridge {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

std::atomic<bool> stopWanted = false;
std::atomic<int> rangeWanted = 0;  // 1: out of range, 2: back in range

constexpr auto kHousekeeping = 200ms;
constexpr auto kMaxBackoff = 30s;

class Worker {
 public:
  Worker(const BridgeConfig& config, const PostSettings& post, const std::string& backend,
         int heartbeatFd)
      : config_(config), post_(post), topic_(config, post), heartbeatFd_(heartbeatFd) {
    TQBleManager::useBackend(backend);
    setLogSink([](std::string_view) {});
    ClientOptions options;
    options.connectTimeout = 10s;
    options.requestTimeout = 5s;
    client_.emplace(options);
    client_->setErrorHandler([](const ClientError& e) { log("%s", e.message.c_str()); });
    target_ = post.post;
    if (backend == "sim") simulate();
    mqtt_.emplace(config.mqtt, "tqble-" + post.id, config.gateway, topic_("availability"),
                  "offline",
                  [this](const std::string& t, const std::string& p) {
                    MainQueue::main().async([this, t, p] { onMessage(t, p); });
                  },
                  nullptr);
    mqtt_->publish(topic_("gateway"), config.gateway, true);
    mqtt_->publish(topic_("availability"), "offline", true);
    publishDiscovery();
    mqtt_->subscribe(topic_.base + "/+/set");
    if (config.homeAssistant) mqtt_->subscribe(config.discoveryPrefix + "/status");
  }

  int run() {
    connectPost();
    housekeeping();
    client_->run();
    // Leaving: the post reads offline at once, not after the broker's keep-alive.
    mqtt_->publish(topic_("availability"), "offline", true);
    mqtt_->flush();
    client_->disconnect();
    return 0;
  }

 private:
  // The simulator's post stands for the configured one, in this process's radio.
  void simulate() {
    auto& radio = sim::SimRadio::shared();
    if (radio.posts().empty()) throw std::runtime_error("the simulator has no post");
    simPost_ = radio.posts().front();
    target_ = simPost_->identifier();
    sim::Faults& f = simPost_->faults();
    for (const auto& s : post_.simulate) {
      if (s == "mute") f.mute = true;
      if (s == "garbage") f.chunkSizes = {1, 3, 7};
      if (s == "fault") simPost_->model().raiseFault(sim::FaultOverCurrent);
    }
  }

  void housekeeping() {
    if (stopWanted) {
      log("stopping");
      client_->stop();
      return;
    }
    if (simPost_) {
      if (const int range = rangeWanted.exchange(0); range == 1) {
        log("simulated post out of range");
        simPost_->setAdvertising(false);
        simPost_->dropLink();
      } else if (range == 2) {
        log("simulated post back in range");
        simPost_->setAdvertising(true);
      }
    }
    const auto now = Clock::now();
    if (heartbeatFd_ >= 0 && now - lastBeat_ >= 1s) {
      lastBeat_ = now;
      [[maybe_unused]] const auto n = ::write(heartbeatFd_, "", 1);
    }
    if (online_ && !client_->ready()) goOffline("link lost");
    if (online_) pollDue(now);
    MainQueue::main().asyncAfter(kHousekeeping, [this] { housekeeping(); });
  }

  // ---- The link ----

  void connectPost() {
    connecting_ = true;
    client_->connect(target_, [this](const Outcome<ChargerClient::PeripheralPtr>& o) {
      connecting_ = false;
      if (!o.ok()) return retryLater(o.error().message);
      log("link ready");
      backoff_ = 1s;
      nextState_ = nextEnergy_ = nextHistory_ = Clock::now();
      pollState(true);
    });
  }

  void retryLater(const std::string& why) {
    if (stopWanted) return;
    retryPending_ = true;
    log("post not reachable (%s); next try in %llds", why.c_str(),
        static_cast<long long>(backoff_.count()));
    MainQueue::main().asyncAfter(backoff_, [this] {
      retryPending_ = false;
      connectPost();
    });
    backoff_ = std::min<std::chrono::seconds>(
        {backoff_ * 2, kMaxBackoff, std::max<std::chrono::seconds>(2 * config_.poll.state, 2s)});
  }

  void goOffline(const std::string& why) {
    if (stopWanted) return;  // leaving: run() says offline
    if (online_) {
      log("offline: %s", why.c_str());
      mqtt_->publish(topic_("availability"), "offline", true);
    }
    online_ = false;
    stateBusy_ = false;
    if (connecting_ || retryPending_) return;
    retryPending_ = true;  // the requests that disconnect() fails come back here
    client_->disconnect();
    retryLater(why);
  }

  // A request failed: a broken link takes the post offline; a garbled answer only loses
  // that reading.
  void failed(const ClientError& e) {
    if (e.kind == ClientErrorKind::Malformed) {
      log("unreadable answer: %s", e.message.c_str());
      return;
    }
    goOffline(std::string(describe(e.kind)) + ": " + e.message);
  }

  // ---- Reading ----

  void pollDue(Clock::time_point now) {
    if (now >= nextState_ && !stateBusy_) {
      nextState_ += config_.poll.state;
      if (nextState_ <= now) nextState_ = now + config_.poll.state;  // slipped
      pollState(false);
    }
    if (now >= nextEnergy_) {
      nextEnergy_ = now + config_.poll.energy;
      readInfo();
      client_->queryCumulativeEnergy([this](const Outcome<CumulativeEnergy>& o) {
        if (!o.ok()) return failed(o.error());
        publishValues("energy", energyValues(o.value()));
      });
    }
    if (now >= nextHistory_) {
      nextHistory_ = now + config_.poll.history;
      client_->queryHistory([this](const Outcome<ChargingHistory>& o) {
        if (!o.ok()) return failed(o.error());
        publishValues("sessions", sessionValues(o.value()));
      });
      client_->queryErrorLog([this](const Outcome<ErrorLog>& o) {
        if (!o.ok()) return failed(o.error());
        publishValues("errors", errorValues(o.value()));
      });
    }
  }

  void readInfo() {
    client_->querySystemInfo([this](const Outcome<SystemInfo>& o) {
      if (!o.ok()) return failed(o.error());
      publishValues("info", infoValues(o.value()));
    });
  }

  // The state answer carries the gun itself; the system information is read on
  // connection and with the energy.
  void pollState(bool first) {
    stateBusy_ = true;
    client_->queryChargerState([this, first](const Outcome<ChargerState>& o) {
      stateBusy_ = false;
      if (!o.ok()) return failed(o.error());
      publishValues("state", stateValues(o.value()));
      if (first || !online_) {
        online_ = true;
        log("online");
        mqtt_->publish(topic_("availability"), "online", true);
      }
    });
  }

  // The document on <base>/<name> and each scalar field on <base>/<field>.
  void publishValues(const char* name, Json values) {
    for (const auto& [key, value] : values.items()) {
      if (value.is_structured()) continue;
      mqtt_->publish(topic_(key), value.is_string() ? value.get<std::string>() : value.dump(), true);
    }
    Json document{{"gateway", config_.gateway}, {"post", post_.id}, {"time", utcNow()}};
    document.update(values);
    mqtt_->publish(topic_(name), document.dump(), true);
  }

  void publishDiscovery() {
    if (!config_.homeAssistant) return;
    for (const auto& [t, payload] : discoveryMessages(config_, post_))
      mqtt_->publish(t, payload, true, true);
  }

  // ---- Commands ----

  void onMessage(const std::string& t, const std::string& payload) {
    if (config_.homeAssistant && t == config_.discoveryPrefix + "/status") {
      if (payload == "online") publishDiscovery();
      return;
    }
    const std::string name = topic_.commandOf(t);
    if (name.empty()) return;
    const auto parsed = parseCommand(name, payload);
    if (const auto* error = std::get_if<CommandError>(&parsed))
      return result(name, Json{{"ok", false}, {"error", error->code}, {"message", error->message}});
    const Command& c = std::get<Command>(parsed);
    if (!online_)
      return result(name, Json{{"ok", false}, {"error", "offline"}, {"message", "the post is not reachable"}});
    auto done = [this, name](const Outcome<SettingResult>& o) {
      if (!o.ok()) {
        result(name, Json{{"ok", false}, {"error", "post"}, {"message", o.error().message}});
        return failed(o.error());
      }
      result(name, Json{{"ok", true}, {"accepted", o.value().accepted()}});
      if (name == "volume") readInfo();   // the volume topic follows at once
      if (!stateBusy_) pollState(false);  // and the state topic
    };
    switch (c.kind) {
      case CommandKind::Start: client_->startCharging(done); return;
      case CommandKind::Stop: client_->stopCharging(done); return;
      case CommandKind::Enable:
        if (c.value) client_->startCharging(done);
        else client_->stopCharging(done);
        return;
      case CommandKind::Volume: client_->setVolume(c.value, done); return;
      case CommandKind::Reserve:
        client_->reserve(c.startHour, c.startMinute, c.endHour, c.endMinute, done);
        return;
      case CommandKind::SyncTime: client_->synchroTime(done); return;
      case CommandKind::MaxCurrent:
        // The post chooses its current itself; the wish is taken and changes nothing.
        return result(name, Json{{"ok", true}, {"accepted", false}});
    }
  }

  void result(const std::string& command, Json outcome) {
    Json document{{"gateway", config_.gateway}, {"post", post_.id}, {"command", command}};
    document.update(outcome);
    mqtt_->publish(topic_("result"), document.dump(), false);
  }

  const BridgeConfig& config_;
  const PostSettings& post_;
  const PostTopics topic_;
  const int heartbeatFd_;
  std::optional<ChargerClient> client_;
  std::optional<Mqtt> mqtt_;
  std::shared_ptr<sim::VirtualPost> simPost_;
  std::string target_;  // what the client connects to
  bool connecting_ = false, retryPending_ = false, online_ = false, stateBusy_ = false;
  std::chrono::seconds backoff_{1};
  Clock::time_point nextState_, nextEnergy_, nextHistory_, lastBeat_;
};

}  // namespace

int runWorker(const BridgeConfig& config, const std::string& postId, const std::string& backend,
              int heartbeatFd) {
  const PostSettings& post = config.post(postId);
  setLogPrefix("post " + postId);
  const auto names = ble::backendNames();
  if (std::find(names.begin(), names.end(), backend) == names.end())
    throw std::runtime_error("unknown backend '" + backend + "'");
  std::signal(SIGTERM, [](int) { stopWanted = true; });
  std::signal(SIGINT, [](int) { stopWanted = true; });
  std::signal(SIGPIPE, SIG_IGN);
  if (backend == "sim") {
    std::signal(SIGUSR1, [](int) { rangeWanted = 1; });
    std::signal(SIGUSR2, [](int) { rangeWanted = 2; });
  }
  Worker worker(config, post, backend, heartbeatFd);
  return worker.run();
}

}  // namespace tqble::bridge
