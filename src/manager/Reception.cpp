// Answer reception: gathers the pieces of an answer by the pending command's rule,
// dispatches the whole answer to its decoder and reports every update to the delegate.
#include "protocol/Frame.h"
#include "tqble/TQBleManager.h"
#include "tqble/platform/Log.h"

namespace tqble {

using namespace protocol;  // answer lengths

void TQBleManager::analysisData(const std::optional<Bytes>& data) {
  if (!data) {
    if (cmdType_ == 7) analysisStopCharge();
    return;
  }
  const Bytes& answer = *data;
  // Tested in this order, first match wins; the second test for 13 is never reached.
  if (cmdType_ == 2) {
    analysisQuerySystemInfo(answer);
  } else if (cmdType_ == 13) {
    analysisChargeOperationDiagnosisInfo(answer);
  } else if (cmdType_ == 1) {
    analysisSynchroTime(answer);
  } else if (cmdType_ == 3) {
    analysisSetVolume(answer);
  } else if (cmdType_ == 5) {
    analysisCharging(answer);
  } else if (cmdType_ == 6) {
    analysisQueryState(answer);
  } else if (cmdType_ == 7) {
    analysisStopCharge();
  } else if (cmdType_ == 8) {
    analysisQueryChargingHistoryList(answer);
  } else if (cmdType_ == 15) {
    analysisQueryHistoryErrorLogList(answer);
  } else if (cmdType_ == 9) {
    analysisQueryTotalChargingCapacity(answer);
  } else if (cmdType_ == 13) {
    analysisRuningDiagnosisInfo(answer);
  } else if (cmdType_ == 14) {
    analysisQueryChargingData(answer);
  } else if (cmdType_ == 4) {
    analysisChargingOrderTime(answer);
  }
}

std::uint64_t TQBleManager::addAnswerObserver(AnswerObserver observer) {
  const auto token = nextAnswerObserver_++;
  answerObservers_.emplace_back(token, std::move(observer));
  return token;
}

void TQBleManager::removeAnswerObserver(std::uint64_t token) {
  std::erase_if(answerObservers_, [token](const auto& entry) { return entry.first == token; });
}

void TQBleManager::tapAnswer(const Bytes& answer) {
  if (answerObservers_.empty()) return;
  const auto observers = answerObservers_;  // an observer may remove itself
  for (const auto& [token, observer] : observers) observer(cmdType_, answer);
}

void TQBleManager::gatherChunk(const Bytes& chunk) {
  auto append = [this, &chunk]() -> std::size_t {
    Bytes& buffer = systemInfoData();
    buffer.insert(buffer.end(), chunk.begin(), chunk.end());
    return buffer.size();
  };
  auto dispatch = [this] {
    const Bytes answer = systemInfoData();
    tapAnswer(answer);
    analysisData(answer);
    setCmdType(0);
    setSystemInfoData(std::nullopt);
  };
  // The list answers end with the first notification that is not a full one.
  auto appendList = [&] {
    append();
    if (chunk.size() != kFullNotification) dispatch();
  };
  auto appendAndDispatch = [&] {
    append();
    dispatch();
  };

  if (cmdType_ == 2) {
    if (append() == kSystemInfoLength) dispatch();
  } else if (cmdType_ == 13) {
    if (append() == kDiagnosisLength) dispatch();
  } else if (cmdType_ == 15) {
    appendList();
  } else if (cmdType_ == 1 || cmdType_ == 3 || cmdType_ == 5) {
    appendAndDispatch();
  } else if (cmdType_ == 6) {
    const std::size_t length = append();
    if (length == kStateLength || length == kFaultLength) dispatch();
  } else if (cmdType_ == 7) {
    // Stop charging decodes this chunk alone and leaves the buffer as it is.
    tapAnswer(chunk);
    analysisData(chunk);
    setCmdType(0);
  } else if (cmdType_ == 8) {
    appendList();
  } else if (cmdType_ == 15) {  // never reached: the first rule for 15 wins
    appendList();
  } else if (cmdType_ == 9) {
    // Only this chunk counts towards the cumulative-energy answer.
    setSystemInfoData(std::nullopt);
    const std::size_t length = append();
    TQLog("获取的累计电量的长度: %ld", static_cast<long>(length));
    if (length == kCumulationLength) dispatch();
  } else if (cmdType_ == 13) {  // never reached: the first rule for 13 wins
    if (append() == kDiagnosisLongLength) {
      TQLog("诊断数据接收完成");
      dispatch();
    }
  } else if (cmdType_ == 14) {
    appendList();
  } else if (cmdType_ == 4) {
    appendAndDispatch();
  }
  // Anything else: nothing is pending and the chunk is dropped.
}

void TQBleManager::didUpdateValueForCharacteristic(const PeripheralPtr& /*peripheral*/,
                                                   const CharacteristicPtr& characteristic,
                                                   const std::optional<TQError>& error) {
  if (error) {
    TQLog("读取特征值有误");
  } else {
    gatherChunk(characteristic->value());
  }
  if (auto delegate = liveDelegate(); delegate && delegate->didUpdateValueForCharacteristicValue) {
    const auto model = dataModel();
    delegate->didUpdateValueForCharacteristicValue(*this, model, error);
    setDataModel(nullptr);
  }
}

}  // namespace tqble
