// The client: link readiness, the request queue, time-outs and typed answers, on top of
// the manager's delegate, properties, answer observer and plain decoders.
#include "tqble/client/ChargerClient.h"

#include <algorithm>
#include <cctype>
#include <stdexcept>

#include "protocol/Frame.h"
#include "tqble/AnswerDecoding.h"
#include "tqble/ble/CentralManager.h"
#include "tqble/platform/Log.h"
#include "tqble/platform/MainQueue.h"

namespace tqble {
namespace {

using namespace std::chrono_literals;
using namespace protocol;  // command codes

// The manager asks for the system information this long after each connection.
constexpr auto kAutoQueryDelay = 3s;
// Pending-command tags the manager records (and its answer observer reports).
constexpr std::int64_t kSystemInfoTag = 2;

ClientError error(ClientErrorKind kind, std::string message, std::int64_t code = 0) {
  return ClientError{kind, code, std::move(message)};
}

bool sameText(const std::string& a, const std::string& b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

}  // namespace

const char* describe(ClientErrorKind kind) {
  switch (kind) {
    case ClientErrorKind::NotConnected:
      return "not connected";
    case ClientErrorKind::WriteFailed:
      return "write failed";
    case ClientErrorKind::TimedOut:
      return "timed out";
    case ClientErrorKind::LinkLost:
      return "link lost";
    case ClientErrorKind::Malformed:
      return "malformed answer";
    case ClientErrorKind::ConnectFailed:
      return "connection failed";
    case ClientErrorKind::NotFound:
      return "post not found";
  }
  return "error";
}

ChargerClient::ChargerClient(ClientOptions options)
    : options_(options), manager_(TQBleManager::shareManager()) {
  appDelegate_ = manager_->delegate();
  installDelegate();
  manager_->setDelegate(ownDelegate_);
  observer_ = manager_->addAnswerObserver(
      [this](std::int64_t tag, const Bytes& answer) { onAnswer(tag, answer); });
  onError_ = [](const ClientError& e) { TQLog("tqble client: %s", e.message.c_str()); };
}

ChargerClient::~ChargerClient() {
  manager_->removeAnswerObserver(observer_);
  manager_->setDelegate(appDelegate_);
}

void ChargerClient::after(std::chrono::milliseconds delay,
                          std::function<void(ChargerClient&)> task) {
  auto run = [alive = std::weak_ptr<bool>(alive_), this, task = std::move(task)] {
    if (alive.lock()) task(*this);
  };
  if (delay == 0ms) {
    MainQueue::main().async(std::move(run));
  } else {
    MainQueue::main().asyncAfter(delay, std::move(run));
  }
}

// Every call goes to the application's delegate first, exactly as the manager made it.
void ChargerClient::installDelegate() {
  ownDelegate_ = std::make_shared<TQBleManagerDelegate>();
  auto app = [this] { return appDelegate_.lock(); };
  ownDelegate_->tqbleManagerCenterState = [this, app](std::int64_t state) {
    if (auto d = app(); d && d->tqbleManagerCenterState) d->tqbleManagerCenterState(state);
    if (state == ble::CentralManagerStatePoweredOn && scanWanted_) manager_->scanForPeripherals();
  };
  ownDelegate_->didDiscoverPeripheral = [this, app](TQBleManager& m, const PeripheralPtr& p,
                                                    std::int64_t rssi) {
    if (auto d = app(); d && d->didDiscoverPeripheral) d->didDiscoverPeripheral(m, p, rssi);
    if (heard_) heard_(p, rssi);
    if (link_ == Link::Finding &&
        (wanted_.empty() || sameText(p->name(), wanted_) || sameText(p->identifier(), wanted_))) {
      if (!heard_) stopScan();
      peripheral_ = p;
      link_ = Link::Connecting;
      manager_->startConnectPeripheral(p);
    }
  };
  ownDelegate_->didConnectPeripheral = [this, app](TQBleManager& m, const PeripheralPtr& p) {
    if (auto d = app(); d && d->didConnectPeripheral) d->didConnectPeripheral(m, p);
    linkUp(p);
  };
  ownDelegate_->didDisconnectPeripheral = [this, app](TQBleManager& m, const PeripheralPtr& p,
                                                      const std::optional<TQError>& e) {
    if (auto d = app(); d && d->didDisconnectPeripheral) d->didDisconnectPeripheral(m, p, e);
    linkDown(e, false);
  };
  ownDelegate_->didFailToConnectPeripheral = [this, app](TQBleManager& m, const PeripheralPtr& p,
                                                         const std::optional<TQError>& e) {
    if (auto d = app(); d && d->didFailToConnectPeripheral) d->didFailToConnectPeripheral(m, p, e);
    linkDown(e, true);
  };
  ownDelegate_->didUpdateValueForCharacteristicValue =
      [this, app](TQBleManager& m, const std::shared_ptr<TQBleDataModel>& model,
                  const std::optional<TQError>& e) {
        if (auto d = app(); d && d->didUpdateValueForCharacteristicValue)
          d->didUpdateValueForCharacteristicValue(m, model, e);
        onUpdate();
      };
  ownDelegate_->didWriteValueForCharacteristic =
      [app](TQBleManager& m, const std::shared_ptr<ble::Characteristic>& c,
            const std::optional<TQError>& e) {
        if (auto d = app(); d && d->didWriteValueForCharacteristic)
          d->didWriteValueForCharacteristic(m, c, e);
      };
}

// ---- Link ----------------------------------------------------------------------------

void ChargerClient::startScanning() {
  scanWanted_ = true;
  // A scan asked for before the adapter is on starts when it reports powered on.
  if (manager_->centralManager()->state() == ble::CentralManagerStatePoweredOn)
    manager_->scanForPeripherals();
}

void ChargerClient::scan(Heard heard) {
  heard_ = std::move(heard);
  startScanning();
}

void ChargerClient::stopScan() {
  heard_ = nullptr;
  scanWanted_ = false;
  manager_->stopScan();
}

bool ChargerClient::beginConnect(Completion<PeripheralPtr>& done) {
  if (link_ != Link::Idle) {
    done(error(ClientErrorKind::ConnectFailed, "a link is already open or being opened"));
    return false;
  }
  connectDone_ = std::move(done);
  userClosed_ = false;
  reconnectsLeft_ = options_.reconnect.attempts;
  return true;
}

void ChargerClient::connect(const PeripheralPtr& peripheral, Completion<PeripheralPtr> done) {
  if (beginConnect(done)) startConnecting(peripheral);
}

void ChargerClient::connect(const std::string& nameOrIdentifier, Completion<PeripheralPtr> done) {
  if (!beginConnect(done)) return;
  wanted_ = nameOrIdentifier;
  link_ = Link::Finding;
  armConnectTimeout();
  startScanning();
}

void ChargerClient::startConnecting(const PeripheralPtr& peripheral) {
  peripheral_ = peripheral;
  link_ = Link::Connecting;
  armConnectTimeout();
  manager_->startConnectPeripheral(peripheral);
}

void ChargerClient::armConnectTimeout() {
  const auto attempt = ++attempt_;
  after(options_.connectTimeout, [attempt](ChargerClient& c) {
    if (c.attempt_ != attempt || c.link_ == Link::Ready || c.link_ == Link::Idle) return;
    const bool finding = c.link_ == Link::Finding;
    c.link_ = Link::Idle;
    if (finding) {
      c.stopScan();
    } else {
      c.manager_->stopConnectPeripheral(c.peripheral_, nullptr);
    }
    const auto e = finding
                       ? error(ClientErrorKind::NotFound,
                               (c.wanted_.empty() ? std::string("no post heard")
                                                  : "no post named '" + c.wanted_ + "' heard") +
                                   c.radioNote())
                       : error(ClientErrorKind::TimedOut, "the link did not become ready in time");
    c.connectDone(&e);
    c.failAll(e);  // requests kept for a reconnection that did not come
  });
}

// Why nothing could be heard when the radio is not on: no bluetoothd, no adapter, no
// access to the bus, or an adapter switched off.
std::string ChargerClient::radioNote() const {
  switch (manager_->centralManager()->state()) {
    case ble::CentralManagerStatePoweredOn:
      return "";
    case ble::CentralManagerStateUnsupported:
      return " (the radio is unsupported here: no Bluetooth daemon or adapter)";
    case ble::CentralManagerStateUnauthorized:
      return " (the radio is not authorized: access to the Bluetooth daemon denied)";
    case ble::CentralManagerStatePoweredOff:
      return " (the Bluetooth adapter is powered off)";
    default:
      return " (the radio is not ready)";
  }
}

void ChargerClient::linkUp(const PeripheralPtr& peripheral) {
  peripheral_ = peripheral;
  link_ = Link::Discovering;
  // Characteristics of an earlier link are stale; discovery stores this link's. Nothing
  // may be pending, so the post's first read is taken for no answer.
  manager_->setWriteCharacteristic(nullptr);
  manager_->setReadCharacteristic(nullptr);
  clearPending();
  holdForAutoQuery_ = true;
  autoQueryDue_ = false;
  const auto attempt = attempt_;
  after(std::chrono::duration_cast<std::chrono::milliseconds>(kAutoQueryDelay) + 1ms,
        [attempt](ChargerClient& c) {
          if (c.attempt_ != attempt || !c.holdForAutoQuery_) return;
          // The query went out if the link was there to take it; else the tag is left over.
          if (c.manager_->cmdType() == kSystemInfoTag && c.manager_->connectedPheral() &&
              c.manager_->writeCharacteristic()) {
            c.autoQueryDue_ = true;
            c.after(c.options_.requestTimeout, [attempt](ChargerClient& c) {
              if (c.attempt_ != attempt || !c.holdForAutoQuery_) return;
              c.clearPending();
              c.releaseHold();
            });
          } else {
            if (c.manager_->cmdType() == kSystemInfoTag) c.clearPending();
            c.releaseHold();
          }
        });
}

void ChargerClient::releaseHold() {
  holdForAutoQuery_ = false;
  autoQueryDue_ = false;
  pump();
}

void ChargerClient::linkDown(const std::optional<TQError>& platformError, bool failed) {
  const Link was = link_;
  link_ = Link::Idle;
  holdForAutoQuery_ = false;
  // Whatever was pending belongs to the lost link; left there, it would take the next
  // link's first read for its answer.
  clearPending();
  if (inFlight_) {
    const auto e = error(ClientErrorKind::LinkLost, "the link went down before the answer");
    complete(&e);
  }
  if (was == Link::Idle || userClosed_) return;
  if (reconnectsLeft_ > 0) {
    --reconnectsLeft_;
    link_ = Link::Connecting;
    ++attempt_;
    after(options_.reconnect.delay, [attempt = attempt_](ChargerClient& c) {
      if (c.attempt_ == attempt && c.link_ == Link::Connecting) c.startConnecting(c.peripheral_);
    });
    return;
  }
  const std::string why = platformError ? " (" + platformError->domain + ")" : std::string();
  const auto e = failed ? error(ClientErrorKind::ConnectFailed, "the connection failed" + why)
                        : error(ClientErrorKind::LinkLost, "the link went down" + why);
  if (connectDone_) connectDone(&e);
  failAll(e);
}

void ChargerClient::connectDone(const ClientError* e) {
  if (!connectDone_) return;
  auto done = std::move(connectDone_);
  connectDone_ = nullptr;
  if (e) {
    failAll(*e);
    done(*e);
  } else {
    done(peripheral_);
  }
}

void ChargerClient::disconnect() {
  userClosed_ = true;
  reconnectsLeft_ = 0;
  ++attempt_;
  const Link was = link_;
  link_ = Link::Idle;
  holdForAutoQuery_ = false;
  clearPending();
  const auto e = error(ClientErrorKind::NotConnected, "disconnected");
  if (inFlight_) complete(&e);
  failAll(e);
  if (was == Link::Finding) stopScan();
  if (was != Link::Idle && was != Link::Finding)
    manager_->stopConnectPeripheral(peripheral_, nullptr);
  connectDone(&e);
}

// ---- Requests ------------------------------------------------------------------------

template <typename T>
void ChargerClient::enqueue(std::int64_t tag, std::uint8_t code, Issue issue,
                            std::function<T(const Bytes&)> value, Completion<T> done) {
  Request request{
      tag, code, std::move(issue),
      [value = std::move(value), done = std::move(done)](const Bytes& answer,
                                                         const ClientError* e) {
        if (!done) return;
        if (e) return done(*e);
        std::optional<Outcome<T>> outcome;
        try {
          outcome.emplace(value(answer));
        } catch (const std::out_of_range& range) {
          outcome.emplace(error(ClientErrorKind::Malformed,
                                std::string("the answer could not be decoded: ") + range.what()));
        }
        done(*outcome);
      }};
  if (link_ == Link::Idle) {
    // Nothing to wait for: fail on the queue, as every other outcome arrives.
    after(0ms, [request = std::move(request)](ChargerClient&) {
      const auto e = error(ClientErrorKind::NotConnected, "not connected");
      request.finish({}, &e);
    });
    return;
  }
  queue_.push_back(std::move(request));
  pump();
}

void ChargerClient::pump() {
  after(0ms, [](ChargerClient& c) { c.writeNext(); });
}

void ChargerClient::writeNext() {
  if (link_ != Link::Ready || holdForAutoQuery_ || inFlight_ || queue_.empty()) return;
  inFlight_ = true;
  answer_.reset();
  stale_ = false;
  const auto generation = ++generation_;
  auto refused = std::make_shared<std::optional<TQError>>();
  queue_.front().issue(*manager_, [refused](const TQError& e) { *refused = e; });
  if (*refused) {
    clearPending();
    const auto e =
        error(ClientErrorKind::WriteFailed,
              "write failed (" + std::to_string((*refused)->code) + "): " + (*refused)->domain,
              (*refused)->code);
    complete(&e);
    return;
  }
  after(options_.requestTimeout, [generation](ChargerClient& c) {
    if (!c.inFlight_ || c.generation_ != generation) return;
    c.clearPending();
    const auto e = error(ClientErrorKind::TimedOut, "no whole answer in time");
    c.complete(&e);
  });
}

void ChargerClient::complete(const ClientError* e) {
  Request request = std::move(queue_.front());
  queue_.pop_front();
  inFlight_ = false;
  const Bytes answer = answer_.value_or(Bytes{});
  answer_.reset();
  pump();
  request.finish(answer, e);
}

// Fails every waiting request; a running one ends by its own path.
void ChargerClient::failAll(const ClientError& e) {
  std::deque<Request> waiting;
  while (queue_.size() > (inFlight_ ? 1u : 0u)) {
    waiting.push_back(std::move(queue_.back()));
    queue_.pop_back();
  }
  while (!waiting.empty()) {
    Request request = std::move(waiting.back());
    waiting.pop_back();
    request.finish({}, &e);
  }
}

void ChargerClient::clearPending() {
  manager_->setCmdType(0);
  manager_->setSystemInfoData(std::nullopt);
}

void ChargerClient::onAnswer(std::int64_t tag, const Bytes& answer) {
  if (autoQueryDue_ && tag == kSystemInfoTag && !inFlight_) autoAnswered_ = true;
  if (!inFlight_ || tag != queue_.front().tag) return;
  // Bytes left over from an answer that came too late are no answer to this request.
  if (!startsFrame(answer, queue_.front().code)) {
    stale_ = true;
    return;
  }
  answer_ = answer;
}

void ChargerClient::onUpdate() {
  if (link_ == Link::Discovering && manager_->writeCharacteristic() &&
      manager_->readCharacteristic()) {
    link_ = Link::Ready;
    connectDone(nullptr);
    pump();
  }
  if (autoAnswered_) {
    autoAnswered_ = false;
    releaseHold();
  }
  if (!inFlight_) return;
  if (stale_) {
    // The manager took them for the answer and stopped waiting: wait again.
    stale_ = false;
    manager_->setCmdType(queue_.front().tag);
    manager_->setSystemInfoData(std::nullopt);
  } else if (answer_) {
    complete(nullptr);
  }
}

void ChargerClient::onRangeError(const std::out_of_range& range) {
  // The manager's decoder gave up on the answer it was dispatching: nothing was reset.
  clearPending();
  const auto e = error(ClientErrorKind::Malformed,
                       std::string("the answer could not be decoded: ") + range.what());
  if (inFlight_ && answer_) {
    complete(&e);
    return;
  }
  if (inFlight_ && stale_) {
    // Left-over bytes, not the running request's answer: it goes on waiting.
    stale_ = false;
    manager_->setCmdType(queue_.front().tag);
  }
  if (onError_) onError_(e);
}

// Each command with the tag it records and how its answer becomes a value.
void ChargerClient::synchroTime(Completion<SettingResult> done) {
  enqueue<SettingResult>(1, kCmdSynchroTime, &TQBleManager::synchroTimeWithError, settingResult(),
                         std::move(done));
}

void ChargerClient::querySystemInfo(Completion<SystemInfo> done) {
  enqueue<SystemInfo>(
      kSystemInfoTag, kCmdSystemInfo, &TQBleManager::querySystemInfoWithError,
      [this](const Bytes&) {
        SystemInfo info;
        const auto& rows = manager_->systemTitleArr();
        for (std::size_t i = 0; i < info.size() && i < rows.size(); ++i) {
          info[i] = {rows[i]->title.value_or(""), rows[i]->content.value_or("")};
        }
        return info;
      },
      std::move(done));
}

void ChargerClient::setVolume(std::int64_t volume, Completion<SettingResult> done) {
  enqueue<SettingResult>(
      3, kCmdVolume,
      [volume](TQBleManager& m, const TQErrorHandler& e) { m.setVolumeWithVolumeSize(volume, e); },
      settingResult(), std::move(done));
}

void ChargerClient::reserve(std::int64_t startHour, std::int64_t startMinute, std::int64_t endHour,
                            std::int64_t endMinute, Completion<SettingResult> done) {
  enqueue<SettingResult>(
      4, kCmdOrder,
      [=](TQBleManager& m, const TQErrorHandler& e) {
        m.orderChargerWithStartHour(startHour, startMinute, endHour, endMinute, e);
      },
      settingResult(), std::move(done));
}

void ChargerClient::startCharging(Completion<SettingResult> done) {
  enqueue<SettingResult>(5, kCmdStartCharging, &TQBleManager::startChargingWithError,
                         settingResult(), std::move(done));
}

void ChargerClient::queryChargerState(Completion<ChargerState> done) {
  enqueue<ChargerState>(6, kCmdChargerState, &TQBleManager::queryChargerStateWithError,
                        chargerState(), std::move(done));
}

void ChargerClient::stopCharging(Completion<SettingResult> done) {
  enqueue<SettingResult>(
      7, kCmdStopCharge, &TQBleManager::stopChargeWithError,
      [](const Bytes& answer) { return SettingResult{decode::setResult(answer).resultType}; },
      std::move(done));
}

void ChargerClient::queryChargingData(Completion<ChargerState> done) {
  enqueue<ChargerState>(6, kCmdChargerState, &TQBleManager::queryChargingDataWithError,
                        chargerState(), std::move(done));
}

void ChargerClient::queryHistory(Completion<ChargingHistory> done) {
  enqueue<ChargingHistory>(8, kCmdHistory, &TQBleManager::queryHistoryChargingListWithError,
                           &decode::chargingHistory, std::move(done));
}

void ChargerClient::queryCumulativeEnergy(Completion<CumulativeEnergy> done) {
  enqueue<CumulativeEnergy>(
      9, kCmdCumulation, &TQBleManager::queryCumulationElecQuantityWithError,
      [](const Bytes& answer) { return CumulativeEnergy{decode::cumulativeEnergy(answer)}; },
      std::move(done));
}

void ChargerClient::queryErrorLog(Completion<ErrorLog> done) {
  enqueue<ErrorLog>(15, kCmdErrorLog, &TQBleManager::queryHistoryErrorLogListWithError,
                    &decode::errorLog, std::move(done));
}

void ChargerClient::queryDiagnostics(Completion<TQBleRunDiagnosticInfo> done) {
  enqueue<TQBleRunDiagnosticInfo>(13, kCmdDiagnosis, &TQBleManager::runningDiagnosticInfoWithError,
                                  &decode::runningDiagnosis, std::move(done));
}

// The manager's own result of the acknowledgement it just decoded.
std::function<SettingResult(const Bytes&)> ChargerClient::settingResult() {
  return [this](const Bytes&) {
    const auto& result = manager_->dataModel()->result;
    if (!result) throw std::out_of_range("no setting result");
    return SettingResult{result->resultType};
  };
}

std::function<ChargerState(const Bytes&)> ChargerClient::chargerState() {
  return [this](const Bytes&) {
    const auto& data = manager_->dataModel()->chargingData;
    if (!data) throw std::out_of_range("no charger state");
    return ChargerState{*data};
  };
}

// ---- Run loop ------------------------------------------------------------------------

void ChargerClient::run() {
  stopped_ = false;
  for (;;) {
    try {
      MainQueue::main().run();
      return;
    } catch (const std::out_of_range& range) {
      onRangeError(range);
      if (stopped_) return;
    }
  }
}

bool ChargerClient::runUntil(const std::function<bool()>& done, std::chrono::milliseconds limit) {
  MainQueue& queue = MainQueue::main();
  const auto deadline = queue.now() + limit;
  for (;;) {
    try {
      return queue.runUntil(done, std::max(deadline - queue.now(), MainQueue::Duration::zero()));
    } catch (const std::out_of_range& range) {
      onRangeError(range);
    }
  }
}

int ChargerClient::eventFd() {
  return MainQueue::main().eventFd();
}

std::size_t ChargerClient::dispatch() {
  std::size_t count = 0;
  for (;;) {
    try {
      return count + MainQueue::main().dispatch();
    } catch (const std::out_of_range& range) {
      ++count;
      onRangeError(range);
    }
  }
}

void ChargerClient::stop() {
  stopped_ = true;
  MainQueue::main().stop();
}

}  // namespace tqble
