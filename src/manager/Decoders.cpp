// The manager's decoders: each decodes through tqble::decode and keeps the result where
// the application reads it, or drops it.
#include "manager/DecodingSupport.h"
#include "tqble/AnswerDecoding.h"
#include "tqble/BLESDKConst.h"
#include "tqble/TQBleManager.h"

namespace tqble {

void TQBleManager::analysisQuerySystemInfo(const Bytes& data) {
  const auto contents = decode::systemInfo(data);
  // The same ten rows are rewritten and appended again on every answer.
  const Rows& rows = systemTitleArr();
  for (std::size_t i = 0; i < rows.size(); ++i) {
    rows[i]->content = contents[i];
    systemInfoModelList().push_back(rows[i]);
  }
}

void TQBleManager::analysisQueryState(const Bytes& data) {
  dataModel()->chargingData = std::make_shared<TQBleChargingData>(decode::chargerState(data));
}

void TQBleManager::analysisQueryChargingData(const Bytes& data) {
  dataModel()->chargingData = std::make_shared<TQBleChargingData>(decode::chargingData(data));
}

void TQBleManager::analysisCharging(const Bytes& data) {
  analysisSynchroTime(data);
}

void TQBleManager::analysisStopCharge() {
  // The post's answer is not read: stopping is always reported as done.
  auto result = std::make_shared<TQBleSetResult>();
  result->resultType = TQSetCmdSuccess;
  dataModel()->result = std::move(result);
}

std::string TQBleManager::coverHeightToLowWithHexStr(const std::string& hex) const {
  return detail::reverseBytePairs(hex);
}

// History, energy and error log reach nobody: decoded (a malformed answer still throws),
// then released. Applications that want them call tqble::decode on the answer.
void TQBleManager::analysisQueryChargingHistoryList(const Bytes& data) {
  (void)decode::chargingHistory(data);
}

void TQBleManager::analysisQueryTotalChargingCapacity(const Bytes& data) {
  (void)decode::cumulativeEnergy(data);
}

void TQBleManager::analysisQueryHistoryErrorLogList(const Bytes& data) {
  (void)decode::errorLog(data);
}

void TQBleManager::analysisChargeOperationDiagnosisInfo(const Bytes& /*data*/) {}

void TQBleManager::analysisRuningDiagnosisInfo(const Bytes& data) {
  (void)decode::runningDiagnosis(data);
}

void TQBleManager::analysisSynchroTime(const Bytes& data) {
  dataModel()->result = std::make_shared<TQBleSetResult>(decode::setResult(data));
}

void TQBleManager::analysisSetVolume(const Bytes& data) {
  analysisSynchroTime(data);
}

void TQBleManager::analysisChargingOrderTime(const Bytes& data) {
  analysisSynchroTime(data);
}

}  // namespace tqble
