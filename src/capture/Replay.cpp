// The conversation replayed through the manager: every request issues its command, so
// the manager expects what it expected in the field; every piece is a value update, so
// the manager's own end-of-answer rules and decoders decide what the answer was.
#include <map>

#include "protocol/Frame.h"
#include "protocol/FrameChecks.h"
#include "tqble/TQBleManager.h"
#include "tqble/capture/Capture.h"

namespace tqble::capture {
namespace {

using Operation = void (TQBleManager::*)(const TQErrorHandler&);

void setVolume(TQBleManager& m) { m.setVolumeWithVolumeSize(0, nullptr); }
void reserve(TQBleManager& m) { m.orderChargerWithStartHour(0, 0, 0, 0, nullptr); }

struct Known {
  std::uint8_t code;
  const char* name;
  Operation operation;           // the operations that take only a handler
  void (*withArguments)(TQBleManager&);  // the others: arguments do not change the answer
};

// Code 0xB5 is also queryChargingDataWithError's, which differs only in keeping the buffer.
constexpr Known kKnown[] = {
    {protocol::kCmdSynchroTime, "synchroTimeWithError", &TQBleManager::synchroTimeWithError, nullptr},
    {protocol::kCmdSystemInfo, "querySystemInfoWithError", &TQBleManager::querySystemInfoWithError,
     nullptr},
    {protocol::kCmdVolume, "setVolumeWithVolumeSize", nullptr, setVolume},
    {protocol::kCmdOrder, "orderChargerWithStartHour", nullptr, reserve},
    {protocol::kCmdStartCharging, "startChargingWithError", &TQBleManager::startChargingWithError,
     nullptr},
    {protocol::kCmdChargerState, "queryChargerStateWithError",
     &TQBleManager::queryChargerStateWithError, nullptr},
    {protocol::kCmdStopCharge, "stopChargeWithError", &TQBleManager::stopChargeWithError, nullptr},
    {protocol::kCmdHistory, "queryHistoryChargingListWithError",
     &TQBleManager::queryHistoryChargingListWithError, nullptr},
    {protocol::kCmdCumulation, "queryCumulationElecQuantityWithError",
     &TQBleManager::queryCumulationElecQuantityWithError, nullptr},
    {protocol::kCmdErrorLog, "queryHistoryErrorLogListWithError",
     &TQBleManager::queryHistoryErrorLogListWithError, nullptr},
    {protocol::kCmdDiagnosis, "runningDiagnosticInfoWithError",
     &TQBleManager::runningDiagnosticInfoWithError, nullptr},
};

const Known* known(const Bytes& request) {
  if (request.size() < 2) return nullptr;
  for (const auto& k : kKnown) {
    if (k.code == request[1]) return &k;
  }
  return nullptr;
}

// The value the manager reads as the notified characteristic's.
class Notified : public ble::Characteristic {
 public:
  explicit Notified(Bytes value) : value_(std::move(value)) {}
  ble::UUID uuid() const override { return ble::UUID::fromString("FFF4"); }
  std::uint64_t properties() const override { return ble::CharacteristicPropertyNotify; }
  Bytes value() const override { return value_; }
  std::shared_ptr<ble::Service> service() const override { return {}; }

 private:
  Bytes value_;
};

// What the manager holds for one link between its pieces.
struct Pending {
  std::int64_t cmdType = 0;
  std::optional<Bytes> buffer;
  std::optional<std::size_t> exchange;  // the last exchange of the link
};

std::string bytesCount(std::size_t n) {
  return std::to_string(n) + (n == 1 ? " byte" : " bytes");
}

class Replayer {
 public:
  Replayer(Traffic traffic, TQBleManager& manager)
      : manager_(manager), savedType_(manager.cmdType()), savedDelegate_(manager.delegate()) {
    if (auto& buffer = manager.systemInfoData(); !buffer.empty()) savedBuffer_ = buffer;
    timeline_.traffic = std::move(traffic);
    links_.resize(timeline_.traffic.links.size());
    observer_ = manager.addAnswerObserver([this](std::int64_t cmdType, const Bytes& answer) {
      dispatched_ = Answer{answer, cmdType, 0, nullptr, {}, {}};
    });
    delegate_ = std::make_shared<TQBleManagerDelegate>();
    delegate_->didUpdateValueForCharacteristicValue =
        [this](TQBleManager&, const std::shared_ptr<TQBleDataModel>& model,
               const std::optional<TQError>&) { delivered_ = model; };
    manager.setDelegate(delegate_);
  }

  ~Replayer() {
    manager_.removeAnswerObserver(observer_);
    manager_.setDelegate(savedDelegate_);
    manager_.setCmdType(savedType_);
    manager_.setSystemInfoData(savedBuffer_);
  }
  Replayer(const Replayer&) = delete;
  Replayer& operator=(const Replayer&) = delete;

  Timeline run() {
    for (const Piece& piece : timeline_.traffic.pieces) {
      Pending& link = links_[piece.link];
      manager_.setCmdType(link.cmdType);
      manager_.setSystemInfoData(link.buffer);
      piece.write ? request(link, piece) : answerPiece(link, piece);
      link.cmdType = manager_.cmdType();
      link.buffer = manager_.systemInfoData();
    }
    for (Pending& link : links_) unanswered(link, "by the end of the capture");
    for (std::size_t i = 0; i < timeline_.traffic.links.size(); ++i) {
      const Link& link = timeline_.traffic.links[i];
      if (link.values && (!link.handles.write || !link.handles.notify)) {
        timeline_.notes.push_back(
            "link " + std::to_string(i + 1) + ": " + std::to_string(link.values) +
            " ATT values, but the capture has no discovery of FFF3 and FFF4: give their handles");
      }
    }
    return std::move(timeline_);
  }

 private:
  void request(Pending& link, const Piece& piece) {
    unanswered(link, "before the next request");
    Exchange exchange{piece.link, piece, {}, {}, {}, {}};
    if (const Known* k = known(piece.value)) {
      exchange.command = k->name;
      k->operation ? (manager_.*(k->operation))(nullptr) : k->withArguments(manager_);
    } else {
      exchange.warnings.push_back("the request is none of the twelve commands: not replayed");
    }
    for (auto& w : protocol::headerWarnings(piece.value, piece.value)) {
      exchange.warnings.push_back("request: " + w);
    }
    link.exchange = timeline_.exchanges.size();
    timeline_.exchanges.push_back(std::move(exchange));
  }

  void answerPiece(Pending& link, const Piece& piece) {
    const bool awaited = manager_.cmdType() != 0;
    dispatched_.reset();
    delivered_.reset();
    std::string thrown;
    try {
      manager_.didUpdateValueForCharacteristic(nullptr, std::make_shared<Notified>(piece.value),
                                               std::nullopt);
    } catch (const std::exception& e) {
      thrown = e.what();
    }
    if (!awaited || !link.exchange) {
      // The manager dropped it: nothing was pending.
      const bool frameStart = piece.value.size() >= protocol::kFrameHeaderLength &&
                              piece.value[0] == protocol::kStartByte;
      Exchange stray{piece.link, {}, {}, {piece}, {}, {}};
      stray.warnings.push_back(frameStart || !link.exchange
                                   ? "an answer with no request: the manager ignores it"
                                   : "an extra piece after the answer: the manager ignores it");
      timeline_.exchanges.push_back(std::move(stray));
      return;
    }
    Exchange& exchange = timeline_.exchanges[*link.exchange];
    exchange.pieces.push_back(piece);
    if (!dispatched_) return;
    Answer answer = std::move(*dispatched_);
    answer.latency = piece.time - exchange.request->time;
    answer.model = delivered_;
    answer.decoderError = thrown;
    if (answer.cmdType == 2) {
      for (const auto& row : manager_.systemTitleArr()) answer.rows.push_back(*row);
    }
    for (auto& w : protocol::headerWarnings(exchange.request->value, answer.frame)) {
      exchange.warnings.push_back(w);
    }
    if (const std::size_t declared = protocol::declaredBodyLength(answer.frame) +
                                     protocol::kFrameHeaderLength;
        answer.frame.size() >= protocol::kFrameHeaderLength && answer.frame.size() < declared) {
      exchange.warnings.push_back("a piece is lost: " + bytesCount(declared - answer.frame.size()) +
                                  " of the answer never arrived");
    }
    if (!thrown.empty()) exchange.warnings.push_back("the manager's decoder threw: " + thrown);
    exchange.answer = std::move(answer);
  }

  // A request whose answer the manager has not dispatched.
  void unanswered(Pending& link, const std::string& when) {
    if (!link.exchange) return;
    Exchange& exchange = timeline_.exchanges[*link.exchange];
    if (exchange.answer || !exchange.request) return;
    if (exchange.pieces.empty()) {
      exchange.warnings.push_back("no answer " + when);
      return;
    }
    std::size_t gathered = 0;
    for (const auto& p : exchange.pieces) gathered += p.value.size();
    std::string why = "the answer is incomplete " + when + ": " + bytesCount(gathered) + " gathered";
    const Bytes& first = exchange.pieces.front().value;
    if (first.size() >= protocol::kFrameHeaderLength) {
      const std::size_t declared = protocol::declaredBodyLength(first) + protocol::kFrameHeaderLength;
      why += ", the length field announces " + std::to_string(declared);
      if (gathered < declared) why += ": a piece is lost";
    }
    exchange.warnings.push_back(why);
  }

  TQBleManager& manager_;
  std::int64_t savedType_;
  std::optional<Bytes> savedBuffer_;
  std::weak_ptr<TQBleManagerDelegate> savedDelegate_;
  std::shared_ptr<TQBleManagerDelegate> delegate_;
  std::uint64_t observer_ = 0;
  std::optional<Answer> dispatched_;
  std::shared_ptr<TQBleDataModel> delivered_;
  Timeline timeline_;
  std::vector<Pending> links_;
};

}  // namespace

Timeline replay(Traffic traffic, TQBleManager& manager) {
  return Replayer(std::move(traffic), manager).run();
}

}  // namespace tqble::capture
