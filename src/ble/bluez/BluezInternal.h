#pragma once

// The BlueZ backend's parts as they see each other. Everything here lives on the main
// queue: the mirror of bluetoothd's object tree, the adapter state, links and attributes.
// Messages reach it through the Bus, already turned into plain values.

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Bus.h"
#include "tqble/ble/CentralManager.h"

namespace tqble::bluez {

inline constexpr char kBlueZ[] = "org.bluez";
inline constexpr char kAdapterInterface[] = "org.bluez.Adapter1";
inline constexpr char kDeviceInterface[] = "org.bluez.Device1";
inline constexpr char kServiceInterface[] = "org.bluez.GattService1";
inline constexpr char kCharacteristicInterface[] = "org.bluez.GattCharacteristic1";

/// How long bluetoothd gets to answer a call other than Connect.
inline constexpr std::chrono::seconds kCallTimeout{10};

/// Error codes the backend reports (the platform's values).
inline constexpr std::int64_t kUnknownErrorCode = 0;
inline constexpr std::int64_t kConnectionTimeoutCode = 6;
inline constexpr std::int64_t kConnectionFailedCode = 10;

/// bluetoothd's objects as last heard: path → interface → properties.
class ObjectTree {
 public:
  void clear() { objects_.clear(); }
  void add(const std::string& path, const BusInterfaces& interfaces);
  void remove(const std::string& path, const std::vector<std::string>& interfaces);
  void change(const std::string& path, const std::string& interface, const BusProperties& changed,
              const std::vector<std::string>& invalidated);
  /// The properties of `interface` on `path`; null when absent.
  const BusProperties* find(const std::string& path, const std::string& interface) const;
  /// The paths carrying `interface`, in path order.
  std::vector<std::string> pathsWith(const std::string& interface) const;
  /// A property's value; null when absent.
  const BusValue* property(const std::string& path, const std::string& interface,
                           const std::string& name) const;
  bool flag(const std::string& path, const std::string& interface, const std::string& name) const;
  std::string text(const std::string& path, const std::string& interface, const std::string& name) const;
  void setQuietly(const std::string& path, const std::string& interface, const std::string& name, BusValue v);

 private:
  std::map<std::string, BusInterfaces> objects_;
};

class BluezCentral;
class BluezService;

class BluezCharacteristic final : public ble::Characteristic {
 public:
  BluezCharacteristic(std::string path, ble::UUID uuid, std::uint64_t properties,
                      std::weak_ptr<BluezService> service)
      : path_(std::move(path)), uuid_(std::move(uuid)), properties_(properties), service_(std::move(service)) {}
  ble::UUID uuid() const override { return uuid_; }
  std::uint64_t properties() const override { return properties_; }
  Bytes value() const override { return value_; }
  std::shared_ptr<ble::Service> service() const override;
  const std::string& path() const { return path_; }
  /// Keeps the storage: a stream of notifications of one size allocates nothing.
  void setValue(const Bytes& value) { value_.assign(value.begin(), value.end()); }

 private:
  std::string path_;
  ble::UUID uuid_;
  std::uint64_t properties_;
  std::weak_ptr<BluezService> service_;
  Bytes value_;
};

class BluezService final : public ble::Service {
 public:
  BluezService(std::string path, ble::UUID uuid) : path_(std::move(path)), uuid_(std::move(uuid)) {}
  ble::UUID uuid() const override { return uuid_; }
  std::vector<std::shared_ptr<ble::Characteristic>> characteristics() const override;
  const std::string& path() const { return path_; }

  std::vector<std::shared_ptr<BluezCharacteristic>> table;  ///< in the peer's handle order
  bool discovered = false;

 private:
  std::string path_;
  ble::UUID uuid_;
};

/// One device object of bluetoothd, kept across links; its attributes are made afresh
/// for every link, so those of an earlier link are refused.
class BluezPeripheral final : public ble::Peripheral, public std::enable_shared_from_this<BluezPeripheral> {
 public:
  enum class Link { Disconnected, Connecting, Connected };

  BluezPeripheral(std::string path, std::weak_ptr<BluezCentral> central)
      : path_(std::move(path)), central_(std::move(central)) {}

  std::string identifier() const override { return address_; }
  std::string name() const override { return name_; }
  void setDelegate(std::weak_ptr<ble::PeripheralDelegate> delegate) override { delegate_ = std::move(delegate); }
  void discoverServices(const std::vector<ble::UUID>& serviceUUIDs) override;
  std::vector<std::shared_ptr<ble::Service>> services() const override;
  void discoverCharacteristics(const std::vector<ble::UUID>& characteristicUUIDs,
                               const std::shared_ptr<ble::Service>& service) override;
  void readValueForCharacteristic(const std::shared_ptr<ble::Characteristic>& c) override;
  void setNotifyValue(bool enabled, const std::shared_ptr<ble::Characteristic>& c) override;
  void writeValue(const Bytes& data, const std::shared_ptr<ble::Characteristic>& c, ble::WriteType type) override;

  const std::string& path() const { return path_; }
  /// Takes the address and the advertised name (never the alias) from the tree, while it has them.
  void refresh(const ObjectTree& tree);
  Link link() const { return link_; }
  std::uint64_t linkNumber() const { return linkNumber_; }
  void beginConnecting() { link_ = Link::Connecting, ++linkNumber_; }
  void linkUp() { link_ = Link::Connected; }
  /// The link is gone: pending work is dropped, attributes forgotten, notify sessions ended.
  void linkDown();

  /// Events of the tree below this device.
  void servicesResolved();
  void attributeAdded();
  void valueChanged(const std::string& characteristicPath, const Bytes& value);

 private:
  std::shared_ptr<ble::PeripheralDelegate> liveDelegate() const { return delegate_.lock(); }
  std::shared_ptr<BluezCentral> liveCentral() const { return central_.lock(); }
  /// Runs `task` on a later turn if this link is still up then.
  void later(std::chrono::nanoseconds delay, std::function<void(BluezPeripheral&)> task);
  /// Replies of this link only, on the main queue.
  Bus::ReplyHandler onThisLink(std::function<void(BluezPeripheral&, const BusReply&)> then);
  void reportServices(const std::optional<TQError>& error);
  void buildTable();
  void fillService(const std::shared_ptr<BluezService>& service);
  std::shared_ptr<BluezCharacteristic> ours(const std::shared_ptr<ble::Characteristic>& c) const;

  std::string path_;
  std::string address_, name_;
  std::weak_ptr<BluezCentral> central_;
  std::weak_ptr<ble::PeripheralDelegate> delegate_;
  Link link_ = Link::Disconnected;
  std::uint64_t linkNumber_ = 0;
  enum class Discovery { Idle, Waiting, WaitingForCharger, Done } discovery_ = Discovery::Idle;
  std::uint64_t attributeBurst_ = 0;  // counts late attribute signals while waiting for FFF0
  std::vector<std::shared_ptr<BluezService>> table_;
  std::set<std::string> notifying_;
};

class BluezCentral final : public ble::CentralManager, public std::enable_shared_from_this<BluezCentral> {
 public:
  explicit BluezCentral(std::weak_ptr<ble::CentralManagerDelegate> delegate) : delegate_(std::move(delegate)) {}

  /// Opens the bus, subscribes, then reads the object tree; tries again later while no bus answers.
  void start();

  std::int64_t state() const override { return state_; }
  void scanForPeripheralsWithServices(const std::vector<ble::UUID>& serviceUUIDs, const Dictionary& options) override;
  void stopScan() override;
  void connectPeripheral(const std::shared_ptr<ble::Peripheral>& peripheral, const Dictionary& options) override;
  void cancelPeripheralConnection(const std::shared_ptr<ble::Peripheral>& peripheral) override;

  const ObjectTree& tree() const { return tree_; }
  /// Calls a method of bluetoothd; dropped when the bus is gone.
  void call(const std::string& path, const std::string& interface, const std::string& method, const BusList& args,
            std::chrono::milliseconds timeout, const std::string& replySignature = "", Bus::ReplyHandler onReply = {});
  /// The link of `peripheral` is lost; the delegate hears of it.
  void loseLink(BluezPeripheral& peripheral, const TQError& error);
  /// Whether the link to `devicePath` is to be closed when this process's bus closes.
  void closeAtExit(const std::string& devicePath, bool close);
  /// Every link is lost and scanning ends (the adapter or bluetoothd went away).
  void loseLinks();

 private:
  std::shared_ptr<ble::CentralManagerDelegate> liveDelegate() const { return delegate_.lock(); }
  void busLost();
  void sendConnect(const std::shared_ptr<BluezPeripheral>& p, std::uint64_t attempt);
  void sync();
  void synced(const BusReply& reply, std::uint64_t generation);
  void readObject(const std::string& path, std::uint64_t generation);
  void readInterface(const std::string& path, const std::string& interface, std::uint64_t generation);
  void objectRead(std::uint64_t generation);
  void ownerChanged(const std::string& newOwner);
  void interfacesAdded(const std::string& path, const BusInterfaces& interfaces);
  void interfacesRemoved(const std::string& path, const std::vector<std::string>& interfaces);
  void propertiesChanged(const std::string& path, const std::string& interface, const BusProperties& changed,
                         const std::vector<std::string>& invalidated);
  void chooseAdapter();
  void adapterGone();
  void setState(std::int64_t state);
  void heard(const std::string& path);
  void setDiscoveryFilter(const std::string& adapter, Bus::ReplyHandler then);
  void discover();
  void forgetDiscovery();
  std::shared_ptr<BluezPeripheral> peripheralAt(const std::string& path);
  std::shared_ptr<BluezPeripheral> knownPeripheral(const std::string& path) const;
  std::shared_ptr<BluezPeripheral> owningPeripheral(const std::string& path) const;

  std::weak_ptr<ble::CentralManagerDelegate> delegate_;
  std::shared_ptr<Bus> bus_;
  std::vector<BusSubscription> subscriptions_;
  ObjectTree tree_;
  std::uint64_t generation_ = 0;  // counts tree reads: a late reply of an older one is dropped
  std::int64_t state_ = ble::CentralManagerStateUnknown;
  std::string adapter_;
  bool scanning_ = false;  // what the application asked for
  // bluetoothd's discovery session for this connection, as its replies tell.
  enum class Discovery { Off, Starting, On, Stopping } discovery_ = Discovery::Off;
  std::uint64_t discoveryEpoch_ = 0;
  std::vector<ble::UUID> filter_;
  std::map<std::string, std::shared_ptr<BluezPeripheral>> peripherals_;
  std::map<std::string, std::uint64_t> linkEndAwaited_;  // device → connection attempt
  std::size_t objectReads_ = 0;  // calls of an object-by-object read still unanswered
};

/// Makes a BlueZ central for `delegate`; its first state report arrives asynchronously.
std::shared_ptr<ble::CentralManager> makeCentral(std::weak_ptr<ble::CentralManagerDelegate> delegate);

/// A D-Bus error as the backend reports it.
TQError busError(const BusError& error, const char* what, std::int64_t code);

}  // namespace tqble::bluez
