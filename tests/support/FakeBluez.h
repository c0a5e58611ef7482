#pragma once

// A stand-in bluetoothd 5.66 on the test's private bus, steered by direct calls, for what the
// radio guest's real daemon cannot be made to do on demand. Its posts are VirtualPosts: frames
// written to FFF3 get the post's real answers, notified on FFF4 in pieces of 20 bytes. It
// runs on the main queue (real clock) like the backend, and behaves as bluetoothd was
// measured to: the Connect reply before the services resolve, the read's Value signal
// before its reply, one Value signal per notification even for equal pieces, GATT objects
// kept across links, devices exported at the first advertisement heard, its error names.

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ble/bluez/Bus.h"
#include "tqble/sim/VirtualPost.h"

namespace tqble::test {

/// bluetoothd's ways, switched per post.
struct BluezFaults {
  bool silentConnected = false;                 ///< no Connected=true signal for a link
  std::optional<bluez::BusError> connectError;  ///< Connect fails with it
  bool connectHangs = false;                    ///< Connect answers only when cancelled
  bool lateChargerService = false;              ///< FFF0 exported after ServicesResolved
  std::optional<bluez::BusError> startNotifyError;  ///< StartNotify fails with it
};

class FakeBluez {
 public:
  /// Owns org.bluez with one powered adapter, hci0. Its method Barrier (interface
  /// org.bluez.Test, on "/") answers once every call before it was handled and what those
  /// set off is done.
  FakeBluez();
  ~FakeBluez();

  /// Puts a post in range of `adapter`; its identifier must be an address
  /// ("C0:FF:EE:00:00:01"), its name is sent as it is (maybe no valid text).
  std::shared_ptr<sim::VirtualPost> addPost(sim::PostSetup setup,
                                            const std::string& adapter = "hci0");
  BluezFaults& faults(const std::shared_ptr<sim::VirtualPost>& post);

  void addAdapter(const std::string& name, bool powered);
  void removeAdapter(const std::string& name);
  /// The link to `post` is lost (Connected=false, no reason given).
  void dropLink(const std::shared_ptr<sim::VirtualPost>& post);
  /// Forgets a post's device object while idle, as bluetoothd does 30 s after a scan.
  void expire(const std::shared_ptr<sim::VirtualPost>& post);
  /// Every post in range of a discovering `adapter` is heard now (as every 50 ms anyway):
  /// a new device object at the first advertisement, then an RSSI change at each.
  void advertise(const std::string& adapter = "hci0");
  /// A link of an earlier client to `post` that bluetoothd closes only after `delay`
  /// (Connected stays true, notifications are refused until then). Barrier does not await it.
  void leaveDyingLink(const std::shared_ptr<sim::VirtualPost>& post,
                      std::chrono::milliseconds delay);

  /// Method calls received, e.g. "StartDiscovery hci0", "WriteValue FFF3 command 68B5...".
  const std::vector<std::string>& calls() const { return calls_; }
  /// The discovery filter set last, by adapter.
  std::map<std::string, bluez::BusDict> filters;
  /// Whether a link to `post` is up.
  bool connected(const std::shared_ptr<sim::VirtualPost>& post) const;
  /// Number of notify sessions on FFF4 of `post`.
  std::size_t notifySessions(const std::shared_ptr<sim::VirtualPost>& post) const;

 private:
  struct Device;
  struct Adapter;
  void later(std::chrono::milliseconds delay, std::function<void()> task);
  void answerBarriers();
  void tick(const std::string& adapter);
  void exportDevice(Device& d);
  void connectNow(Device& d);
  void exportGatt(Device& d);
  void disconnect(Device& d);
  void removeDevice(Device& d);
  Device& deviceOf(const std::shared_ptr<sim::VirtualPost>& post) const;

  std::shared_ptr<bluez::Bus> bus_;
  std::unique_ptr<bluez::BusObject> root_;
  std::map<std::string, std::unique_ptr<Adapter>> adapters_;
  std::vector<std::unique_ptr<Device>> devices_;  // never shrinks: a Device outlives its object
  std::vector<std::string> calls_;
  std::vector<bluez::BusCall> barriers_;
  int busy_ = 0;  // delayed steps still to run
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace tqble::test
