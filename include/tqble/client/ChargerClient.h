#pragma once

// A client for applications: a link that says when it is ready, one request at a time in
// the order asked, a time-out on every step and a typed answer or a typed error for each
// request. Built on the manager's public interface only; the manager does what it always
// does. Everything runs on the main queue.

#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

#include "tqble/BLESDKConst.h"
#include "tqble/Models.h"
#include "tqble/TQBleManager.h"
#include "tqble/TQBleManagerDelegate.h"
#include "tqble/TQError.h"
#include "tqble/client/Answers.h"

namespace tqble {

namespace protocol {
class FrameAssembler;
}

/// Why a client step failed.
enum class ClientErrorKind {
  NotConnected,   ///< no ready link (and no reconnection under way)
  WriteFailed,    ///< the manager refused the write: code 1001 or 1002
  TimedOut,       ///< no (complete) answer or link in time
  LinkLost,       ///< the link went down before the answer was complete
  Malformed,      ///< the answer's frame did not hold (checksum, length) or could not be decoded
  ConnectFailed,  ///< the stack refused the connection
  NotFound,       ///< no post heard whose name or identifier matches
  Cancelled,      ///< the application cancelled the request
};

/// A failed client step: its kind, the manager's code for WriteFailed (else 0), a one-line
/// English message and, when the Bluetooth stack refused, its own error name.
struct ClientError {
  ClientErrorKind kind;
  std::int64_t code = 0;
  std::string message;
  std::string stackError = {};  ///< BlueZ's name ("org.bluez.Error.Failed"), else empty
};

/// Short English name of an error kind ("timed out").
const char* describe(ClientErrorKind kind);

/// A request's outcome: its value, or why there is none.
template <typename T>
class Outcome {
 public:
  /// An answer.
  Outcome(T value) : state_(std::move(value)) {}
  /// An answer read from `frame`, whose checksum may not have held
  /// (ClientOptions::acceptChecksumMismatch).
  Outcome(T value, Bytes frame, bool checksumMismatch)
      : state_(std::move(value)), frame_(std::move(frame)), checksumMismatch_(checksumMismatch) {}
  /// A failure.
  Outcome(ClientError error) : state_(std::move(error)) {}
  /// Whether it holds an answer.
  bool ok() const { return state_.index() == 0; }
  /// The answer.  @throws std::bad_variant_access when the request failed.
  const T& value() const { return std::get<0>(state_); }
  /// The failure.  @throws std::bad_variant_access when the request succeeded.
  const ClientError& error() const { return std::get<1>(state_); }
  /// Whether the answer was taken although its checksum did not hold.
  bool checksumMismatch() const { return checksumMismatch_; }
  /// The whole answer frame as the post sent it (empty for a failure).
  const Bytes& frame() const { return frame_; }

 private:
  std::variant<T, ClientError> state_;
  Bytes frame_;
  bool checksumMismatch_ = false;
};

/// Receives a request's outcome, on the main queue.
template <typename T>
using Completion = std::function<void(const Outcome<T>&)>;

class ChargerClient;

/// A request asked of a client: cancel it, give it its own time-out, or see whether it
/// has ended. A default-made handle refers to nothing.
class RequestHandle {
 public:
  /// Ends the request with Cancelled (its completion runs once, on the main queue) unless it
  /// has ended already; a connection is cancelled by closing it. Returns whether it did.
  bool cancel();
  /// Gives the request its own time-out: counted from its write, or from now if it runs.
  void setTimeout(std::chrono::milliseconds timeout);
  /// Whether the request has ended (or is cancelled and its completion queued).
  bool ended() const { return !ended_ || *ended_; }

 private:
  friend class ChargerClient;
  ChargerClient* client_ = nullptr;
  std::weak_ptr<bool> alive_;   // the client's
  std::uint64_t id_ = 0;        // 0: a connection
  std::shared_ptr<bool> ended_;
};

/// A request's handle that also keeps its outcome, for ChargerClient::wait().
template <typename T>
class Pending : public RequestHandle {
 public:
  /// The outcome, once the request has ended.
  const std::optional<Outcome<T>>& outcome() const { return *slot_; }

 private:
  friend class ChargerClient;
  std::shared_ptr<std::optional<Outcome<T>>> slot_ =
      std::make_shared<std::optional<Outcome<T>>>();
};

/// Reconnection after a link lost without disconnect(): how often, and after how long; the
/// wait doubles after each failed attempt up to `maxDelay`, and starts over once ready.
struct ReconnectPolicy {
  int attempts = 0;  ///< 0: never
  std::chrono::milliseconds delay{1000};
  std::chrono::milliseconds maxDelay{30000};
};

/// What became of the link.
enum class LinkEvent {
  Connecting,    ///< connect() began: finding the post or opening the link
  Ready,         ///< requests are written from now on
  Lost,          ///< the link went down without disconnect(); `reason` says how
  Reconnecting,  ///< attempt `attempt` of the reconnection policy begins
  Closed,        ///< no link and none coming: disconnect(), a failed connect, or attempts spent
};

/// A change of the link, as the link observer receives it.
struct LinkChange {
  LinkEvent event;
  int attempt = 0;                   ///< Reconnecting: 1 for the first attempt
  std::optional<ClientError> reason; ///< Lost, and Closed when not by disconnect()
};

/// Time-outs and the reconnection policy of a client.
struct ClientOptions {
  std::chrono::milliseconds connectTimeout{10000};  ///< finding a post and readying its link
  std::chrono::milliseconds requestTimeout{5000};   ///< a request's whole answer, once written
  ReconnectPolicy reconnect;
  /// Connection attempts repeated at once when BlueZ refuses one for a passing reason
  /// (`le-connection-abort-by-local`, `org.bluez.Error.InProgress`), within connectTimeout.
  int connectRetries = 3;
  /// Takes answers whose checksum does not hold (a post whose firmware computes it
  /// otherwise), reporting it on the outcome; otherwise they fail as Malformed.
  bool acceptChecksumMismatch = false;
};

/// The client of one post. One per process is meant (the manager is one); it makes itself
/// the manager's delegate and forwards every call, unchanged and first, to the delegate
/// set with setDelegate() (since the client implements the value-update call, the manager
/// drops its record after each update). Requests are written as soon as the link is ready;
/// the client gathers and checks each answer itself, and keeps requests clear of the
/// system information the manager asks for by itself 3 s after each connection.
class ChargerClient {
 public:
  using PeripheralPtr = std::shared_ptr<ble::Peripheral>;
  using Heard = std::function<void(const PeripheralPtr& peripheral, std::int64_t rssi)>;

  /// Takes over the shared manager's delegate (forwarding to the one it had).
  /// @throws std::runtime_error when the manager's backend does not exist.
  explicit ChargerClient(ClientOptions options = {});
  /// Gives the manager back the application's delegate; pending requests end silently.
  ~ChargerClient();
  ChargerClient(const ChargerClient&) = delete;
  ChargerClient& operator=(const ChargerClient&) = delete;

  /// The manager underneath.
  TQBleManager& manager() { return *manager_; }
  /// The application's delegate: receives every manager call, as the manager makes it.
  void setDelegate(std::weak_ptr<TQBleManagerDelegate> delegate) {
    appDelegate_ = std::move(delegate);
  }
  /// Receives every change of the link, on the main queue, as it happens.
  /// @code
  ///   client.setLinkObserver([](const LinkChange& c) {
  ///     if (c.event == LinkEvent::Lost) std::printf("lost: %s\n", c.reason->message.c_str());
  ///   });
  /// @endcode
  void setLinkObserver(std::function<void(const LinkChange&)> observer) {
    onLink_ = std::move(observer);
  }
  /// Errors no request owns (an answer the manager could not decode while nothing was
  /// asked through the client). Default: one log line.
  void setErrorHandler(std::function<void(const ClientError&)> handler) {
    onError_ = std::move(handler);
  }

  // ---- Link ----

  /// Scans and reports every advertisement until stopScan().
  void scan(Heard heard);
  /// Stops scanning.
  void stopScan();
  /// Connects; completes once the link is ready (both characteristics known and the
  /// post's first read absorbed), or fails (ConnectFailed, TimedOut, LinkLost).
  Pending<PeripheralPtr> connect(const PeripheralPtr& peripheral, Completion<PeripheralPtr> done = {});
  /// Scans for the first post whose name or identifier equals `nameOrIdentifier` (any
  /// post when empty) and connects to it; NotFound when none is heard in time.
  Pending<PeripheralPtr> connect(const std::string& nameOrIdentifier, Completion<PeripheralPtr> done = {});
  /// Closes the link; queued and running requests fail with NotConnected. No reconnection.
  void disconnect();
  /// Why the radio cannot hear posts (" (the Bluetooth adapter is powered off)"); empty when
  /// it is on.
  std::string radioNote() const;
  /// Whether the link is ready.
  bool ready() const { return link_ == Link::Ready; }
  /// The post of the current (or last) link.
  const PeripheralPtr& peripheral() const { return peripheral_; }

  // ---- Requests: queued, written one at a time once the link is ready; asked while no
  // link is open or being opened, they fail with NotConnected ----

  /// Sets the post's clock to now.
  Pending<SettingResult> synchroTime(Completion<SettingResult> done = {});
  /// The system information, with the manager's ten rows in `rows`.
  Pending<SystemInfo> querySystemInfo(Completion<SystemInfo> done = {});
  /// Volume 0-100; digits 0-9 travel as an empty body and the post may refuse them.
  Pending<SettingResult> setVolume(std::int64_t volume, Completion<SettingResult> done = {});
  /// Reserves a charging period (hours 0-23, minutes 0-59).
  Pending<SettingResult> reserve(std::int64_t startHour, std::int64_t startMinute, std::int64_t endHour,
               std::int64_t endMinute, Completion<SettingResult> done = {});
  /// Starts charging; the post refuses unless a car is plugged in.
  Pending<SettingResult> startCharging(Completion<SettingResult> done = {});
  /// The charger state, or its fault (`fault` set).
  Pending<ChargerState> queryChargerState(Completion<ChargerState> done = {});
  /// Stop charging, as the post acknowledged it (the manager itself always reports success).
  Pending<SettingResult> stopCharging(Completion<SettingResult> done = {});
  /// Live charging data: the state request, read as the state answer.
  Pending<ChargerState> queryChargingData(Completion<ChargerState> done = {});
  /// The charging sessions.
  Pending<ChargingHistory> queryHistory(Completion<ChargingHistory> done = {});
  /// The energy delivered over the post's life.
  Pending<CumulativeEnergy> queryCumulativeEnergy(Completion<CumulativeEnergy> done = {});
  /// The error log.
  Pending<ErrorLog> queryErrorLog(Completion<ErrorLog> done = {});
  /// The running diagnostics.
  Pending<Diagnostics> queryDiagnostics(Completion<Diagnostics> done = {});
  /// Requests waiting or running.
  std::size_t queued() const { return queue_.size(); }

  /// Runs the main queue until `request` has ended and returns its outcome: the blocking
  /// form, for programs without a loop of their own. Every request ends by its time-out
  /// at the latest.
  /// @code
  ///   ChargerClient client;
  ///   if (!client.wait(client.connect("TQ-AC7-0042")).ok()) return 1;
  ///   const auto state = client.wait(client.queryChargerState());
  ///   if (state.ok()) std::printf("%.1f V\n", state.value().volts);
  /// @endcode
  template <typename T>
  Outcome<T> wait(const Pending<T>& request) {
    while (!request.outcome())
      runUntil([&request] { return request.outcome().has_value(); }, std::chrono::hours(1));
    return *request.outcome();
  }

  // ---- Run loop: the main queue, surviving answers the manager cannot decode ----

  /// Runs the main queue until stop().
  void run();
  /// Runs until `done()` holds or `limit` has passed; returns `done()`.
  bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds limit);
  /// Makes run() return after the current task.
  void stop();

  /// The main queue's descriptor for the application's own loop: it polls readable while
  /// work is due, and the loop then calls dispatch().
  /// @throws std::system_error when the system gives no timer descriptor.
  /// @code
  ///   pollfd p{client.eventFd(), POLLIN, 0};
  ///   while (!finished) {
  ///     ::poll(&p, 1, -1);
  ///     client.dispatch();
  ///   }
  /// @endcode
  int eventFd();
  /// Runs the work that is due, surviving answers the manager cannot decode as run() does;
  /// returns how many tasks ran.
  std::size_t dispatch();

 private:
  enum class Link { Idle, Finding, Connecting, Discovering, Ready };
  using Issue = std::function<void(TQBleManager&, const TQErrorHandler&)>;
  struct Request {
    std::int64_t tag;   // the manager's pending-command tag
    std::uint8_t code;  // the command code its answer carries
    Issue issue;
    std::function<void(const Bytes& frame, const ClientError* error)> finish;
    std::uint64_t id = 0;
    std::optional<std::chrono::milliseconds> timeout;  // the client's when empty
  };
  friend class RequestHandle;
  // An answer the post owes, in the order written: to a request (its generation) or to
  // the manager's own query (0).
  struct Owed {
    std::uint8_t code;
    std::uint64_t owner;
  };

  template <typename T>
  Pending<T> enqueue(std::int64_t tag, std::uint8_t code, Issue issue,
               std::function<T(const Bytes&)> value, Completion<T> done);
  std::function<SystemInfo(const Bytes&)> systemInfo();

  void installDelegate();
  void after(std::chrono::milliseconds delay, std::function<void(ChargerClient&)> task);
  void startScanning();
  bool beginConnect(Completion<PeripheralPtr>& done);
  void startConnecting(const PeripheralPtr& peripheral);
  void armConnectTimeout();
  std::string attributeNote() const;
  void linkUp(const PeripheralPtr& peripheral);
  void linkDown(const std::optional<TQError>& platformError, bool failed);
  void reconnectOrClose(const ClientError& why);
  void report(LinkEvent event, int attempt = 0, std::optional<ClientError> reason = {});
  void onRadioState(std::int64_t state);
  void connectDone(const ClientError* error);
  void managerQueryRan();
  void settleAutoQuery();
  void trimRows();
  bool holding() const;
  void pump();
  void writeNext();
  void complete(const Bytes& frame, const ClientError* error);
  void armRequestTimeout(std::chrono::milliseconds timeout);
  void watchDeadline();
  void endRunning(const ClientError& error);
  bool cancelRequest(std::uint64_t id);
  void retime(std::uint64_t id, std::chrono::milliseconds timeout);
  template <typename T>
  Completion<T> track(Pending<T>& pending, std::uint64_t id, Completion<T> done);
  void failAll(const ClientError& error);
  void clearPending();
  void onUpdate(bool failed);
  void receive(const Bytes& piece);
  void deliver(const Bytes& frame);
  void onRangeError(const std::out_of_range& range);

  ClientOptions options_;
  std::shared_ptr<TQBleManager> manager_;
  std::shared_ptr<TQBleManagerDelegate> ownDelegate_;
  std::weak_ptr<TQBleManagerDelegate> appDelegate_;
  std::function<void(const ClientError&)> onError_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);  // guards queued tasks

  Link link_ = Link::Idle;
  PeripheralPtr peripheral_;
  std::string wanted_;
  Heard heard_;
  bool scanWanted_ = false;
  Completion<PeripheralPtr> connectDone_;
  std::function<void(const LinkChange&)> onLink_;
  std::uint64_t attempt_ = 0;  // tells a stale link timer from the current one
  bool attemptOpen_ = false;   // the stack is asked for a link and has not answered
  bool userClosed_ = false;
  bool established_ = false;   // ready once since connect(): a loss is reconnected
  int retriesLeft_ = 0;        // of a refusal BlueZ gives for a passing reason
  int reconnectsLeft_ = 0;
  int reconnects_ = 0;         // attempts since the link was last ready
  bool reconnectOnPower_ = false;  // a reconnection waits for the adapter to come back
  // The manager asks for the system information by itself 3 s after every connection,
  // and a lost link does not cancel it: it goes out on whatever link stands by then.
  // Requests stop being written shortly before each and wait until its answer is absorbed.
  std::deque<std::chrono::steady_clock::time_point> managerQueries_;  // due, not yet run
  bool autoOwed_ = false;

  std::deque<Request> queue_;  // the front one runs when inFlight_
  bool inFlight_ = false;
  std::uint64_t generation_ = 0;  // tells a stale request time-out from the current one
  std::chrono::steady_clock::time_point deadline_{};               // the running request's
  std::optional<std::chrono::steady_clock::time_point> timerAt_;  // the watching timer's
  std::uint64_t lastId_ = 0;
  std::deque<Owed> owed_;
  std::unique_ptr<protocol::FrameAssembler> frames_;
  bool stopped_ = false;
};

}  // namespace tqble
