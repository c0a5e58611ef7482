#pragma once

// The D-Bus plumbing of the BlueZ backends: connections read by the main queue itself
// (it watches their sockets), whose messages are turned into plain values and handed to
// the callbacks as each is read, outside the D-Bus library's own dispatch. This file
// has the values and the connection as a client of other services (calls, signal
// subscriptions); BusObjects.h has what a server exports (methods, properties, an object
// manager), e.g. an advertised GATT application or a stand-in bluetoothd. Nothing outside
// these files sees the D-Bus library; every callback given to it runs on the main queue.

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

#include "tqble/platform/Value.h"

namespace tqble::bluez {

class BusValue;
/// A dictionary keyed by text or object path (a{sv}, a{oa{sv}}, ...).
using BusDict = std::map<std::string, BusValue>;
/// A dictionary keyed by a number (a{qv}: manufacturer data).
using BusIntDict = std::map<std::int64_t, BusValue>;
/// Array elements or struct members of any other kind.
using BusList = std::vector<BusValue>;

/// One D-Bus value as plain data, with its D-Bus type signature. Variants are unwrapped:
/// a value read from a `v` keeps the signature of what it held.
class BusValue {
 public:
  using Data = std::variant<std::monostate, bool, std::int64_t, double, std::string, Bytes,
                            std::vector<std::string>, BusDict, BusIntDict, BusList>;

  BusValue() = default;
  BusValue(bool v) : signature_("b"), data_(v) {}
  BusValue(std::int64_t v) : signature_("x"), data_(v) {}
  BusValue(double v) : signature_("d"), data_(v) {}
  BusValue(std::string v) : signature_("s"), data_(std::move(v)) {}
  BusValue(const char* v) : signature_("s"), data_(std::string(v)) {}
  BusValue(Bytes v) : signature_("ay"), data_(std::move(v)) {}
  BusValue(std::vector<std::string> v) : signature_("as"), data_(std::move(v)) {}
  BusValue(BusDict v) : signature_("a{sv}"), data_(std::move(v)) {}
  /// Any value with an explicit signature ("o" for a path, "n" for int16, "a{qv}", ...).
  /// A text ("s") given as Bytes is sent unchecked, as it is.
  BusValue(std::string signature, Data data) : signature_(std::move(signature)), data_(std::move(data)) {}

  /// `inner` wrapped in a variant, for arguments declared `v`.
  static BusValue variant(BusValue inner) { return {"v", BusList{std::move(inner)}}; }
  static BusValue path(std::string p) { return {"o", std::move(p)}; }
  static BusValue paths(std::vector<std::string> p) { return {"ao", std::move(p)}; }
  static BusValue byte(std::uint8_t v) { return {"y", std::int64_t{v}}; }
  static BusValue int16(std::int16_t v) { return {"n", std::int64_t{v}}; }
  static BusValue uint16(std::uint16_t v) { return {"q", std::int64_t{v}}; }
  static BusValue int32(std::int32_t v) { return {"i", std::int64_t{v}}; }
  static BusValue uint32(std::uint32_t v) { return {"u", std::int64_t{v}}; }

  const std::string& signature() const { return signature_; }
  const Data& data() const { return data_; }
  /// The held value when it is a `T`, else null.
  template <typename T>
  const T* as() const { return std::get_if<T>(&data_); }
  /// The entry `key` of a text-keyed dictionary, else null.
  const BusValue* at(const std::string& key) const;

  bool operator==(const BusValue&) const = default;

 private:
  std::string signature_;
  Data data_;
};

/// The properties of one interface, by name.
using BusProperties = std::map<std::string, BusValue>;
/// What GetManagedObjects and InterfacesAdded carry for one object: interface → properties.
using BusInterfaces = std::map<std::string, BusProperties>;

/// A D-Bus error by name ("org.bluez.Error.Failed") and message.
struct BusError {
  std::string name;
  std::string message;
  bool operator==(const BusError&) const = default;
};

/// The error of a reply whose values could not be read as asked (or at all).
inline constexpr char kUnreadable[] = "org.freedesktop.DBus.Error.InvalidSignature";

/// The outcome of a method call: its values, or an error.
struct BusReply {
  std::optional<BusError> error;
  BusList values;
};

/// A received signal.
struct BusSignal {
  std::string sender;
  std::string path;
  std::string interface;
  std::string member;
  BusList args;
};

/// Thrown when the bus cannot be reached or refuses a registration.
class BusFailure : public std::runtime_error {
 public:
  BusFailure(const std::string& what, std::string errorName)
      : std::runtime_error(what), errorName_(std::move(errorName)) {}
  /// The D-Bus error name, e.g. "org.freedesktop.DBus.Error.AccessDenied".
  const std::string& errorName() const { return errorName_; }

 private:
  std::string errorName_;
};

/// Keeps a signal subscription alive; dropping it ends the subscription, and signals
/// already handed over but not yet delivered are dropped too.
class BusSubscription {
 public:
  BusSubscription() = default;
  explicit BusSubscription(std::shared_ptr<void> token) : token_(std::move(token)) {}
  explicit operator bool() const { return token_ != nullptr; }

 private:
  std::shared_ptr<void> token_;
};

class BusObject;

/// One connection to a message bus, read on the main queue's thread.
class Bus : public std::enable_shared_from_this<Bus> {
 public:
  using ReplyHandler = std::function<void(const BusReply& reply)>;
  using SignalHandler = std::function<void(const BusSignal& signal)>;
  /// The new `Value` bytes of the object at `path` (a characteristic's notification).
  using ValueHandler = std::function<void(const std::string& path, const Bytes& value)>;

  struct Impl;
  explicit Bus(std::unique_ptr<Impl> impl);
  ~Bus();
  Bus(const Bus&) = delete;
  Bus& operator=(const Bus&) = delete;

  /// A new connection to the system bus (DBUS_SYSTEM_BUS_ADDRESS when set), watched by the
  /// main queue; open it on the queue's thread.
  /// @throws BusFailure when the bus cannot be reached.
  static std::shared_ptr<Bus> openSystem();
  /// The process's shared system-bus connection, opened on first use and closed at exit,
  /// before the main queue goes.
  /// @throws BusFailure when the bus cannot be reached (tried again on the next use).
  static std::shared_ptr<Bus> system();

  /// This connection's unique name (":1.42").
  std::string uniqueName() const;
  /// Whether close() has run or the connection broke.
  bool closed() const;
  /// Whether the connection broke (the bus daemon went away or dropped us).
  bool lost() const;
  /// Runs `handler` on the main queue when the connection breaks, after the failed replies
  /// of the calls still awaiting one.
  [[nodiscard]] BusSubscription whenLost(std::function<void()> handler);
  /// Stops reading, sends the calls left for closing, and disconnects. Idempotent.
  void close();

  /// Calls a method without waiting; `onReply` (optional) gets the outcome on the main
  /// queue, its values read by `replySignature`. A closed bus drops the call.
  /// @throws BusFailure when an argument does not fit its own signature.
  void call(const std::string& service, const std::string& path, const std::string& interface,
            const std::string& method, const BusList& args, std::chrono::milliseconds timeout,
            const std::string& replySignature = "", ReplyHandler onReply = {});
  /// Leaves a call (by `key`) to be sent, unanswered, when this bus closes; a call under
  /// the same key replaces it.
  void callOnClose(const std::string& key, const std::string& service, const std::string& path,
                   const std::string& interface, const std::string& method);
  void cancelOnClose(const std::string& key);

  /// Delivers every signal matching `rule` whose arguments read as `signature`.
  /// @throws BusFailure when the rule is refused.
  [[nodiscard]] BusSubscription subscribe(const std::string& rule, const std::string& signature,
                                          SignalHandler handler);

  /// As subscribe() with signature "sa{sv}as" for PropertiesChanged signals, except that a
  /// change of nothing but the byte array `Value` of `interface` is read straight into bytes,
  /// without allocating, and given to `onValue` (in order with the other signals).
  /// @throws BusFailure when the rule is refused.
  [[nodiscard]] BusSubscription subscribeProperties(const std::string& rule, const std::string& interface,
                                                    SignalHandler handler, ValueHandler onValue);

  /// Takes a well-known name. @throws BusFailure when it is refused.
  void requestName(const std::string& name);
  void releaseName(const std::string& name);
  /// A new object at `path`; declare its members and finish() it.
  std::unique_ptr<BusObject> exportObject(const std::string& path);
  /// Answers GetManagedObjects and relays InterfacesAdded/Removed for objects under `path`.
  /// @throws BusFailure when the path is taken.
  std::unique_ptr<BusObject> exportObjectManager(const std::string& path);

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace tqble::bluez

// Exported objects, for the users of exportObject().
#include "BusObjects.h"
