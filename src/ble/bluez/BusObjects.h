#pragma once

// The objects a process exports on a Bus: methods answered on the main queue, properties
// whose values live here, signals. Made by Bus::exportObject / exportObjectManager.

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Bus.h"

namespace tqble::bluez {

/// One method call received by an exported object, delivered on the main queue. Answer
/// it once, now or later, with reply() or fail().
class BusCall {
 public:
  struct Pending;
  BusCall(std::shared_ptr<Pending> pending, std::string sender, BusList args)
      : pending_(std::move(pending)), sender_(std::move(sender)), args_(std::move(args)) {}

  /// The unique bus name of the caller.
  const std::string& sender() const { return sender_; }
  /// The arguments, in the order of the method's input signature.
  const BusList& args() const { return args_; }
  /// Sends the method's return values (in the order of its output signature).
  void reply(const BusList& values = {}) const;
  /// Sends an error reply.
  void fail(const std::string& name, const std::string& message) const;

 private:
  std::shared_ptr<Pending> pending_;
  std::string sender_;
  BusList args_;
};

/// An object this process offers on the bus. Declare its members, then finish(); its
/// property values live here and are read when a client asks.
class BusObject {
 public:
  using Method = std::function<void(const BusCall& call)>;
  /// A client's write to a writable property, already stored; on the main queue.
  using PropertyWritten = std::function<void(const std::string& interface, const std::string& name)>;

  struct Impl;
  explicit BusObject(std::unique_ptr<Impl> impl);
  ~BusObject();
  BusObject(const BusObject&) = delete;
  BusObject& operator=(const BusObject&) = delete;

  const std::string& path() const;
  /// Declares a method; `in`/`out` are the argument signatures ("a{sv}", "ay", "").
  void addMethod(const std::string& interface, const std::string& name, const std::string& in,
                 const std::string& out, Method handler);
  /// Declares a property of `initial`'s signature, readable by every client.
  void addProperty(const std::string& interface, const std::string& name, BusValue initial,
                   bool writable = false);
  /// Declares a signal so that it appears in introspection.
  void addSignal(const std::string& interface, const std::string& name, const std::string& signature);
  /// Called after a client wrote a writable property.
  void onPropertyWritten(PropertyWritten handler);
  /// Makes the declared members visible on the bus; declare nothing after it.
  /// @throws BusFailure when the path is taken or a declaration is invalid.
  void finish();

  /// The current value of a property; an empty value when undeclared.
  BusValue get(const std::string& interface, const std::string& name) const;
  /// Changes a property and emits PropertiesChanged for it (also when the value is equal).
  void set(const std::string& interface, const std::string& name, BusValue value);
  /// Changes a property without telling anyone.
  void setQuietly(const std::string& interface, const std::string& name, BusValue value);
  /// Emits PropertiesChanged for these properties with their current values.
  void emitChanged(const std::string& interface, const std::vector<std::string>& names);
  /// Emits a signal of this object. @throws BusFailure when an argument does not fit its signature.
  void emitSignal(const std::string& interface, const std::string& name, const BusList& args);
  /// Emits InterfacesAdded / InterfacesRemoved for every declared interface (needs an
  /// object manager on an ancestor path).
  void emitAdded();
  void emitRemoved();

 private:
  friend class Bus;
  std::unique_ptr<Impl> impl_;
};

}  // namespace tqble::bluez
