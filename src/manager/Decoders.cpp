// Answer decoders (placeholder bodies until the decoders land).
#include "tqble/TQBleManager.h"

namespace tqble {

void TQBleManager::analysisQuerySystemInfo(const Bytes&) {}
void TQBleManager::analysisQueryState(const Bytes&) {}
void TQBleManager::analysisQueryChargingData(const Bytes&) {}
void TQBleManager::analysisCharging(const Bytes&) {}
void TQBleManager::analysisStopCharge() {}
std::string TQBleManager::coverHeightToLowWithHexStr(const std::string& hex) const { return hex; }
void TQBleManager::analysisQueryChargingHistoryList(const Bytes&) {}
void TQBleManager::analysisQueryTotalChargingCapacity(const Bytes&) {}
void TQBleManager::analysisQueryHistoryErrorLogList(const Bytes&) {}
void TQBleManager::analysisChargeOperationDiagnosisInfo(const Bytes&) {}
void TQBleManager::analysisRuningDiagnosisInfo(const Bytes&) {}
void TQBleManager::analysisSynchroTime(const Bytes&) {}
void TQBleManager::analysisSetVolume(const Bytes&) {}
void TQBleManager::analysisChargingOrderTime(const Bytes&) {}

}  // namespace tqble
