#pragma once

// A virtual post served on a real adapter: bluetoothd's GATT server carries its service
// "FFF0" ("FFF3" write, "FFF4" read and notify) and its advertising manager its name.
// Every request written to "FFF3" gets the post's answers on "FFF4", cut into
// notifications exactly as on the simulated radio, faults included.

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "ble/bluez/Bus.h"
#include "tqble/sim/SimRadio.h"
#include "tqble/sim/VirtualPost.h"

namespace tqble::bluez {

/// What the post reports as it happens, on the main queue.
struct PostEvents {
  /// Registration, links, faults acted on, failures: one line each.
  std::function<void(const std::string& line)> status;
  /// A write to "FFF3" as received, with its write type ("command", "request") when
  /// bluetoothd tells it, else empty.
  std::function<void(const Bytes& write, const std::string& type)> request;
  /// A whole answer, before it is cut into notifications.
  std::function<void(const Bytes& answer)> answer;
};

struct PostOptions {
  std::string adapter = "hci0";
  sim::PostSetup setup;
  /// The answer delay and the gap between notifications are taken from here.
  sim::Timing timing;
};

class PostServer : public std::enable_shared_from_this<PostServer> {
 public:
  /// A post on `bus`; nothing is exported before start().
  static std::shared_ptr<PostServer> make(std::shared_ptr<Bus> bus, PostOptions options,
                                          PostEvents events);
  ~PostServer();

  sim::VirtualPost& post() { return post_; }
  const std::string& adapterPath() const { return adapterPath_; }

  /// Exports the GATT application and the advertisement and registers both with
  /// bluetoothd (again whenever bluetoothd restarts). `done` gets an error text, or
  /// nothing once the post advertises.
  /// @throws BusFailure when the objects cannot be exported.
  void start(std::function<void(std::optional<std::string> error)> done);
  /// Unregisters the advertisement and the application; `done` runs once bluetoothd answered.
  void stop(std::function<void()> done);

 private:
  PostServer(std::shared_ptr<Bus> bus, PostOptions options, PostEvents events);
  void exportObjects();
  /// Calls a (un)registration method of the adapter for the object at `path`; `then` gets
  /// the server (null once it is gone) and the reply, on the main queue.
  void callAdapter(const char* interface, const char* method, const char* path,
                   std::function<void(PostServer* self, const BusReply& reply)> then);
  void registerWithDaemon(std::function<void(std::optional<std::string> error)> done);
  void onWrite(const BusCall& call);
  void deliver(const Bytes& answer);
  void dropLink();
  void say(const std::string& line) const;

  std::shared_ptr<Bus> bus_;
  PostOptions options_;
  PostEvents events_;
  std::string adapterPath_;
  sim::VirtualPost post_;
  std::unique_ptr<BusObject> application_, service_, write_, read_, advertisement_;
  BusSubscription daemonOwner_, adapterBack_, links_;
  bool notifying_ = false;
  bool registered_ = false;
  std::string lastWriter_;  ///< the device object of the central that wrote last
};

}  // namespace tqble::bluez
