#include "CommandCatalogue.h"

#include <algorithm>
#include <cctype>
#include <charconv>

#include "tqble/ZDataCoverTool.h"
#include "tqble/ble/CentralManager.h"
#include "tqble/platform/Log.h"

namespace tqble::cli {
namespace {

// A command that takes only its completion handler.
template <void (TQBleManager::*Operation)(const TQErrorHandler&)>
void plain(TQBleManager& m, const Args&, const TQErrorHandler& error) {
  (m.*Operation)(error);
}

template <typename T>
Completion<T> asJson(bool raw, Completion<Json> done) {
  return [raw, done = std::move(done)](const Outcome<T>& o) {
    done(o.ok() ? Outcome<Json>(answerJson(o.value(), raw)) : Outcome<Json>(o.error()));
  };
}

// A client request that takes only its completion.
template <typename T, Pending<T> (ChargerClient::*Request)(Completion<T>)>
void ask(ChargerClient& c, const Args&, bool raw, Completion<Json> done) {
  (c.*Request)(asJson<T>(raw, std::move(done)));
}

class WriteCharacteristic : public ble::Characteristic {
 public:
  ble::UUID uuid() const override { return ble::UUID::fromString("FFF3"); }
  std::uint64_t properties() const override {
    return ble::CharacteristicPropertyWriteWithoutResponse;
  }
  Bytes value() const override { return {}; }
  std::shared_ptr<ble::Service> service() const override { return {}; }
};

class NullCentral : public ble::CentralManager {
 public:
  std::int64_t state() const override { return ble::CentralManagerStatePoweredOn; }
  void scanForPeripheralsWithServices(const std::vector<ble::UUID>&, const Dictionary&) override {}
  void stopScan() override {}
  void connectPeripheral(const std::shared_ptr<ble::Peripheral>&, const Dictionary&) override {}
  void cancelPeripheralConnection(const std::shared_ptr<ble::Peripheral>&) override {}
};

}  // namespace

class RecordingPost : public ble::Peripheral {
 public:
  std::string identifier() const override { return "tqble-cli"; }
  std::string name() const override { return "recording post"; }
  void setDelegate(std::weak_ptr<ble::PeripheralDelegate>) override {}
  void discoverServices(const std::vector<ble::UUID>&) override {}
  std::vector<std::shared_ptr<ble::Service>> services() const override { return {}; }
  void discoverCharacteristics(const std::vector<ble::UUID>&,
                               const std::shared_ptr<ble::Service>&) override {}
  void readValueForCharacteristic(const std::shared_ptr<ble::Characteristic>&) override {}
  void setNotifyValue(bool, const std::shared_ptr<ble::Characteristic>&) override {}
  void writeValue(const Bytes& data, const std::shared_ptr<ble::Characteristic>&,
                  ble::WriteType) override {
    writes.push_back(data);
  }
  std::vector<Bytes> writes;
};

const std::vector<Command>& commands() {
  static const std::vector<Command> kCommands = {
      {"synchroTimeWithError", "time", {}, AnswerKind::Result,
       plain<&TQBleManager::synchroTimeWithError>, ask<SettingResult, &ChargerClient::synchroTime>},
      {"querySystemInfoWithError", "info", {}, AnswerKind::SystemInfo,
       plain<&TQBleManager::querySystemInfoWithError>,
       ask<SystemInfo, &ChargerClient::querySystemInfo>},
      {"setVolumeWithVolumeSize", "volume", {"volume"}, AnswerKind::Result,
       [](TQBleManager& m, const Args& a, const TQErrorHandler& e) {
         m.setVolumeWithVolumeSize(a[0], e);
       },
       [](ChargerClient& c, const Args& a, bool raw, Completion<Json> done) {
         c.setVolume(a[0], asJson<SettingResult>(raw, std::move(done)));
       }},
      {"orderChargerWithStartHour", "reserve", {"startHour", "startMinute", "endHour", "endMinute"},
       AnswerKind::Result,
       [](TQBleManager& m, const Args& a, const TQErrorHandler& e) {
         m.orderChargerWithStartHour(a[0], a[1], a[2], a[3], e);
       },
       [](ChargerClient& c, const Args& a, bool raw, Completion<Json> done) {
         c.reserve(a[0], a[1], a[2], a[3], asJson<SettingResult>(raw, std::move(done)));
       }},
      {"startChargingWithError", "start", {}, AnswerKind::Result,
       plain<&TQBleManager::startChargingWithError>,
       ask<SettingResult, &ChargerClient::startCharging>},
      {"queryChargerStateWithError", "state", {}, AnswerKind::ChargerState,
       plain<&TQBleManager::queryChargerStateWithError>,
       ask<ChargerState, &ChargerClient::queryChargerState>},
      {"stopChargeWithError", "stop", {}, AnswerKind::Result,
       plain<&TQBleManager::stopChargeWithError>, ask<SettingResult, &ChargerClient::stopCharging>},
      // Answered with the charger-state layout: the manager decodes it so.
      {"queryChargingDataWithError", "data", {}, AnswerKind::ChargerState,
       plain<&TQBleManager::queryChargingDataWithError>,
       ask<ChargerState, &ChargerClient::queryChargingData>},
      {"queryHistoryChargingListWithError", "history", {}, AnswerKind::History,
       plain<&TQBleManager::queryHistoryChargingListWithError>,
       ask<ChargingHistory, &ChargerClient::queryHistory>},
      {"queryCumulationElecQuantityWithError", "energy", {}, AnswerKind::Energy,
       plain<&TQBleManager::queryCumulationElecQuantityWithError>,
       ask<CumulativeEnergy, &ChargerClient::queryCumulativeEnergy>},
      {"queryHistoryErrorLogListWithError", "errors", {}, AnswerKind::ErrorLog,
       plain<&TQBleManager::queryHistoryErrorLogListWithError>,
       ask<ErrorLog, &ChargerClient::queryErrorLog>},
      {"runningDiagnosticInfoWithError", "diagnostics", {}, AnswerKind::Diagnosis,
       plain<&TQBleManager::runningDiagnosticInfoWithError>,
       ask<Diagnostics, &ChargerClient::queryDiagnostics>},
  };
  return kCommands;
}

const Command& findCommand(const std::string& name) {
  for (const auto& command : commands()) {
    if (name == command.name || name == command.shortName) return command;
  }
  throw UsageError("unknown command '" + name + "'");
}

RecordingStack::RecordingStack(bool log) {
  if (!log) setLogSink([](std::string_view) {});
  const bool first = TQBleManager::useCentralFactory(
      [](std::weak_ptr<ble::CentralManagerDelegate>) { return std::make_shared<NullCentral>(); });
  if (!first) throw std::runtime_error("the manager already exists");
  manager_ = TQBleManager::shareManager();
  post_ = std::make_shared<RecordingPost>();
  // Connected and ready to write; nothing ever runs the query queued for later.
  manager_->didConnectPeripheral(*manager_->centralManager(), post_);
  manager_->setWriteCharacteristic(std::make_shared<WriteCharacteristic>());
}

const std::vector<Bytes>& RecordingStack::writes() const {
  return post_->writes;
}

Bytes parseHex(const std::string& text) {
  std::string digits;
  bool groupStart = true;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    const auto u = static_cast<unsigned char>(c);
    if (std::isspace(u) || c == '-' || c == ':') {
      groupStart = true;
      continue;
    }
    // A group may start with 0x, as generic BLE apps and C sources write bytes.
    if (groupStart && c == '0' && i + 1 < text.size() && (text[i + 1] == 'x' || text[i + 1] == 'X')) {
      ++i;
      groupStart = false;
      continue;
    }
    groupStart = false;
    if (!std::isxdigit(u)) {
      // The position, not the character: a byte of a multi-byte character is no text.
      throw UsageError("not a hex digit at position " + std::to_string(i + 1));
    }
    digits.push_back(c);
  }
  if (digits.size() % 2)
    throw UsageError("odd number of hex digits (" + std::to_string(digits.size()) + ")");
  return ZDataCoverTool::hexToBytes(digits);
}

std::string spacedHex(const Bytes& bytes) {
  std::string text;
  for (std::uint8_t byte : bytes) {
    if (!text.empty()) text.push_back(' ');
    text += ZDataCoverTool::coverFromIntToHex(byte);
  }
  return text;
}

std::size_t displayWidth(const std::string& s) {
  std::size_t width = 0;
  for (std::size_t i = 0; i < s.size();) {
    const auto lead = static_cast<unsigned char>(s[i]);
    const std::size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    width += length >= 3 ? 2 : 1;
    i += length;
  }
  return width;
}

std::string padded(const std::string& s, std::size_t columns) {
  const std::size_t width = displayWidth(s);
  return s + std::string(columns > width ? columns - width : 1, ' ');
}

std::int64_t parseInteger(const std::string& text, const std::string& what, std::int64_t min,
                          std::int64_t max) {
  std::int64_t value = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (text.empty() || error != std::errc() || stop != end || value < min || value > max) {
    throw UsageError(what + " must be an integer from " + std::to_string(min) + " to " +
                     std::to_string(max) + ", not '" + text + "'");
  }
  return value;
}

}  // namespace tqble::cli
