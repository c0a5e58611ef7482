#pragma once

// The simulated radio's parts as they see each other: attributes, the peripheral with
// its attribute table, the central, and the cutting of answers into notifications.

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tqble/ble/CentralManager.h"
#include "tqble/sim/SimRadio.h"

namespace tqble::sim {

// The charger's attributes as every virtual post offers them.
inline constexpr char kService[] = "FFF0";
inline constexpr char kWrite[] = "FFF3";
inline constexpr char kRead[] = "FFF4";

class SimCentral;
class SimService;

class SimCharacteristic final : public ble::Characteristic {
 public:
  SimCharacteristic(ble::UUID uuid, std::uint64_t properties, std::weak_ptr<SimService> service)
      : uuid_(std::move(uuid)), properties_(properties), service_(std::move(service)) {}
  ble::UUID uuid() const override { return uuid_; }
  std::uint64_t properties() const override { return properties_; }
  Bytes value() const override { return value_; }
  std::shared_ptr<ble::Service> service() const override;
  void setValue(Bytes value) { value_ = std::move(value); }

 private:
  ble::UUID uuid_;
  std::uint64_t properties_;
  std::weak_ptr<SimService> service_;
  Bytes value_;
};

class SimService final : public ble::Service {
 public:
  explicit SimService(ble::UUID uuid) : uuid_(std::move(uuid)) {}
  ble::UUID uuid() const override { return uuid_; }
  std::vector<std::shared_ptr<ble::Characteristic>> characteristics() const override;

  /// What the peer holds, revealed to the central by characteristic discovery.
  std::vector<std::shared_ptr<SimCharacteristic>> table;
  bool discovered = false;

 private:
  ble::UUID uuid_;
};

/// One post as one central sees it: link state, attribute table and traffic.
class SimPeripheral final : public ble::Peripheral,
                            public std::enable_shared_from_this<SimPeripheral> {
 public:
  enum class Link { Disconnected, Connecting, Connected };

  SimPeripheral(std::shared_ptr<VirtualPost> post, std::weak_ptr<SimCentral> central)
      : post_(std::move(post)), central_(std::move(central)) {}

  std::string identifier() const override { return post_->identifier(); }
  std::string name() const override { return post_->name(); }
  void setDelegate(std::weak_ptr<ble::PeripheralDelegate> delegate) override {
    delegate_ = std::move(delegate);
  }
  void discoverServices(const std::vector<ble::UUID>& serviceUUIDs) override;
  std::vector<std::shared_ptr<ble::Service>> services() const override;
  void discoverCharacteristics(const std::vector<ble::UUID>& characteristicUUIDs,
                               const std::shared_ptr<ble::Service>& service) override;
  void readValueForCharacteristic(const std::shared_ptr<ble::Characteristic>& c) override;
  void setNotifyValue(bool enabled, const std::shared_ptr<ble::Characteristic>& c) override;
  void writeValue(const Bytes& data, const std::shared_ptr<ble::Characteristic>& c,
                  ble::WriteType type) override;

  const std::shared_ptr<VirtualPost>& post() const { return post_; }
  Link link() const { return link_; }
  /// Counts links: work scheduled under an older one is dropped when it comes due.
  std::uint64_t linkNumber() const { return linkNumber_; }
  void beginConnecting() { link_ = Link::Connecting; ++linkNumber_; }
  /// The link is up: a fresh attribute table is built from the post's current faults.
  void linkUp();
  /// The link is gone: pending traffic is dropped and the attribute table forgotten.
  void linkDown();

 private:
  std::shared_ptr<ble::PeripheralDelegate> liveDelegate() const { return delegate_.lock(); }
  /// Runs `task` after `delay` if this link is still up then.
  void later(std::chrono::nanoseconds delay, std::function<void(SimPeripheral&)> task);
  void buildTable();
  void forgetTable();
  void deliverAnswer(const Bytes& answer);
  bool isOurs(const std::shared_ptr<ble::Characteristic>& c) const;

  std::shared_ptr<VirtualPost> post_;
  std::weak_ptr<SimCentral> central_;
  std::weak_ptr<ble::PeripheralDelegate> delegate_;
  Link link_ = Link::Disconnected;
  std::uint64_t linkNumber_ = 0;
  std::vector<std::shared_ptr<SimService>> table_;
  bool servicesDiscovered_ = false;
  std::shared_ptr<SimCharacteristic> readCharacteristic_;
  std::shared_ptr<SimCharacteristic> writeCharacteristic_;
  bool notifying_ = false;
};

class SimCentral final : public ble::CentralManager,
                         public std::enable_shared_from_this<SimCentral> {
 public:
  explicit SimCentral(std::weak_ptr<ble::CentralManagerDelegate> delegate)
      : delegate_(std::move(delegate)) {}

  std::int64_t state() const override { return state_; }
  void scanForPeripheralsWithServices(const std::vector<ble::UUID>& serviceUUIDs,
                                      const Dictionary& options) override;
  void stopScan() override;
  void connectPeripheral(const std::shared_ptr<ble::Peripheral>& peripheral,
                         const Dictionary& options) override;
  void cancelPeripheralConnection(const std::shared_ptr<ble::Peripheral>& peripheral) override;

  /// Reports an adapter state; the central shows it from the moment it is reported.
  void reportState(std::int64_t state);
  /// The adapter left powered-on: scans stop, links drop without a report.
  void powerLost();
  /// The post's link is lost; the delegate hears of it with `error`.
  void loseLink(const VirtualPost& post, const TQError& error);
  bool holdsLinkTo(const VirtualPost& post) const;
  /// The peripheral that stands for `post` on this central, made on first use.
  std::shared_ptr<SimPeripheral> peripheralFor(const std::shared_ptr<VirtualPost>& post);
  std::shared_ptr<ble::CentralManagerDelegate> liveDelegate() const { return delegate_.lock(); }

 private:
  void advertise(std::uint64_t scan);

  std::weak_ptr<ble::CentralManagerDelegate> delegate_;
  std::int64_t state_ = ble::CentralManagerStateUnknown;
  bool scanning_ = false;
  std::uint64_t scanNumber_ = 0;
  std::map<const VirtualPost*, std::shared_ptr<SimPeripheral>> peripherals_;
};

/// The radio's insides, for its parts.
struct RadioAccess {
  static std::vector<std::shared_ptr<SimCentral>> centrals(SimRadio& radio);
};

/// One notification of an answer as the post sends it.
struct Piece {
  Bytes bytes;
  std::chrono::nanoseconds due{0};  ///< after the answer starts
  bool lost = false;
  bool dropLinkAfter = false;  ///< the link is lost once this piece is sent
};

/// Cuts an answer into notifications by the faults in force, with their timing.
std::vector<Piece> cutAnswer(const Bytes& answer, const Faults& faults, const Timing& timing);

/// An answer as the post sends it: its pieces, and whether the link is lost before any.
struct AnswerPlan {
  std::vector<Piece> pieces;
  bool dropLinkFirst = false;
};
/// Cuts an answer and applies the link loss armed in `faults`, which it uses up.
AnswerPlan planAnswer(const Bytes& answer, Faults& faults, const Timing& timing);

}  // namespace tqble::sim
