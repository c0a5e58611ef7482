#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

#include "tqble/ble/CentralManager.h"
#include "tqble/sim/VirtualPost.h"

namespace tqble::sim {

/// Latencies of the simulated radio, on the main queue's clock.
struct Timing {
  using Duration = std::chrono::nanoseconds;
  Duration stateReport{0};                           ///< adapter state to each central
  Duration firstAdvertisement{std::chrono::milliseconds(10)};  ///< after a scan starts
  /// Between two reports of the same advertising post; zero: once per scan start.
  Duration advertisingInterval{std::chrono::seconds(1)};
  Duration connect{std::chrono::milliseconds(40)};
  Duration disconnect{std::chrono::milliseconds(5)};
  Duration discovery{std::chrono::milliseconds(10)};  ///< services, then characteristics
  Duration read{std::chrono::milliseconds(5)};
  Duration answer{std::chrono::milliseconds(15)};      ///< a write to its first notification
  Duration notificationGap{std::chrono::milliseconds(2)};  ///< between pieces of an answer
  Duration writeConfirmation{std::chrono::milliseconds(5)};  ///< writes with response
};

/// Error codes of the simulated stack (the platform's values).
inline constexpr std::int64_t kConnectionTimeoutCode = 6;
inline constexpr std::int64_t kPeripheralDisconnectedCode = 7;
inline constexpr std::int64_t kReadNotPermittedCode = 2;

/// The process-wide simulated radio: one adapter, the posts in range, and every central
/// made on it. Everything it reports goes through the main queue. Starts powered on; the
/// first central finds one post with the default setup, a car plugged in, two past sessions
/// and one logged error, unless the program added its own.
class SimRadio {
 public:
  /// The radio of this process.
  static SimRadio& shared();

  SimRadio(const SimRadio&) = delete;
  SimRadio& operator=(const SimRadio&) = delete;

  /// The adapter state (ble::CentralManagerState).
  std::int64_t state() const { return state_; }
  /// Changes the adapter state and reports it to every central. Leaving powered-on stops
  /// scans and drops every link silently, as a phone's stack does.
  void setState(std::int64_t state);
  void setPowered(bool on);
  bool poweredOn() const;

  Timing& timing() { return timing_; }

  /// Puts a new post in range; the first one replaces the default post unless that is
  /// connected. Its clock counts from the main queue's time, so choose a virtual clock
  /// (MainQueue::useVirtualClock) before adding posts.
  std::shared_ptr<VirtualPost> addPost(PostSetup setup = {});
  /// Takes a post out of range, dropping its links.
  void removePost(const std::shared_ptr<VirtualPost>& post);
  const std::vector<std::shared_ptr<VirtualPost>>& posts() const { return posts_; }

  /// Makes a central on this radio; its first state report arrives asynchronously.
  std::shared_ptr<ble::CentralManager> makeCentral(
      std::weak_ptr<ble::CentralManagerDelegate> delegate);

 private:
  SimRadio() = default;
  friend struct RadioAccess;

  std::int64_t state_ = ble::CentralManagerStatePoweredOn;
  Timing timing_;
  std::vector<std::shared_ptr<VirtualPost>> posts_;
  std::vector<std::weak_ptr<ble::CentralManager>> centrals_;
  bool postsAdded_ = false;
  std::weak_ptr<VirtualPost> defaultPost_;
};

}  // namespace tqble::sim
