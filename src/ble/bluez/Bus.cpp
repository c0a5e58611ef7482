// The only file pair that speaks sdbus-c++ (with BusObjects.cpp): the connection, its
// messages read into BusValues by their signatures and written from them, calls to other
// services and signal subscriptions. Everything it hands over runs on the main queue.
#include "BusWire.h"

#include <systemd/sd-bus.h>

#include <cstring>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <span>
#include <string_view>

#include "tqble/platform/Log.h"
#include "tqble/platform/MainQueue.h"

namespace tqble::bluez {
namespace wire {

// sdbus-c++ 1.2 keeps its sd-bus message to itself; a class derived from it may name it.
struct RawMessage : sdbus::Message {
  static sd_bus_message* of(const sdbus::Message& m) {
    return static_cast<sd_bus_message*>(m.*(&RawMessage::msg_));
  }
};


[[noreturn]] void misfit(std::string_view signature) {
  throw BusFailure("value does not fit the D-Bus signature '" + std::string(signature) + "'",
                   "org.freedesktop.DBus.Error.InvalidArgs");
}

// End of the complete type starting at `at`.
std::size_t typeEnd(std::string_view sig, std::size_t at) {
  if (at >= sig.size()) misfit(sig);
  const char c = sig[at];
  if (c == 'a') return typeEnd(sig, at + 1);
  if (c == '(' || c == '{') {
    const char close = c == '(' ? ')' : '}';
    std::size_t i = at + 1;
    while (i < sig.size() && sig[i] != close) i = typeEnd(sig, i);
    if (i >= sig.size()) misfit(sig);
    return i + 1;
  }
  return at + 1;
}

std::vector<std::string> splitTypes(std::string_view sig) {
  std::vector<std::string> out;
  for (std::size_t at = 0; at < sig.size();) {
    const auto end = typeEnd(sig, at);
    out.emplace_back(sig.substr(at, end - at));
    at = end;
  }
  return out;
}

template <typename T>
const T& need(const BusValue& v, std::string_view sig) {
  if (const T* p = v.as<T>()) return *p;
  misfit(sig);
}

std::int64_t needInt(const BusValue& v, std::string_view sig) {
  if (const auto* b = v.as<bool>()) return *b;
  return need<std::int64_t>(v, sig);
}

// ---- Writing ---------------------------------------------------------------------------

void write(sdbus::Message& m, const BusValue& v, std::string_view sig);

void writeKey(sdbus::Message& m, const std::string& key, std::string_view sig) {
  if (sig == "o") m << sdbus::ObjectPath(key);
  else if (sig == "s") m << key;
  else misfit(sig);
}

void write(sdbus::Message& m, const BusValue& v, std::string_view sig) {
  if (sig.empty()) misfit(sig);
  switch (sig[0]) {
    case 'v': {
      const auto* wrapped = v.signature() == "v" ? v.as<BusList>() : nullptr;
      const BusValue& inner = wrapped && wrapped->size() == 1 ? wrapped->front() : v;
      if (inner.signature().empty() || inner.signature() == "v") misfit(sig);
      m.openVariant(inner.signature());
      write(m, inner, inner.signature());
      m.closeVariant();
      return;
    }
    case 'b': m << static_cast<bool>(needInt(v, sig)); return;
    case 'y': m << static_cast<std::uint8_t>(needInt(v, sig)); return;
    case 'n': m << static_cast<std::int16_t>(needInt(v, sig)); return;
    case 'q': m << static_cast<std::uint16_t>(needInt(v, sig)); return;
    case 'i': m << static_cast<std::int32_t>(needInt(v, sig)); return;
    case 'u': m << static_cast<std::uint32_t>(needInt(v, sig)); return;
    case 'x': m << needInt(v, sig); return;
    case 't': m << static_cast<std::uint64_t>(needInt(v, sig)); return;
    case 'd': {
      if (const auto* d = v.as<double>()) m << *d;
      else m << static_cast<double>(needInt(v, sig));
      return;
    }
    case 's': {
      if (const auto* bytes = v.as<Bytes>()) {
        // Text given as bytes goes out as it is, unchecked: what a misbehaving peer may send.
        char* space = nullptr;
        if (sd_bus_message_append_string_space(RawMessage::of(m), bytes->size(), &space) < 0) misfit(sig);
        std::copy(bytes->begin(), bytes->end(), space);
        return;
      }
      m << need<std::string>(v, sig);
      return;
    }
    case 'o': m << sdbus::ObjectPath(need<std::string>(v, sig)); return;
    case 'g': m << sdbus::Signature(need<std::string>(v, sig)); return;
    case 'a': {
      const std::string element(sig.substr(1));
      if (element == "y") {
        m << need<Bytes>(v, sig);
        return;
      }
      m.openContainer(element);
      if (element[0] == '{') {
        const std::string entry = element.substr(1, element.size() - 2);
        const auto parts = splitTypes(entry);
        if (parts.size() != 2) misfit(sig);
        if (const auto* dict = v.as<BusDict>()) {
          for (const auto& [key, value] : *dict) {
            m.openDictEntry(entry);
            writeKey(m, key, parts[0]);
            write(m, value, parts[1]);
            m.closeDictEntry();
          }
        } else {
          for (const auto& [key, value] : need<BusIntDict>(v, sig)) {
            m.openDictEntry(entry);
            write(m, BusValue(parts[0], key), parts[0]);
            write(m, value, parts[1]);
            m.closeDictEntry();
          }
        }
      } else if (const auto* texts = v.as<std::vector<std::string>>()) {
        for (const auto& text : *texts) write(m, BusValue(element, text), element);
      } else if (!v.as<std::monostate>()) {
        for (const auto& item : need<BusList>(v, sig)) write(m, item, element);
      }
      m.closeContainer();
      return;
    }
    case '(': {
      const std::string members(sig.substr(1, sig.size() - 2));
      const auto types = splitTypes(members);
      const auto& items = need<BusList>(v, sig);
      if (items.size() != types.size()) misfit(sig);
      m.openStruct(members);
      for (std::size_t i = 0; i < types.size(); ++i) write(m, items[i], types[i]);
      m.closeStruct();
      return;
    }
    default: misfit(sig);
  }
}

void writeAll(sdbus::Message& m, const BusList& values, std::string_view sig) {
  const auto types = splitTypes(sig);
  if (types.size() != values.size()) misfit(sig);
  for (std::size_t i = 0; i < types.size(); ++i) write(m, values[i], types[i]);
}

// ---- Reading ---------------------------------------------------------------------------
// Each reader returns nothing at the end of the enclosing container.

std::optional<BusValue> read(sdbus::Message& m, const std::string& sig);

template <typename T>
std::optional<BusValue> readInt(sdbus::Message& m, const std::string& sig) {
  T v{};
  m >> v;
  if (!m) return std::nullopt;
  return BusValue(sig, static_cast<std::int64_t>(v));
}

std::optional<BusValue> read(sdbus::Message& m, const std::string& sig) {
  switch (sig[0]) {
    case 'b': {
      bool v = false;
      m >> v;
      if (!m) return std::nullopt;
      return BusValue(v);
    }
    case 'y': return readInt<std::uint8_t>(m, sig);
    case 'n': return readInt<std::int16_t>(m, sig);
    case 'q': return readInt<std::uint16_t>(m, sig);
    case 'i': return readInt<std::int32_t>(m, sig);
    case 'u': return readInt<std::uint32_t>(m, sig);
    case 'x': return readInt<std::int64_t>(m, sig);
    case 't': return readInt<std::uint64_t>(m, sig);
    case 'd': {
      double v = 0;
      m >> v;
      if (!m) return std::nullopt;
      return BusValue(v);
    }
    case 's': case 'o': case 'g': {
      std::string v;
      if (sig[0] == 's') m >> v;
      else if (sig[0] == 'o') { sdbus::ObjectPath p; m >> p; v = p; }
      else { sdbus::Signature p; m >> p; v = p; }
      if (!m) return std::nullopt;
      return BusValue(sig, std::move(v));
    }
    case 'h': {
      sdbus::UnixFd fd;
      m >> fd;
      if (!m) return std::nullopt;
      return BusValue(sig, std::monostate{});
    }
    case 'v': {
      std::string type, contents;
      m.peekType(type, contents);
      if (!m.enterVariant(contents)) return std::nullopt;
      auto inner = read(m, contents);
      m.exitVariant();
      if (!inner) misfit(contents);
      return inner;
    }
    case 'a': {
      const std::string element = sig.substr(1);
      if (element == "y") {
        Bytes bytes;
        m >> bytes;
        if (!m) return std::nullopt;
        return BusValue(std::move(bytes));
      }
      if (!m.enterContainer(element)) return std::nullopt;
      BusValue::Data data;
      if (element[0] == '{') {
        const std::string entry = element.substr(1, element.size() - 2);
        const auto parts = splitTypes(entry);
        const bool textKeys = parts[0] == "s" || parts[0] == "o" || parts[0] == "g";
        BusDict texts;
        BusIntDict numbers;
        while (m.enterDictEntry(entry)) {
          auto key = read(m, parts[0]);
          auto value = read(m, parts[1]);
          m.exitDictEntry();
          if (!key || !value) misfit(sig);
          if (textKeys) texts.emplace(*key->as<std::string>(), std::move(*value));
          else numbers.emplace(needInt(*key, sig), std::move(*value));
        }
        if (textKeys) data = std::move(texts);
        else data = std::move(numbers);
      } else if (element == "s" || element == "o" || element == "g") {
        std::vector<std::string> texts;
        while (auto item = read(m, element)) texts.push_back(*item->as<std::string>());
        data = std::move(texts);
      } else {
        if (element == "v") misfit(sig);  // an end could not be told from an item
        BusList items;
        while (auto item = read(m, element)) items.push_back(std::move(*item));
        data = std::move(items);
      }
      m.clearFlags();
      m.exitContainer();
      return BusValue(sig, std::move(data));
    }
    case '(': {
      const std::string members = sig.substr(1, sig.size() - 2);
      if (!m.enterStruct(members)) return std::nullopt;
      BusList items;
      for (const auto& type : splitTypes(members)) {
        auto item = read(m, type);
        if (!item) misfit(sig);
        items.push_back(std::move(*item));
      }
      m.exitStruct();
      return BusValue(sig, std::move(items));
    }
    default: misfit(sig);
  }
}

BusList readAll(sdbus::Message& m, std::string_view sig) {
  BusList out;
  for (const auto& type : splitTypes(sig)) {
    auto value = read(m, type);
    if (!value) misfit(sig);
    out.push_back(std::move(*value));
  }
  return out;
}

namespace {

// The inbox of the connection being read on this thread, if any.
thread_local std::vector<Delivery>* tInbox = nullptr;

// The byte array of a PropertiesChanged that changes nothing but `Value` (ay) of
// `interface`, else nothing. sd-bus reads the interface (checking it); the rest of the body,
// in the sender's byte order, is read in place, as the bus daemon checked it against the
// signature before passing it on: every field is held to what it must be, and anything
// else is left to the generic reader.
std::optional<std::span<const std::uint8_t>> valueIn(sd_bus_message* raw, const std::string& interface) {
  const char* signature = sd_bus_message_get_signature(raw, 1);
  const char* text = nullptr;
  if (!signature || std::strcmp(signature, "sa{sv}as") != 0) return std::nullopt;
  if (sd_bus_message_read_basic(raw, 's', &text) <= 0) return std::nullopt;
  const auto* body = reinterpret_cast<const std::uint8_t*>(text) - 4;  // a string's length precedes it
  const auto word = [body](std::size_t at) {
    std::uint32_t v = 0;
    std::memcpy(&v, body + at, sizeof v);
    return v;
  };
  const auto align = [](std::size_t at, std::size_t to) { return (at + to - 1) / to * to; };
  static constexpr char kKey[] = "Value\0\2ay";  // the key's text, then the variant's signature
  const std::size_t length = align(4 + interface.size() + 1, 4);  // of the a{sv}'s entries, in bytes
  const std::size_t entry = align(length + 4, 8);
  const std::size_t array = align(entry + 4 + sizeof kKey, 4);
  // The length words read natively only in this machine's byte order. The entries' length,
  // which the daemon checked against the message's size, bounds every read after it.
  if (interface == text && word(0) == interface.size() && word(length) >= array + 4 - entry &&
      word(entry) == 5 &&
      std::memcmp(body + entry + 4, kKey, sizeof kKey) == 0 &&
      word(length) == array + 4 + word(array) - entry) {  // one entry only
    return std::span(body + array + 4, word(array));
  }
  sd_bus_message_rewind(raw, 1);  // for the generic reader
  return std::nullopt;
}

// Takes a characteristic's new value straight into `buffer`: one array read, no value tree.
// False (and nothing taken) for any other message.
bool takeValue(sdbus::Message& m, const std::string& interface, const std::shared_ptr<ValueBuffer>& buffer) {
  sd_bus_message* raw = RawMessage::of(m);
  const auto value = tInbox ? valueIn(raw, interface) : std::nullopt;
  if (!value) return false;
  auto& b = *buffer;
  if (b.used == b.items.size()) b.items.emplace_back();
  auto& [path, bytes] = b.items[b.used++];
  path.assign(sd_bus_message_get_path(raw));
  bytes.assign(value->begin(), value->end());
  if (!tInbox->empty() && tInbox->back().key == &b) ++tInbox->back().count;
  else tInbox->push_back(Delivery{{}, buffer, &b, 1});
  return true;
}

}  // namespace

// A signal that cannot be read costs only itself; the first of a kind is logged.
void refused(const BusSignal& signal, const std::exception& e) {
  static thread_local std::string last;
  if (last == signal.interface + signal.member) return;
  last = signal.interface + signal.member;
  TQLog("bus: a %s.%s signal of %s is left out: %s", signal.interface.c_str(), signal.member.c_str(),
        signal.path.c_str(), e.what());
}

void post(MainQueue::Task task) {
  if (tInbox) tInbox->push_back(Delivery{std::move(task), {}, nullptr, 0});
  else MainQueue::main().async(std::move(task));
}

}  // namespace wire

using namespace wire;

void Bus::Impl::dispatch() {
  // What each message hands over runs before the next is read: the inbox and the value
  // buffers keep their size however many messages one wake-up finds.
  for (bool more = true; more;) {
    auto* outer = tInbox;
    tInbox = &inbox;
    try {
      more = !closed && connection->processPendingRequest();
    } catch (const sdbus::Error& e) {
      // The bus daemon went away (sd-bus has already failed the calls awaiting replies).
      more = false;
      lost = true;
      closed = true;
      MainQueue::main().unwatch(watcher);
      for (const auto& weak : lossHandlers) {
        if (auto handler = weak.lock()) post([weak] { if (auto h = weak.lock()) (*h)(); });
      }
    }
    tInbox = outer;
    drain();
  }
}

void Bus::Impl::drain() {
  struct Rest {
    Impl& impl;
    ~Rest() {
      auto& inbox = impl.inbox;
      // A task threw: the others of this message still run, in order, after it.
      for (; impl.next < inbox.size(); ++impl.next) {
        auto& d = inbox[impl.next];
        if (d.task) {
          MainQueue::main().async(std::move(d.task));
        } else if (auto b = d.values.lock()) {
          std::vector<std::pair<std::string, Bytes>> left(b->items.begin() + static_cast<std::ptrdiff_t>(b->next),
                                                          b->items.begin() + static_cast<std::ptrdiff_t>(b->next + d.count));
          b->next += d.count;
          if (b->next == b->used) b->next = b->used = 0;
          MainQueue::main().async([b, left = std::move(left)] {
            for (const auto& [path, bytes] : left) b->handler(path, bytes);
          });
        }
      }
      inbox.clear();
      impl.next = 0;
    }
  } rest{*this};
  while (next < inbox.size()) {
    if (inbox[next].task) {
      auto task = std::move(inbox[next++].task);
      task();
      continue;
    }
    auto b = inbox[next].values.lock();
    while (b && inbox[next].count > 0) {
      --inbox[next].count;
      const auto& [path, bytes] = b->items[b->next++];
      if (b->next == b->used) b->next = b->used = 0;  // the slot stays readable until reused
      b->handler(path, bytes);
    }
    ++next;
  }
}

Bus::Bus(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

Bus::~Bus() { close(); }

std::shared_ptr<Bus> Bus::openSystem() {
  MainQueue::main();  // made first, so that it outlives every bus
  auto impl = std::make_unique<Impl>();
  try {
    impl->connection = sdbus::createSystemBusConnection();
    impl->uniqueName = impl->connection->getUniqueName();
  } catch (const sdbus::Error& e) {
    throw BusFailure("cannot reach the system bus: " + e.getMessage(), e.getName());
  }
  // The main queue reads the connection itself: one wake-up per message, no hand-over.
  Impl* raw = impl.get();
  raw->watcher = MainQueue::main().watch(
      [raw] {
        MainQueue::Interest interest;
        try {
          const auto poll = raw->connection->getEventLoopPollData();
          interest.fd = poll.fd;
          interest.events = poll.events;
          if (const auto left = poll.getRelativeTimeout()) interest.deadline = MainQueue::Clock::now() + *left;
        } catch (const sdbus::Error&) {
          interest.deadline = MainQueue::Clock::now();  // broken: reading it tells
        }
        return interest;
      },
      [raw] { raw->dispatch(); });
  return std::make_shared<Bus>(std::move(impl));
}

std::shared_ptr<Bus> Bus::system() {
  MainQueue::main();
  struct Shared {
    std::mutex mutex;
    std::shared_ptr<Bus> bus;
    ~Shared() {
      if (bus) bus->close();
    }
  };
  static Shared shared;
  std::lock_guard lock(shared.mutex);
  if (!shared.bus || shared.bus->closed()) shared.bus = openSystem();
  return shared.bus;
}

std::string Bus::uniqueName() const { return impl_->uniqueName; }

bool Bus::closed() const { return impl_->closed.load(); }

bool Bus::lost() const { return impl_->lost; }

BusSubscription Bus::whenLost(std::function<void()> handler) {
  auto token = std::make_shared<std::function<void()>>(std::move(handler));
  std::erase_if(impl_->lossHandlers, [](const auto& weak) { return weak.expired(); });
  impl_->lossHandlers.push_back(token);
  return BusSubscription(token);
}

void Bus::close() {
  MainQueue::main().unwatch(impl_->watcher);
  if (impl_->closed.exchange(true)) return;
  std::lock_guard lock(impl_->mutex);
  for (const auto& [key, f] : impl_->farewells) {
    try {
      auto message = impl_->proxy(f.service, f.path).createMethodCall(f.interface, f.method);
      message.dontExpectReply();
      impl_->proxy(f.service, f.path).callMethod(message);
    } catch (const sdbus::Error&) {
      // the peer may be gone already; nothing is owed to it
    }
  }
  impl_->farewells.clear();
  impl_->inFlight.clear();
  impl_->proxies.clear();
  impl_->connection.reset();  // flushes and disconnects, once no object or subscription holds it
}

void Bus::call(const std::string& service, const std::string& path, const std::string& interface,
               const std::string& method, const BusList& args, std::chrono::milliseconds timeout,
               const std::string& replySignature, ReplyHandler onReply) {
  std::lock_guard lock(impl_->mutex);
  if (closed()) return;
  auto& proxy = impl_->proxy(service, path);
  auto message = proxy.createMethodCall(interface, method);
  std::string signature;
  for (const auto& arg : args) signature += arg.signature();
  writeAll(message, args, signature);
  auto handler = [onReply = std::move(onReply), replySignature](sdbus::MethodReply& reply,
                                                                 const sdbus::Error* error) {
    if (!onReply) return;
    BusReply out;
    if (error) {
      out.error = BusError{error->getName(), error->getMessage()};
    } else {
      try {
        out.values = readAll(reply, replySignature);
      } catch (const std::exception& e) {
        // Not the values expected, or ones sd-bus will not read (a text that is no valid UTF-8).
        out.error = BusError{kUnreadable, e.what()};
      }
    }
    post([onReply, out = std::move(out)] { onReply(out); });
  };
  try {
    // The handles are dropped once answered, on a later call: dropping one while the bus
    // thread still finishes the call races inside the library.
    std::erase_if(impl_->inFlight, [](const sdbus::PendingAsyncCall& c) { return !c.isPending(); });
    impl_->inFlight.push_back(
        proxy.callMethod(message, std::move(handler), std::chrono::duration_cast<std::chrono::microseconds>(timeout)));
  } catch (const sdbus::Error& e) {
    if (onReply) post([onReply, err = BusError{e.getName(), e.getMessage()}] { onReply(BusReply{err, {}}); });
  }
}

void Bus::callOnClose(const std::string& key, const std::string& service, const std::string& path,
                      const std::string& interface, const std::string& method) {
  std::lock_guard lock(impl_->mutex);
  impl_->farewells[key] = {service, path, interface, method};
}

void Bus::cancelOnClose(const std::string& key) {
  std::lock_guard lock(impl_->mutex);
  impl_->farewells.erase(key);
}

BusSubscription Bus::subscribe(const std::string& rule, const std::string& signature, SignalHandler handler) {
  if (closed() || !impl_->connection) return {};
  struct State {
    std::shared_ptr<sdbus::IConnection> connection;  // outlives `slot`
    SignalHandler handler;
    sdbus::Slot slot;
  };
  auto state = std::make_shared<State>();
  state->connection = impl_->connection;
  state->handler = std::move(handler);
  std::weak_ptr<State> weak = state;
  try {
    state->slot = impl_->connection->addMatch(rule, [weak, signature](sdbus::Message& m) {
      BusSignal signal{m.getSender(), m.getPath(), m.getInterfaceName(), m.getMemberName(), {}};
      try {
        signal.args = readAll(m, signature);
      } catch (const std::exception& e) {
        refused(signal, e);  // not the shape subscribed to
        return;
      }
      post([weak, signal = std::move(signal)] {
        if (auto s = weak.lock()) s->handler(signal);
      });
    });
  } catch (const sdbus::Error& e) {
    throw BusFailure("match rule refused: " + e.getMessage(), e.getName());
  }
  return BusSubscription(state);
}

BusSubscription Bus::subscribeProperties(const std::string& rule, const std::string& interface, SignalHandler handler,
                                         ValueHandler onValue) {
  if (closed() || !impl_->connection) return {};
  struct State {
    std::shared_ptr<sdbus::IConnection> connection;  // outlives `slot`
    SignalHandler handler;
    std::shared_ptr<ValueBuffer> values = std::make_shared<ValueBuffer>();
    sdbus::Slot slot;
  };
  auto state = std::make_shared<State>();
  state->connection = impl_->connection;
  state->handler = std::move(handler);
  state->values->handler = std::move(onValue);
  std::weak_ptr<State> weak = state;
  try {
    state->slot = impl_->connection->addMatch(rule, [weak, interface](sdbus::Message& m) {
      auto s = weak.lock();
      if (!s || takeValue(m, interface, s->values)) return;
      BusSignal signal{m.getSender(), m.getPath(), m.getInterfaceName(), m.getMemberName(), {}};
      try {
        signal.args = readAll(m, "sa{sv}as");
      } catch (const std::exception& e) {
        refused(signal, e);
        return;
      }
      post([weak, signal = std::move(signal)] {
        if (auto s = weak.lock()) s->handler(signal);
      });
    });
  } catch (const sdbus::Error& e) {
    throw BusFailure("match rule refused: " + e.getMessage(), e.getName());
  }
  return BusSubscription(state);
}

void Bus::requestName(const std::string& name) {
  try {
    impl_->connection->requestName(name);
  } catch (const sdbus::Error& e) {
    throw BusFailure("cannot own " + name + ": " + e.getMessage(), e.getName());
  }
}

void Bus::releaseName(const std::string& name) {
  try {
    impl_->connection->releaseName(name);
  } catch (const sdbus::Error&) {
    // not ours any more
  }
}

const BusValue* BusValue::at(const std::string& key) const {
  const auto* dict = as<BusDict>();
  if (!dict) return nullptr;
  auto it = dict->find(key);
  return it == dict->end() ? nullptr : &it->second;
}

}  // namespace tqble::bluez
