// The peripheral side on bluetoothd: a GATT application and an advertisement exported on
// the bus and registered with the adapter; writes answered by a VirtualPost.
#include "ble/bluez/post/PostServer.h"

#include <chrono>
#include <string_view>

#include "ble/sim/SimInternal.h"
#include "tqble/ble/UUID.h"
#include "tqble/platform/MainQueue.h"

namespace tqble::bluez {
namespace {

using namespace std::chrono_literals;

constexpr char kBlueZ[] = "org.bluez";
constexpr char kServiceInterface[] = "org.bluez.GattService1";
constexpr char kCharacteristicInterface[] = "org.bluez.GattCharacteristic1";
constexpr char kAdvertisementInterface[] = "org.bluez.LEAdvertisement1";
constexpr char kGattManager[] = "org.bluez.GattManager1";
constexpr char kAdvertisingManager[] = "org.bluez.LEAdvertisingManager1";
constexpr char kApplicationPath[] = "/tqble/post";
constexpr char kServicePath[] = "/tqble/post/service0";
constexpr char kWritePath[] = "/tqble/post/service0/char0";
constexpr char kReadPath[] = "/tqble/post/service0/char1";
// Outside the application: bluetoothd would otherwise see it among the GATT objects.
constexpr char kAdvertisementPath[] = "/tqble/advertisement0";
constexpr auto kCallTimeout = 10s;

// The full text bluetoothd expects of an application's attribute.
std::string fullUUID(const char* shortForm) {
  return ble::UUID::fromString(shortForm).fullString();
}

std::string text(const BusReply& reply) {
  return reply.error->name + ": " + reply.error->message;
}

}  // namespace

std::shared_ptr<PostServer> PostServer::make(std::shared_ptr<Bus> bus, PostOptions options,
                                             PostEvents events) {
  return std::shared_ptr<PostServer>(
      new PostServer(std::move(bus), std::move(options), std::move(events)));
}

PostServer::PostServer(std::shared_ptr<Bus> bus, PostOptions options, PostEvents events)
    : bus_(std::move(bus)),
      options_(std::move(options)),
      events_(std::move(events)),
      adapterPath_("/org/bluez/" + options_.adapter),
      post_(options_.setup) {}

PostServer::~PostServer() = default;

void PostServer::say(const std::string& line) const {
  if (events_.status) events_.status(line);
}

void PostServer::exportObjects() {
  std::weak_ptr<PostServer> weak = weak_from_this();
  auto with = [weak](auto member) {
    return [weak, member](const BusCall& call) {
      if (auto self = weak.lock())
        member(*self, call);
      else
        call.fail("org.bluez.Error.Failed", "The post has stopped");
    };
  };

  application_ = bus_->exportObjectManager(kApplicationPath);
  application_->finish();

  service_ = bus_->exportObject(kServicePath);
  service_->addProperty(kServiceInterface, "UUID", fullUUID("fff0"));
  service_->addProperty(kServiceInterface, "Primary", true);
  service_->finish();

  write_ = bus_->exportObject(kWritePath);
  write_->addProperty(kCharacteristicInterface, "UUID", fullUUID("fff3"));
  write_->addProperty(kCharacteristicInterface, "Service", BusValue::path(kServicePath));
  write_->addProperty(kCharacteristicInterface, "Flags",
                      std::vector<std::string>{"write", "write-without-response"});
  write_->addMethod(kCharacteristicInterface, "WriteValue", "aya{sv}", "",
                    with([](PostServer& self, const BusCall& call) { self.onWrite(call); }));
  write_->finish();

  read_ = bus_->exportObject(kReadPath);
  read_->addProperty(kCharacteristicInterface, "UUID", fullUUID("fff4"));
  read_->addProperty(kCharacteristicInterface, "Service", BusValue::path(kServicePath));
  read_->addProperty(kCharacteristicInterface, "Flags", std::vector<std::string>{"read", "notify"});
  read_->addProperty(kCharacteristicInterface, "Value", post_.setup().initialReadValue);
  read_->addProperty(kCharacteristicInterface, "Notifying", false);
  read_->addMethod(kCharacteristicInterface, "ReadValue", "a{sv}", "ay",
                   with([](PostServer& self, const BusCall& call) {
                     call.reply({self.read_->get(kCharacteristicInterface, "Value")});
                   }));
  read_->addMethod(kCharacteristicInterface, "StartNotify", "", "",
                   with([](PostServer& self, const BusCall& call) {
                     call.reply();
                     if (self.notifying_) return;
                     self.notifying_ = true;
                     self.read_->set(kCharacteristicInterface, "Notifying", true);
                     self.say("notifications on");
                   }));
  read_->addMethod(kCharacteristicInterface, "StopNotify", "", "",
                   with([](PostServer& self, const BusCall& call) {
                     call.reply();
                     if (!self.notifying_) return;
                     self.notifying_ = false;
                     self.read_->set(kCharacteristicInterface, "Notifying", false);
                     self.say("notifications off");
                   }));
  read_->finish();

  advertisement_ = bus_->exportObject(kAdvertisementPath);
  advertisement_->addProperty(kAdvertisementInterface, "Type", "peripheral");
  // The short form keeps the name inside the 31 bytes of an advertisement.
  advertisement_->addProperty(kAdvertisementInterface, "ServiceUUIDs",
                              std::vector<std::string>{"FFF0"});
  advertisement_->addProperty(kAdvertisementInterface, "LocalName", post_.name());
  advertisement_->addMethod(kAdvertisementInterface, "Release", "", "",
                            [](const BusCall& call) { call.reply(); });
  advertisement_->finish();
}

void PostServer::start(std::function<void(std::optional<std::string> error)> done) {
  exportObjects();
  std::weak_ptr<PostServer> weak = weak_from_this();
  // bluetoothd forgets both registrations when it stops; once it is back, its adapter
  // offers the advertising manager only some time after taking the bus name.
  daemonOwner_ = bus_->subscribe(
      "type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',arg0='org.bluez'",
      "sss", [weak](const BusSignal& signal) {
        auto self = weak.lock();
        const auto* owner = signal.args.size() > 2 ? signal.args[2].as<std::string>() : nullptr;
        if (!self || !owner || !owner->empty()) return;
        self->registered_ = false;
        self->notifying_ = false;
        self->say("bluetoothd stopped; waiting for it to come back");
      });
  adapterBack_ = bus_->subscribe(
      "type='signal',sender='org.bluez',interface='org.freedesktop.DBus.ObjectManager',member='"
      "InterfacesAdded'",
      "oa{sa{sv}}", [weak](const BusSignal& signal) {
        auto self = weak.lock();
        if (!self || self->registered_ || signal.args.size() < 2) return;
        const auto* path = signal.args[0].as<std::string>();
        if (!path || *path != self->adapterPath_ ||
            !signal.args[1].at(kAdvertisingManager))
          return;
        self->registerWithDaemon([weak](std::optional<std::string> error) {
          if (auto again = weak.lock(); again && error)
            again->say("registration failed: " + *error);
        });
      });
  links_ = bus_->subscribe(
      "type='signal',sender='org.bluez',interface='org.freedesktop.DBus.Properties',"
      "member='PropertiesChanged',path_namespace='" +
          adapterPath_ + "'",
      "sa{sv}as", [weak](const BusSignal& signal) {
        auto self = weak.lock();
        if (!self || signal.args.size() < 2) return;
        const auto* iface = signal.args[0].as<std::string>();
        const BusValue* connected = signal.args[1].at("Connected");
        if (!iface || *iface != "org.bluez.Device1" || !connected) return;
        const bool* up = connected->as<bool>();
        if (!up) return;
        self->say(std::string(*up ? "central connected: " : "central disconnected: ") +
                  signal.path.substr(signal.path.rfind('/') + 1));
        if (*up) return;
        // Each link starts as on the simulated radio: no subscription, and
        // a first read that gets the post's initial value, not the last piece.
        if (signal.path == self->lastWriter_) self->notifying_ = false;
        self->read_->setQuietly(kCharacteristicInterface, "Value",
                                self->post_.setup().initialReadValue);
      });
  registerWithDaemon(std::move(done));
}

void PostServer::callAdapter(const char* interface, const char* method, const char* path,
                             std::function<void(PostServer* self, const BusReply& reply)> then) {
  BusList args{BusValue::path(path)};
  if (std::string_view(method).starts_with("Register")) args.push_back(BusValue(BusDict{}));
  std::weak_ptr<PostServer> weak = weak_from_this();
  // Weak: a handler may be destroyed on the bus thread, which must never hold the last reference.
  bus_->call(kBlueZ, adapterPath_, interface, method, args, kCallTimeout, "",
             [weak, then](const BusReply& reply) { then(weak.lock().get(), reply); });
}

void PostServer::registerWithDaemon(std::function<void(std::optional<std::string> error)> done) {
  callAdapter(
      kGattManager, "RegisterApplication", kApplicationPath,
      [done](PostServer* self, const BusReply& reply) {
        if (!self) return;
        if (reply.error)
          return done("GATT application on " + self->options_.adapter + ": " + text(reply));
        self->callAdapter(
            kAdvertisingManager, "RegisterAdvertisement", kAdvertisementPath,
            [done](PostServer* self, const BusReply& reply) {
              if (!self) return;
              if (reply.error)
                return done("advertisement on " + self->options_.adapter + ": " + text(reply));
              self->registered_ = true;
              self->say("advertising as " + self->post_.name() + " on " + self->options_.adapter);
              done(std::nullopt);
            });
      });
}

void PostServer::stop(std::function<void()> done) {
  daemonOwner_ = {};
  adapterBack_ = {};
  links_ = {};
  if (!registered_) return done();
  registered_ = false;
  callAdapter(kAdvertisingManager, "UnregisterAdvertisement", kAdvertisementPath,
              [done](PostServer* self, const BusReply&) {
                if (!self) return done();
                self->callAdapter(kGattManager, "UnregisterApplication", kApplicationPath,
                                  [done](PostServer* self, const BusReply& reply) {
                                    if (self)
                                      self->say(reply.error
                                                    ? "unregistering: " + text(reply)
                                                    : "advertisement and application unregistered");
                                    done();
                                  });
              });
}

void PostServer::onWrite(const BusCall& call) {
  const Bytes* data = call.args().empty() ? nullptr : call.args()[0].as<Bytes>();
  if (!data) return call.fail("org.bluez.Error.InvalidArguments", "Expected a byte array");
  call.reply();
  // bluetoothd names the writing device, and (in later versions only) the write type.
  std::string type;
  if (call.args().size() > 1) {
    if (const BusValue* t = call.args()[1].at("type"); t && t->as<std::string>())
      type = *t->as<std::string>();
    const BusValue* d = call.args()[1].at("device");
    if (d && d->as<std::string>() && *d->as<std::string>() != lastWriter_) {
      lastWriter_ = *d->as<std::string>();
      say("writes come from " + lastWriter_.substr(lastWriter_.rfind('/') + 1));
    }
  }
  if (events_.request) events_.request(*data, type);
  for (const Bytes& answer : post_.handleWrite(*data)) {
    if (events_.answer) events_.answer(answer);
    deliver(answer);
  }
}

void PostServer::deliver(const Bytes& answer) {
  const sim::AnswerPlan plan = sim::planAnswer(answer, post_.faults(), options_.timing);
  if (plan.dropLinkFirst) return dropLink();
  std::weak_ptr<PostServer> weak = weak_from_this();
  for (const sim::Piece& piece : plan.pieces) {
    MainQueue::main().asyncAfter(options_.timing.answer + piece.due, [weak, piece] {
      auto self = weak.lock();
      if (!self) return;
      if (piece.lost) {
        self->say("piece of " + std::to_string(piece.bytes.size()) + " bytes lost on purpose");
      } else if (self->notifying_) {
        // bluetoothd sends one notification per change of Value, equal values included.
        self->read_->set(kCharacteristicInterface, "Value", piece.bytes);
      } else {
        self->say("piece of " + std::to_string(piece.bytes.size()) +
                  " bytes not sent: notifications are off");
      }
      if (piece.dropLinkAfter) self->dropLink();
    });
  }
}

void PostServer::dropLink() {
  if (lastWriter_.empty()) return say("no central to drop");
  say("dropping the link to " + lastWriter_.substr(lastWriter_.rfind('/') + 1));
  // The central's subscription ends with its link: the rest of the answer goes nowhere.
  notifying_ = false;
  read_->setQuietly(kCharacteristicInterface, "Notifying", false);
  bus_->call(kBlueZ, lastWriter_, "org.bluez.Device1", "Disconnect", {}, kCallTimeout);
}

}  // namespace tqble::bluez
