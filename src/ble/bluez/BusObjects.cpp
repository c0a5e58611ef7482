// The objects this process exports on a bus (an advertised GATT application, a stand-in
// bluetoothd): methods, properties and an object manager. Calls reach them on the main
// queue; property reads are answered from the values kept here.
#include <algorithm>
#include <mutex>

#include "BusWire.h"

namespace tqble::bluez {

using namespace wire;

namespace {

constexpr char kUnknownMethod[] = "org.freedesktop.DBus.Error.UnknownMethod";

// A reply or signal on a broken connection goes nowhere; the bus reports the loss itself.
template <typename Send>
void quietly(Send send) {
  try {
    send();
  } catch (const sdbus::Error&) {
  }
}

}  // namespace

struct BusCall::Pending {
  explicit Pending(sdbus::MethodCall m, std::string out) : call(std::move(m)), outSignature(std::move(out)) {}
  sdbus::MethodCall call;
  std::string outSignature;
  bool answered = false;
};

void BusCall::reply(const BusList& values) const {
  if (pending_->answered) return;
  pending_->answered = true;
  auto message = pending_->call.createReply();
  try {
    writeAll(message, values, pending_->outSignature);
  } catch (const BusFailure& e) {
    quietly([&] { pending_->call.createErrorReply(sdbus::Error(e.errorName(), e.what())).send(); });
    return;
  }
  quietly([&] { message.send(); });
}

void BusCall::fail(const std::string& name, const std::string& message) const {
  if (pending_->answered) return;
  pending_->answered = true;
  quietly([&] { pending_->call.createErrorReply(sdbus::Error(name, message)).send(); });
}

struct BusObject::Impl {
  struct Shared {
    std::mutex mutex;  // property values, read while a message is answered
    std::map<std::pair<std::string, std::string>, BusValue> properties;
    std::map<std::pair<std::string, std::string>, Method> methods;
    PropertyWritten written;
  };
  std::shared_ptr<sdbus::IConnection> connection;  // outlives `object`
  std::shared_ptr<Shared> shared = std::make_shared<Shared>();  // outlives `object` too
  std::unique_ptr<sdbus::IObject> object;
  std::vector<std::string> interfaces;
  std::string path;

  void noteInterface(const std::string& interface) {
    if (std::find(interfaces.begin(), interfaces.end(), interface) == interfaces.end()) interfaces.push_back(interface);
  }
};

BusObject::BusObject(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
BusObject::~BusObject() = default;

const std::string& BusObject::path() const { return impl_->path; }

void BusObject::addMethod(const std::string& interface, const std::string& name, const std::string& in,
                          const std::string& out, Method handler) {
  impl_->noteInterface(interface);
  {
    std::lock_guard lock(impl_->shared->mutex);
    impl_->shared->methods[{interface, name}] = std::move(handler);
  }
  std::weak_ptr<Impl::Shared> weak = impl_->shared;
  impl_->object->registerMethod(interface, name, in, out, [weak, interface, name, in, out](sdbus::MethodCall m) {
    BusList args;
    try {
      args = readAll(m, in);
    } catch (const std::exception& e) {
      m.createErrorReply(sdbus::Error("org.freedesktop.DBus.Error.InvalidArgs", e.what())).send();
      return;
    }
    auto sender = m.getSender();
    auto pending = std::make_shared<BusCall::Pending>(std::move(m), out);
    post([weak, interface, name, call = BusCall(pending, std::move(sender), std::move(args))] {
      Method method;
      if (auto shared = weak.lock()) {
        std::lock_guard lock(shared->mutex);
        method = shared->methods[{interface, name}];
      }
      if (method) method(call);
      else call.fail(kUnknownMethod, "the object is gone");
    });
  });
}

void BusObject::addProperty(const std::string& interface, const std::string& name, BusValue initial,
                            bool writable) {
  impl_->noteInterface(interface);
  const std::string signature = initial.signature();
  {
    std::lock_guard lock(impl_->shared->mutex);
    impl_->shared->properties[{interface, name}] = std::move(initial);
  }
  std::weak_ptr<Impl::Shared> weak = impl_->shared;
  // Runs on whichever thread asks; only sdbus::Error may leave it (as an error reply).
  auto getter = [weak, interface, name, signature](sdbus::PropertyGetReply& reply) {
    auto shared = weak.lock();
    if (!shared) throw sdbus::Error("org.freedesktop.DBus.Error.UnknownObject", "the object is gone");
    BusValue value;
    {
      std::lock_guard lock(shared->mutex);
      value = shared->properties[{interface, name}];
    }
    try {
      write(reply, value, signature);
    } catch (const BusFailure& e) {
      throw sdbus::Error(e.errorName(), e.what());
    }
  };
  if (!writable) {
    impl_->object->registerProperty(interface, name, signature, std::move(getter));
    return;
  }
  impl_->object->registerProperty(
      interface, name, signature, std::move(getter),
      [weak, object = impl_->object.get(), interface, name, signature](sdbus::PropertySetCall& call) {
        std::optional<BusValue> value;
        try {
          value = read(call, signature);
        } catch (const BusFailure& e) {
          throw sdbus::Error(e.errorName(), e.what());
        }
        auto shared = weak.lock();
        if (!value || !shared) return;
        {
          std::lock_guard lock(shared->mutex);
          shared->properties[{interface, name}] = std::move(*value);
        }
        object->emitPropertiesChangedSignal(interface, {name});
        post([weak, interface, name] {
          auto s = weak.lock();
          if (!s) return;
          PropertyWritten written;
          {
            std::lock_guard lock(s->mutex);
            written = s->written;
          }
          if (written) written(interface, name);
        });
      });
}

void BusObject::addSignal(const std::string& interface, const std::string& name, const std::string& signature) {
  impl_->noteInterface(interface);
  impl_->object->registerSignal(interface, name, signature);
}

void BusObject::onPropertyWritten(PropertyWritten handler) {
  std::lock_guard lock(impl_->shared->mutex);
  impl_->shared->written = std::move(handler);
}

void BusObject::finish() {
  try {
    impl_->object->finishRegistration();
  } catch (const sdbus::Error& e) {
    throw BusFailure("cannot export " + impl_->path + ": " + e.getMessage(), e.getName());
  }
}

BusValue BusObject::get(const std::string& interface, const std::string& name) const {
  std::lock_guard lock(impl_->shared->mutex);
  auto it = impl_->shared->properties.find({interface, name});
  return it == impl_->shared->properties.end() ? BusValue{} : it->second;
}

void BusObject::set(const std::string& interface, const std::string& name, BusValue value) {
  setQuietly(interface, name, std::move(value));
  emitChanged(interface, {name});
}

void BusObject::setQuietly(const std::string& interface, const std::string& name, BusValue value) {
  std::lock_guard lock(impl_->shared->mutex);
  impl_->shared->properties[{interface, name}] = std::move(value);
}

void BusObject::emitChanged(const std::string& interface, const std::vector<std::string>& names) {
  quietly([&] { impl_->object->emitPropertiesChangedSignal(interface, names); });
}

void BusObject::emitSignal(const std::string& interface, const std::string& name, const BusList& args) {
  auto signal = impl_->object->createSignal(interface, name);
  std::string signature;
  for (const auto& arg : args) signature += arg.signature();
  writeAll(signal, args, signature);
  quietly([&] { impl_->object->emitSignal(signal); });
}

void BusObject::emitAdded() {
  quietly([&] { impl_->object->emitInterfacesAddedSignal(impl_->interfaces); });
}

void BusObject::emitRemoved() {
  quietly([&] { impl_->object->emitInterfacesRemovedSignal(impl_->interfaces); });
}

std::unique_ptr<BusObject> Bus::exportObject(const std::string& path) {
  auto impl = std::make_unique<BusObject::Impl>();
  if (closed()) throw BusFailure("cannot export " + path + ": the bus is closed", kUnknownMethod);
  impl->path = path;
  impl->connection = impl_->connection;
  impl->object = sdbus::createObject(*impl_->connection, path);
  return std::make_unique<BusObject>(std::move(impl));
}

std::unique_ptr<BusObject> Bus::exportObjectManager(const std::string& path) {
  auto object = exportObject(path);
  try {
    object->impl_->object->addObjectManager();
  } catch (const sdbus::Error& e) {
    throw BusFailure("cannot export an object manager at " + path + ": " + e.getMessage(), e.getName());
  }
  return object;
}

}  // namespace tqble::bluez
