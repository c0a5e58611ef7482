// The client: link readiness, the request queue, time-outs and typed answers, on top of
// the manager's delegate, properties, answer observer and plain decoders.
#include "tqble/client/ChargerClient.h"

#include <algorithm>
#include <cctype>
#include <stdexcept>

#include "protocol/Frame.h"
#include "protocol/FrameAssembler.h"
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
// Requests are not written this close before that query, so that none is still waiting
// for its answer when the query goes out.
constexpr auto kQuietBeforeAutoQuery = 250ms;
// Pending-command tags the manager records.
constexpr std::int64_t kSystemInfoTag = 2;
// The manager's system-information rows: it appends the ten again on every answer.
constexpr std::size_t kInfoRows = 10;
// A connection BlueZ refused for a passing reason is asked again after this long.
constexpr auto kRetryDelay = 200ms;

ClientError error(ClientErrorKind kind, std::string message, std::int64_t code = 0) {
  return ClientError{kind, code, std::move(message), {}};
}

std::string userText(const std::optional<TQError>& e, const char* key) {
  if (!e) return "";
  const auto it = e->userInfo.find(key);
  const auto* text = it == e->userInfo.end() ? nullptr : std::get_if<std::string>(&it->second);
  return text ? *text : "";
}

// BlueZ's refusals that the next attempt usually does not meet: the controller dropped
// the attempt itself, or another one is under way.
bool passing(const std::optional<TQError>& e) {
  return userText(e, "name") == "org.bluez.Error.InProgress" ||
         userText(e, "message").find("le-connection-abort-by-local") != std::string::npos;
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
    case ClientErrorKind::Cancelled:
      return "cancelled";
  }
  return "error";
}

ChargerClient::ChargerClient(ClientOptions options)
    : options_(options),
      manager_(TQBleManager::shareManager()),
      frames_(std::make_unique<protocol::FrameAssembler>()) {
  appDelegate_ = manager_->delegate();
  installDelegate();
  manager_->setDelegate(ownDelegate_);
  onError_ = [](const ClientError& e) { TQLog("tqble client: %s", e.message.c_str()); };
}

ChargerClient::~ChargerClient() {
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
    onRadioState(state);
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
      attemptOpen_ = true;
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
        onUpdate(e.has_value());
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
  established_ = false;
  retriesLeft_ = options_.connectRetries;
  reconnectsLeft_ = options_.reconnect.attempts;
  reconnects_ = 0;
  report(LinkEvent::Connecting);
  return true;
}

Pending<ChargerClient::PeripheralPtr> ChargerClient::connect(const PeripheralPtr& peripheral,
                                                              Completion<PeripheralPtr> done) {
  Pending<PeripheralPtr> pending;
  done = track(pending, 0, std::move(done));
  if (beginConnect(done)) startConnecting(peripheral);
  return pending;
}

Pending<ChargerClient::PeripheralPtr> ChargerClient::connect(const std::string& nameOrIdentifier,
                                                              Completion<PeripheralPtr> done) {
  Pending<PeripheralPtr> pending;
  done = track(pending, 0, std::move(done));
  if (!beginConnect(done)) return pending;
  wanted_ = nameOrIdentifier;
  link_ = Link::Finding;
  armConnectTimeout();
  startScanning();
  return pending;
}

void ChargerClient::startConnecting(const PeripheralPtr& peripheral) {
  peripheral_ = peripheral;
  link_ = Link::Connecting;
  attemptOpen_ = true;
  retriesLeft_ = options_.connectRetries;  // for each attempt of the reconnection policy too
  armConnectTimeout();
  manager_->startConnectPeripheral(peripheral);
}

void ChargerClient::armConnectTimeout() {
  const auto attempt = ++attempt_;
  after(options_.connectTimeout, [attempt](ChargerClient& c) {
    if (c.attempt_ != attempt || c.link_ == Link::Ready || c.link_ == Link::Idle) return;
    const bool finding = c.link_ == Link::Finding;
    const std::string attributes = finding ? "" : c.attributeNote();  // before the link goes
    c.link_ = Link::Idle;
    c.attemptOpen_ = false;
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
                       : error(ClientErrorKind::TimedOut,
                               "the link did not become ready in time" + attributes);
    if (c.established_) return c.reconnectOrClose(e);
    c.connectDone(&e);
    c.failAll(e);
    c.report(LinkEvent::Closed, 0, e);
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

// Why discovery found no usable attributes: the post names them in lower case, and they
// are looked up by the upper-case names only.
std::string ChargerClient::attributeNote() const {
  if (!peripheral_) return "";
  std::string lower;
  auto note = [&lower](const std::string& id) {
    std::string upper = id;
    for (char& ch : upper) ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
    if (upper != id && (upper == "FFF0" || upper == "FFF3" || upper == "FFF4"))
      lower += (lower.empty() ? "" : ", ") + id;
  };
  for (const auto& service : peripheral_->services()) {
    note(service->uuid().UUIDString());
    for (const auto& characteristic : service->characteristics())
      note(characteristic->uuid().UUIDString());
  }
  return lower.empty() ? "" : " (the post names its attributes in lower case: " + lower + ")";
}

void ChargerClient::linkUp(const PeripheralPtr& peripheral) {
  peripheral_ = peripheral;
  link_ = Link::Discovering;
  attemptOpen_ = false;
  // Characteristics of an earlier link are stale; discovery stores this link's. Nothing
  // may be pending, so the post's first read is taken for no answer.
  manager_->setWriteCharacteristic(nullptr);
  manager_->setReadCharacteristic(nullptr);
  clearPending();
  frames_->reset();
  owed_.clear();
  // The manager's query is due at the same moment as this task, queued just after it.
  managerQueries_.push_back(MainQueue::main().now() + kAutoQueryDelay);
  after(kAutoQueryDelay, [](ChargerClient& c) {
    // A timer due now runs behind the manager's, which is already queued for this moment.
    MainQueue::main().asyncAfter(0ns, [alive = std::weak_ptr<bool>(c.alive_), &c] {
      if (alive.lock()) c.managerQueryRan();
    });
  });
}

// Runs right after one of the manager's own queries: whether it went out on the link that
// stands now decides what is owed.
void ChargerClient::managerQueryRan() {
  managerQueries_.pop_front();
  const bool written = manager_->cmdType() == kSystemInfoTag && manager_->connectedPheral() &&
                       manager_->writeCharacteristic() &&
                       (link_ == Link::Ready || link_ == Link::Discovering);
  if (!written) {
    if (manager_->cmdType() == kSystemInfoTag) clearPending();
    return settleAutoQuery();
  }
  owed_.push_back({kCmdSystemInfo, 0});
  autoOwed_ = true;
  const auto attempt = attempt_;
  after(options_.requestTimeout, [attempt](ChargerClient& c) {
    if (c.attempt_ != attempt || !c.autoOwed_) return;
    std::erase_if(c.owed_, [](const Owed& o) { return o.owner == 0; });
    if (c.manager_->cmdType() == kSystemInfoTag) c.clearPending();
    c.settleAutoQuery();
  });
}

void ChargerClient::settleAutoQuery() {
  autoOwed_ = false;
  trimRows();
  pump();
}

// The manager appends its ten rows again on every system answer; only the last ten show.
void ChargerClient::trimRows() {
  auto& rows = manager_->systemInfoModelList();
  if (rows.size() > kInfoRows)
    rows.erase(rows.begin(), rows.end() - static_cast<std::ptrdiff_t>(kInfoRows));
}

bool ChargerClient::holding() const {
  return autoOwed_ || (!managerQueries_.empty() &&
                       MainQueue::main().now() + kQuietBeforeAutoQuery >= managerQueries_.front());
}

void ChargerClient::onRadioState(std::int64_t state) {
  if (state != ble::CentralManagerStatePoweredOn) {
    // The stack drops its links silently when the adapter goes: the link is lost.
    if (link_ == Link::Discovering || link_ == Link::Ready)
      linkDown(TQError{radioNote().substr(2, radioNote().size() - 3), 0, {}}, false);
    return;
  }
  if (scanWanted_) manager_->scanForPeripherals();
  if (reconnectOnPower_ && link_ == Link::Connecting) {
    reconnectOnPower_ = false;
    startConnecting(peripheral_);
  }
}

void ChargerClient::linkDown(const std::optional<TQError>& platformError, bool failed) {
  const Link was = link_;
  // The answer to an attempt abandoned by its time-out, or to a closed link.
  if (was == Link::Idle || (was == Link::Connecting && !attemptOpen_)) return;
  attemptOpen_ = false;
  if (failed && was == Link::Connecting && !userClosed_ && retriesLeft_ > 0 &&
      passing(platformError)) {
    // Asked again within the same connect time-out.
    --retriesLeft_;
    after(kRetryDelay, [attempt = attempt_](ChargerClient& c) {
      if (c.attempt_ != attempt || c.link_ != Link::Connecting) return;
      c.attemptOpen_ = true;
      c.manager_->startConnectPeripheral(c.peripheral_);
    });
    return;
  }
  link_ = Link::Idle;
  autoOwed_ = false;
  ++attempt_;  // the lost link's timers
  // Whatever was pending belongs to the lost link; left there, it would take the next
  // link's first read for its answer.
  clearPending();
  frames_->reset();
  owed_.clear();
  if (inFlight_) {
    const auto e = error(ClientErrorKind::LinkLost, "the link went down before the answer");
    complete({}, &e);
  }
  if (userClosed_) return;
  const std::string why = platformError ? " (" + platformError->domain + ")" : std::string();
  auto e = failed ? error(ClientErrorKind::ConnectFailed, "the connection failed" + why)
                  : error(ClientErrorKind::LinkLost, "the link went down" + why);
  e.stackError = userText(platformError, "name");
  if (was == Link::Discovering || was == Link::Ready) report(LinkEvent::Lost, 0, e);
  if (established_) return reconnectOrClose(e);
  if (connectDone_) connectDone(&e);
  failAll(e);
  report(LinkEvent::Closed, 0, e);
}

// After a lost link or a failed attempt to bring it back: the policy's next attempt, after
// a wait that doubles each time, or the end of the link.
void ChargerClient::reconnectOrClose(const ClientError& why) {
  if (reconnectsLeft_ <= 0) {
    link_ = Link::Idle;
    failAll(why);
    return report(LinkEvent::Closed, 0, why);
  }
  --reconnectsLeft_;
  const int n = ++reconnects_;
  auto delay = options_.reconnect.delay;
  for (int i = 1; i < n && delay < options_.reconnect.maxDelay; ++i) delay *= 2;
  link_ = Link::Connecting;
  ++attempt_;
  after(std::min(delay, options_.reconnect.maxDelay), [attempt = attempt_, n](ChargerClient& c) {
    if (c.attempt_ != attempt || c.link_ != Link::Connecting) return;
    c.report(LinkEvent::Reconnecting, n);
    if (c.manager_->centralManager()->state() == ble::CentralManagerStatePoweredOn) {
      c.startConnecting(c.peripheral_);
    } else {
      c.reconnectOnPower_ = true;  // when the adapter is back
    }
  });
}

void ChargerClient::report(LinkEvent event, int attempt, std::optional<ClientError> reason) {
  if (onLink_) onLink_(LinkChange{event, attempt, std::move(reason)});
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
  attemptOpen_ = false;
  autoOwed_ = false;
  reconnectOnPower_ = false;
  clearPending();
  frames_->reset();
  owed_.clear();
  const auto e = error(ClientErrorKind::NotConnected, "disconnected");
  if (inFlight_) complete({}, &e);
  failAll(e);
  if (was == Link::Finding) stopScan();
  if (was != Link::Idle && was != Link::Finding)
    manager_->stopConnectPeripheral(peripheral_, nullptr);
  connectDone(&e);
  if (was != Link::Idle) report(LinkEvent::Closed);
}

// ---- Requests ------------------------------------------------------------------------

// The handle's view of the request: ended once its completion runs, outcome kept.
template <typename T>
Completion<T> ChargerClient::track(Pending<T>& pending, std::uint64_t id, Completion<T> done) {
  pending.client_ = this;
  pending.alive_ = alive_;
  pending.id_ = id;
  pending.ended_ = std::make_shared<bool>(false);
  return [slot = pending.slot_, ended = pending.ended_, done = std::move(done)](const Outcome<T>& o) {
    *ended = true;
    slot->emplace(o);
    if (done) done(o);
  };
}

bool RequestHandle::cancel() {
  if (ended() || !alive_.lock()) return false;
  if (id_ != 0) return client_->cancelRequest(id_);
  client_->disconnect();
  return true;
}

void RequestHandle::setTimeout(std::chrono::milliseconds timeout) {
  if (!ended() && id_ != 0 && alive_.lock()) client_->retime(id_, timeout);
}

bool ChargerClient::cancelRequest(std::uint64_t id) {
  const auto it = std::find_if(queue_.begin(), queue_.end(),
                               [id](const Request& r) { return r.id == id; });
  if (it == queue_.end()) return false;
  const auto e = error(ClientErrorKind::Cancelled, "cancelled");
  if (it == queue_.begin() && inFlight_) {
    endRunning(e);
    return true;
  }
  Request request = std::move(*it);
  queue_.erase(it);
  after(0ms, [request = std::move(request), e](ChargerClient&) { request.finish({}, &e); });
  return true;
}

void ChargerClient::retime(std::uint64_t id, std::chrono::milliseconds timeout) {
  const auto it = std::find_if(queue_.begin(), queue_.end(),
                               [id](const Request& r) { return r.id == id; });
  if (it == queue_.end()) return;
  it->timeout = timeout;
  if (it == queue_.begin() && inFlight_) armRequestTimeout(timeout);
}

template <typename T>
Pending<T> ChargerClient::enqueue(std::int64_t tag, std::uint8_t code, Issue issue,
                                  std::function<T(const Bytes&)> value, Completion<T> done) {
  Pending<T> pending;
  const std::uint64_t id = ++lastId_;
  done = track(pending, id, std::move(done));
  Request request{
      tag, code, std::move(issue),
      [value = std::move(value), done = std::move(done),
       acceptMismatch = options_.acceptChecksumMismatch](const Bytes& frame,
                                                         const ClientError* e) {
        if (!done) return;
        if (e) return done(*e);
        const bool mismatch = !protocol::checksumHolds(frame);
        if (mismatch && !acceptMismatch)
          return done(error(ClientErrorKind::Malformed, "the answer's checksum does not hold"));
        std::optional<Outcome<T>> outcome;
        try {
          outcome.emplace(value(frame), frame, mismatch);
        } catch (const std::out_of_range& range) {
          outcome.emplace(error(ClientErrorKind::Malformed,
                                std::string("the answer could not be decoded: ") + range.what()));
        }
        done(*outcome);
      },
      id, std::nullopt};
  if (link_ == Link::Idle) {
    // Nothing to wait for: fail on the queue, as every other outcome arrives.
    after(0ms, [request = std::move(request)](ChargerClient&) {
      const auto e = error(ClientErrorKind::NotConnected, "not connected");
      request.finish({}, &e);
    });
    return pending;
  }
  queue_.push_back(std::move(request));
  pump();
  return pending;
}

void ChargerClient::pump() {
  after(0ms, [](ChargerClient& c) { c.writeNext(); });
}

void ChargerClient::writeNext() {
  if (link_ != Link::Ready || inFlight_ || queue_.empty()) return;
  if (holding()) return;  // settling the manager's own query pumps again
  inFlight_ = true;
  const auto generation = ++generation_;
  // The manager starts this answer from nothing, whatever it gathered before.
  clearPending();
  auto refused = std::make_shared<std::optional<TQError>>();
  queue_.front().issue(*manager_, [refused](const TQError& e) { *refused = e; });
  if (*refused) {
    clearPending();
    const auto e =
        error(ClientErrorKind::WriteFailed,
              "write failed (" + std::to_string((*refused)->code) + "): " + (*refused)->domain,
              (*refused)->code);
    complete({}, &e);
    return;
  }
  owed_.push_back({queue_.front().code, generation});
  armRequestTimeout(queue_.front().timeout.value_or(options_.requestTimeout));
}

// One timer at a time watches the running request's deadline: a request answered before
// it leaves the timer to the next request's deadline, so a quick succession of requests
// does not pile up a timer each.
void ChargerClient::armRequestTimeout(std::chrono::milliseconds timeout) {
  deadline_ = MainQueue::main().now() + timeout;
  if (!timerAt_ || *timerAt_ > deadline_) watchDeadline();
}

void ChargerClient::watchDeadline() {
  const auto at = deadline_;
  timerAt_ = at;
  after(std::chrono::ceil<std::chrono::milliseconds>(at - MainQueue::main().now()),
        [at](ChargerClient& c) {
          if (c.timerAt_ != at) return;  // an earlier timer took over
          c.timerAt_.reset();
          if (!c.inFlight_) return;
          if (MainQueue::main().now() < c.deadline_) return c.watchDeadline();
          c.endRunning(error(ClientErrorKind::TimedOut, "no whole answer in time"));
        });
}

// Ends the running request before its answer; what is left of the answer is dropped as it
// comes.
void ChargerClient::endRunning(const ClientError& e) {
  frames_->abandon();
  std::erase_if(owed_, [generation = generation_](const Owed& o) { return o.owner == generation; });
  clearPending();
  complete({}, &e);
}

void ChargerClient::complete(const Bytes& frame, const ClientError* e) {
  Request request = std::move(queue_.front());
  queue_.pop_front();
  inFlight_ = false;
  // The manager may still wait for more of this answer under its own rules.
  if (manager_->cmdType() == request.tag && request.tag != kSystemInfoTag) clearPending();
  pump();
  request.finish(frame, e);
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

void ChargerClient::onUpdate(bool failed) {
  if (link_ == Link::Discovering && manager_->writeCharacteristic() &&
      manager_->readCharacteristic()) {
    // The post's first read: the link is ready, and the value is no answer.
    link_ = Link::Ready;
    established_ = true;
    reconnectsLeft_ = options_.reconnect.attempts;
    reconnects_ = 0;
    connectDone(nullptr);
    report(LinkEvent::Ready);
    pump();
    return;
  }
  if (link_ != Link::Ready || failed || !manager_->readCharacteristic()) return;
  receive(manager_->readCharacteristic()->value());
}

void ChargerClient::receive(const Bytes& piece) {
  for (const Bytes& frame : frames_->push(piece)) deliver(frame);
}

// A whole frame goes to the first answer owed with its code; answers owed before it were
// lost. A frame nobody is owed (the rest of a timed-out answer, say) is dropped.
void ChargerClient::deliver(const Bytes& frame) {
  const auto owed = std::find_if(owed_.begin(), owed_.end(),
                                 [code = frame[1]](const Owed& o) { return o.code == code; });
  if (owed == owed_.end()) return;
  const std::uint64_t owner = owed->owner;
  const bool autoOwed = std::any_of(owed_.begin(), owed + 1, [](const Owed& o) { return o.owner == 0; });
  owed_.erase(owed_.begin(), owed + 1);
  if (owner == 0) {
    settleAutoQuery();  // the manager decoded it as it always does
    return;
  }
  if (autoOwed) settleAutoQuery();
  if (frame[1] == kCmdSystemInfo) trimRows();
  if (!inFlight_ || owner != generation_) return;
  // An answer that arrived behind the manager's own query went into its buffer.
  if (autoOwed_ && manager_->cmdType() == kSystemInfoTag)
    manager_->setSystemInfoData(std::nullopt);
  complete(frame, nullptr);
}

void ChargerClient::onRangeError(const std::out_of_range& range) {
  // The manager's decoder gave up on the answer it was dispatching: nothing was reset,
  // and the notification never reached the delegate.
  clearPending();
  const bool owned = inFlight_;
  if (link_ == Link::Ready && manager_->readCharacteristic())
    receive(manager_->readCharacteristic()->value());
  if (!owned && onError_)
    onError_(error(ClientErrorKind::Malformed,
                   std::string("the answer could not be decoded: ") + range.what()));
}

// Each command with the tag it records and how its answer becomes a value.
Pending<SettingResult> ChargerClient::synchroTime(Completion<SettingResult> done) {
  return enqueue<SettingResult>(1, kCmdSynchroTime, &TQBleManager::synchroTimeWithError, &answers::settingResult,
                         std::move(done));
}

Pending<SystemInfo> ChargerClient::querySystemInfo(Completion<SystemInfo> done) {
  return enqueue<SystemInfo>(
      kSystemInfoTag, kCmdSystemInfo, &TQBleManager::querySystemInfoWithError, systemInfo(),
      std::move(done));
}

Pending<SettingResult> ChargerClient::setVolume(std::int64_t volume, Completion<SettingResult> done) {
  return enqueue<SettingResult>(
      3, kCmdVolume,
      [volume](TQBleManager& m, const TQErrorHandler& e) { m.setVolumeWithVolumeSize(volume, e); },
      &answers::settingResult, std::move(done));
}

Pending<SettingResult> ChargerClient::reserve(std::int64_t startHour, std::int64_t startMinute, std::int64_t endHour,
                            std::int64_t endMinute, Completion<SettingResult> done) {
  return enqueue<SettingResult>(
      4, kCmdOrder,
      [=](TQBleManager& m, const TQErrorHandler& e) {
        m.orderChargerWithStartHour(startHour, startMinute, endHour, endMinute, e);
      },
      &answers::settingResult, std::move(done));
}

Pending<SettingResult> ChargerClient::startCharging(Completion<SettingResult> done) {
  return enqueue<SettingResult>(5, kCmdStartCharging, &TQBleManager::startChargingWithError,
                         &answers::settingResult, std::move(done));
}

Pending<ChargerState> ChargerClient::queryChargerState(Completion<ChargerState> done) {
  return enqueue<ChargerState>(6, kCmdChargerState, &TQBleManager::queryChargerStateWithError,
                        &answers::chargerState, std::move(done));
}

Pending<SettingResult> ChargerClient::stopCharging(Completion<SettingResult> done) {
  return enqueue<SettingResult>(
      7, kCmdStopCharge, &TQBleManager::stopChargeWithError,
      &answers::settingResult, std::move(done));
}

Pending<ChargerState> ChargerClient::queryChargingData(Completion<ChargerState> done) {
  return enqueue<ChargerState>(6, kCmdChargerState, &TQBleManager::queryChargingDataWithError,
                        &answers::chargerState, std::move(done));
}

Pending<ChargingHistory> ChargerClient::queryHistory(Completion<ChargingHistory> done) {
  return enqueue<ChargingHistory>(8, kCmdHistory, &TQBleManager::queryHistoryChargingListWithError,
                           &answers::chargingHistory, std::move(done));
}

Pending<CumulativeEnergy> ChargerClient::queryCumulativeEnergy(Completion<CumulativeEnergy> done) {
  return enqueue<CumulativeEnergy>(
      9, kCmdCumulation, &TQBleManager::queryCumulationElecQuantityWithError,
      &answers::cumulativeEnergy,
      std::move(done));
}

Pending<ErrorLog> ChargerClient::queryErrorLog(Completion<ErrorLog> done) {
  return enqueue<ErrorLog>(15, kCmdErrorLog, &TQBleManager::queryHistoryErrorLogListWithError,
                    &answers::errorLog, std::move(done));
}

Pending<Diagnostics> ChargerClient::queryDiagnostics(Completion<Diagnostics> done) {
  return enqueue<Diagnostics>(13, kCmdDiagnosis, &TQBleManager::runningDiagnosticInfoWithError,
                       &answers::diagnostics, std::move(done));
}

// The typed answer, with the manager's titles on its rows.
std::function<SystemInfo(const Bytes&)> ChargerClient::systemInfo() {
  return [this](const Bytes& frame) {
    SystemInfo info = answers::systemInfo(frame);
    const auto& titles = manager_->systemTitleArr();
    for (std::size_t i = 0; i < info.rows.size() && i < titles.size(); ++i)
      info.rows[i].title = titles[i]->title.value_or("");
    return info;
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
