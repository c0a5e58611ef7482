// `tqble demo`: a scripted session against the virtual charging post, on real time with
// short radio latencies. Each step shows the request frame, the post's answer and what
// the SDK made of it; the SDK's own log lines are indented (or hidden with --quiet).
#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "Subcommands.h"
#include "tqble/AnswerDecoding.h"
#include "tqble/TQBleManager.h"
#include "tqble/platform/Log.h"
#include "CommandCatalogue.h"
#include "tqble/platform/MainQueue.h"
#include "tqble/sim/SimRadio.h"

namespace tqble::cli {
namespace {

using namespace std::chrono_literals;

const char* shown(const OptionalText& t) { return t ? t->c_str() : "(none)"; }

class Demo {
 public:
  explicit Demo(bool quiet) {
    setLogSink([quiet](std::string_view line) {
      if (!quiet) std::printf("        · %.*s\n", static_cast<int>(line.size()), line.data());
    });
    auto& radio = sim::SimRadio::shared();
    auto& t = radio.timing();
    t.firstAdvertisement = 20ms;
    t.advertisingInterval = 200ms;
    t.connect = 30ms;
    t.discovery = 5ms;
    t.read = 3ms;
    t.answer = 5ms;
    t.notificationGap = 1ms;
    post_ = radio.addPost();
    // Some past life, so the history and the error log have something to show.
    auto& model = post_->model();
    model.addHistory({998, 12'400, 1'699'900'000, 1'699'907'200, 7200});
    model.addError({1'699'800'000, 8});
    model.addError({1'699'850'000, 1});

    manager_ = TQBleManager::shareManager();
    delegate_ = std::make_shared<TQBleManagerDelegate>();
    delegate_->tqbleManagerCenterState = [this](std::int64_t state) { state_ = state; };
    delegate_->didDiscoverPeripheral = [this](TQBleManager&, const auto& p, std::int64_t rssi) {
      if (!found_) {
        found_ = p;
        rssi_ = rssi;
      }
    };
    delegate_->didConnectPeripheral = [this](TQBleManager&, const auto&) { connected_ = true; };
    delegate_->didDisconnectPeripheral = [this](TQBleManager&, const auto&, const auto&) { connected_ = false; };
    delegate_->didUpdateValueForCharacteristicValue = [this](TQBleManager&, const auto& model, const auto&) {
      ++updates_;
      if (model->result || model->chargingData) lastModel_ = model;
    };
    manager_->setDelegate(delegate_);
    answerToken_ =
        manager_->addAnswerObserver([this](std::int64_t, const Bytes& answer) { answer_ = answer; });
  }

  ~Demo() {
    manager_->removeAnswerObserver(answerToken_);  // the manager outlives this script
    setLogSink(nullptr);
  }

  void run() {
    section("Adapter");
    waitFor([this] { return state_ == ble::CentralManagerStatePoweredOn; }, 1s, "the adapter state");
    std::printf("  adapter state %lld (powered on)\n", static_cast<long long>(state_));

    section("Scan");
    manager_->scanForPeripherals();
    waitFor([this] { return found_ != nullptr; }, 2s, "an advertising post");
    manager_->stopScan();
    std::printf("  heard %s (%s), RSSI %lld dBm\n", found_->name().c_str(), found_->identifier().c_str(),
                static_cast<long long>(rssi_));

    section("Connect");
    manager_->startConnectPeripheral(found_);
    waitFor([this] { return connected_ && manager_->writeCharacteristic() && manager_->readCharacteristic(); },
            2s, "the connection and discovery");
    std::printf("  connected; write characteristic %s, read characteristic %s\n",
                manager_->writeCharacteristic()->uuid().UUIDString().c_str(),
                manager_->readCharacteristic()->uuid().UUIDString().c_str());

    section("System information (asked by the SDK 3 s after connecting)");
    answer_.reset();
    waitFor([this] { return answer_.has_value(); }, 5s, "the system information");
    showExchange();
    for (const auto& row : manager_->systemTitleArr()) {
      std::printf("  %s%s\n", padded(shown(row->title), 28).c_str(), shown(row->content));
    }

    section("Time synchronisation");
    exchange([](TQBleManager& m) { m.synchroTimeWithError(nullptr); });
    showResult();
    std::printf("  post clock now %lld\n", static_cast<long long>(post_->model().clock()));

    section("Volume 35");
    exchange([](TQBleManager& m) { m.setVolumeWithVolumeSize(35, nullptr); });
    showResult();

    section("Reservation 22:30 to 06:00");
    exchange([](TQBleManager& m) { m.orderChargerWithStartHour(22, 30, 6, 0, nullptr); });
    showResult();

    section("Start charging");
    std::printf("  (a car is plugged in; the post's time runs 60 times faster from here)\n");
    post_->model().setTimeScale(60);
    post_->model().plugIn();
    exchange([](TQBleManager& m) { m.startChargingWithError(nullptr); });
    showResult();

    for (int i = 1; i <= 3; ++i) {
      MainQueue::main().runFor(400ms);
      section("Charger state, read " + std::to_string(i));
      exchange([](TQBleManager& m) { m.queryChargerStateWithError(nullptr); });
      showCharging();
    }

    section("Stop charging");
    exchange([](TQBleManager& m) { m.stopChargeWithError(nullptr); });
    showResult();

    section("Charging history");
    exchange([](TQBleManager& m) { m.queryHistoryChargingListWithError(nullptr); });
    for (const auto& e : decode::chargingHistory(*answer_)) {
      std::printf("  session %s: %llu Wh, %s to %s, %llu s\n", shown(e.serialNumber),
                  static_cast<unsigned long long>(e.elecQuantity), shown(e.startTime), shown(e.endTime),
                  static_cast<unsigned long long>(e.duration));
    }

    section("Cumulative energy");
    exchange([](TQBleManager& m) { m.queryCumulationElecQuantityWithError(nullptr); });
    std::printf("  %d Wh delivered over the post's life\n", decode::cumulativeEnergy(*answer_));

    section("Error log");
    exchange([](TQBleManager& m) { m.queryHistoryErrorLogListWithError(nullptr); });
    for (const auto& e : decode::errorLog(*answer_)) {
      std::printf("  %s  error code %llu\n", shown(e.date), static_cast<unsigned long long>(e.errorCode));
    }

    section("Running diagnostics");
    exchange([](TQBleManager& m) { m.runningDiagnosticInfoWithError(nullptr); });
    const auto d = decode::runningDiagnosis(*answer_);
    std::printf("  charge state %s, errors %s, mains %s, rating %s\n", shown(d.chargeState), shown(d.errorInfo),
                shown(d.voltage), shown(d.elec));
    std::printf("  start mode %lld at %s, network %s, meter %s, firmware %s\n",
                static_cast<long long>(d.startMode), shown(d.startTime), shown(d.netConnectState),
                shown(d.ammeterState), shown(d.versionNum));

    section("Disconnect");
    manager_->stopConnectPeripheral(manager_->connectedPheral(), nullptr);
    waitFor([this] { return !connected_; }, 1s, "the disconnection");
    std::printf("  disconnected; %d value updates reached the delegate in all\n", updates_);
  }

 private:
  static void section(const std::string& title) { std::printf("\n== %s\n", title.c_str()); }

  static void waitFor(const std::function<bool()>& done, MainQueue::Duration limit, const char* what) {
    if (!MainQueue::main().runUntil(done, limit)) {
      throw std::runtime_error(std::string("the virtual post did not deliver ") + what + " in time");
    }
  }

  // Issues one command and runs the queue until its whole answer was dispatched.
  void exchange(void (*issue)(TQBleManager&)) {
    answer_.reset();
    lastModel_.reset();
    issue(*manager_);
    waitFor([this] { return answer_.has_value() && manager_->cmdType() == 0; }, 2s, "an answer");
    showExchange();
  }

  void showExchange() const {
    std::printf("  sent     %s\n", spacedHex(post_->receivedWrites().back()).c_str());
    std::printf("  answer   %s\n", spacedHex(*answer_).c_str());
  }

  void showResult() const {
    if (!lastModel_ || !lastModel_->result) return;
    std::printf("  result   %s\n", lastModel_->result->resultType == 0 ? "accepted" : "refused");
  }

  void showCharging() const {
    if (!lastModel_ || !lastModel_->chargingData) return;
    const auto& c = *lastModel_->chargingData;
    std::printf("  %s, session %s: %llu Wh, %.1f V, %.1f A, %llu s\n", shown(c.gunStatus), shown(c.serialNumber),
                static_cast<unsigned long long>(c.elecQuantity), c.voltage / 10.0, c.electric / 10.0,
                static_cast<unsigned long long>(c.duration));
  }

  std::shared_ptr<sim::VirtualPost> post_;
  std::shared_ptr<TQBleManager> manager_;
  std::uint64_t answerToken_ = 0;
  std::shared_ptr<TQBleManagerDelegate> delegate_;
  std::int64_t state_ = ble::CentralManagerStateUnknown;
  std::shared_ptr<ble::Peripheral> found_;
  std::int64_t rssi_ = 0;
  bool connected_ = false;
  int updates_ = 0;
  std::shared_ptr<TQBleDataModel> lastModel_;
  std::optional<Bytes> answer_;
};

}  // namespace

int runDemo(const std::vector<std::string>& args) {
  bool quiet = false;
  for (const auto& arg : args) {
    if (arg == "--quiet") {
      quiet = true;
    } else {
      const bool help = arg == "--help";
      std::fputs("usage: tqble demo [--quiet]\n  A scripted session against a simulated post; --quiet hides the SDK's log.\n",
                 help ? stdout : stderr);
      return help ? 0 : 2;
    }
  }
  if (!TQBleManager::useBackend("sim")) throw std::runtime_error("the manager already exists");
  Demo demo(quiet);
  demo.run();
  std::printf("\ndone.\n");
  return 0;
}

}  // namespace tqble::cli
