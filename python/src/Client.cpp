#include "Client.h"

#include "Answers.h"

namespace tqble::python {
namespace {

// The manager is one per process, and so is the client standing on it.
bool clientOpen = false;

template <typename... Args>
void call(const py::object& callable, Args&&... args) {
  try {
    callable(std::forward<Args>(args)...);
  } catch (py::error_already_set& e) {
    // A failing callback must not unwind through the main queue.
    e.discard_as_unraisable("in a tqble callback");
  }
}

const char* const kLinkEvents[] = {"connecting", "ready", "lost", "reconnecting", "closed"};

}  // namespace

Client::Client(const ClientOptions& options) {
  if (clientOpen) {
    throw ClientInUse(
        "a tqble client is already open in this process (the SDK runs one link per process): "
        "close it before opening another");
  }
  client_ = std::make_unique<ChargerClient>(options);
  clientOpen = true;
  client_->setLinkObserver([link = std::weak_ptr<py::object>(link_)](const LinkChange& c) {
    const auto callable = link.lock();
    if (!callable || !*callable) return;
    call(*callable, kLinkEvents[static_cast<int>(c.event)],
         c.reason ? toPython(*c.reason) : py::object(py::none()), c.attempt);
  });
  // The radio's own report that a link closed, for close() to wait on.
  delegate_ = std::make_shared<TQBleManagerDelegate>();
  delegate_->didDisconnectPeripheral = [released = std::weak_ptr<py::object>(released_)](
                                           TQBleManager&, const auto&, const auto&) {
    if (const auto callable = released.lock(); callable && *callable) call(*callable);
  };
  client_->setDelegate(delegate_);
}

Client::~Client() {
  close();
}

void Client::close() {
  if (!client_) return;
  client_->stopScan();
  client_->disconnect();  // completes every waiting request
  client_.reset();
  waiting_->clear();
  *heard_ = py::object();
  *link_ = py::object();
  *released_ = py::object();
  clientOpen = false;
}

ChargerClient& Client::open() {
  if (!client_) throw std::runtime_error("the client is closed");
  return *client_;
}

// The callable waits in the table under a number; the completion finds it there, unless
// the client has gone (then the table has gone with it).
template <typename T>
Completion<T> Client::completion(py::function done) {
  const auto id = next_++;
  waiting_->emplace(id, std::move(done));
  return [waiting = std::weak_ptr<Waiting>(waiting_), id](const Outcome<T>& outcome) {
    const auto table = waiting.lock();
    if (!table) return;
    const auto found = table->find(id);
    if (found == table->end()) return;
    const py::object done = std::move(found->second);
    table->erase(found);
    if (outcome.ok()) {
      call(done, toPython(outcome.value()), py::none());
    } else {
      call(done, py::none(), toPython(outcome.error()));
    }
  };
}

RequestHandle Client::connect(const std::string& nameOrIdentifier, py::function done) {
  auto finish = completion<ChargerClient::PeripheralPtr>(std::move(done));
  return open().connect(nameOrIdentifier, std::move(finish));
}

void Client::disconnect() {
  open().disconnect();
}

bool Client::linked() {
  return client_ && client_->manager().connectedPheral() != nullptr;
}

void Client::onLink(py::function link) {
  *link_ = std::move(link);
}

void Client::onReleased(py::function released) {
  *released_ = std::move(released);
}

bool Client::ready() const {
  return client_ && client_->ready();
}

std::string Client::radioNote() const {
  return client_ ? client_->radioNote() : std::string();
}

void Client::scan(py::function heard) {
  *heard_ = std::move(heard);
  open().scan([heard = std::weak_ptr<py::object>(heard_)](const auto& peripheral, std::int64_t rssi) {
    if (const auto callable = heard.lock(); callable && *callable) {
      call(*callable, toPython(peripheral, rssi));
    }
  });
}

void Client::stopScan() {
  open().stopScan();
  *heard_ = py::object();
}

RequestHandle Client::synchroTime(py::function done) {
  return open().synchroTime(completion<SettingResult>(std::move(done)));
}

RequestHandle Client::querySystemInfo(py::function done) {
  return open().querySystemInfo(completion<SystemInfo>(std::move(done)));
}

RequestHandle Client::setVolume(std::int64_t volume, py::function done) {
  if (volume < 0 || volume > 100) throw py::value_error("volume must be 0-100, not " + std::to_string(volume));
  return open().setVolume(volume, completion<SettingResult>(std::move(done)));
}

RequestHandle Client::reserve(std::int64_t startHour, std::int64_t startMinute, std::int64_t endHour,
                     std::int64_t endMinute, py::function done) {
  return open().reserve(startHour, startMinute, endHour, endMinute,
                 completion<SettingResult>(std::move(done)));
}

RequestHandle Client::startCharging(py::function done) {
  return open().startCharging(completion<SettingResult>(std::move(done)));
}

RequestHandle Client::stopCharging(py::function done) {
  return open().stopCharging(completion<SettingResult>(std::move(done)));
}

RequestHandle Client::queryChargerState(py::function done) {
  return open().queryChargerState(completion<ChargerState>(std::move(done)));
}

RequestHandle Client::queryChargingData(py::function done) {
  return open().queryChargingData(completion<ChargerState>(std::move(done)));
}

RequestHandle Client::queryHistory(py::function done) {
  return open().queryHistory(completion<ChargingHistory>(std::move(done)));
}

RequestHandle Client::queryCumulativeEnergy(py::function done) {
  return open().queryCumulativeEnergy(completion<CumulativeEnergy>(std::move(done)));
}

RequestHandle Client::queryErrorLog(py::function done) {
  return open().queryErrorLog(completion<ErrorLog>(std::move(done)));
}

RequestHandle Client::queryDiagnostics(py::function done) {
  return open().queryDiagnostics(completion<Diagnostics>(std::move(done)));
}

int Client::eventFd() {
  return open().eventFd();
}

std::size_t Client::dispatch() {
  return open().dispatch();
}

}  // namespace tqble::python
