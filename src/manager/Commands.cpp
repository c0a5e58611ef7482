// The twelve commands: record the pending tag, build the body, frame it, write it.
#include <cstdio>

#include "protocol/Frame.h"
#include "platform/Text.h"
#include "tqble/TQBleManager.h"
#include "tqble/ZConverTool.h"
#include "tqble/ZDataCoverTool.h"

namespace tqble {
namespace {

using namespace protocol;  // command codes

std::uint8_t low8(std::int64_t value) { return static_cast<std::uint8_t>(value & 0xFF); }

}  // namespace

void TQBleManager::issueCommand(std::uint8_t code, const Bytes& body, const TQErrorHandler& error) {
  sendFrame(setDataWithCmd(code, statusCode(), body, rand()), error);
}

void TQBleManager::sendFrame(const Bytes& frame, const TQErrorHandler& error) {
  writeData(frame, connectedPheral(), [error](const TQError& failure) {
    if (error) error(failure);
  });
}

void TQBleManager::synchroTimeWithError(const TQErrorHandler& error) {
  setCmdType(1);
  const std::int32_t seconds = detail::intValue(ZConverTool::getCurrentTimeInterval());
  issueCommand(kCmdSynchroTime, ZDataCoverTool::coverToByteWithData(seconds), error);
}

void TQBleManager::querySystemInfoWithError(const TQErrorHandler& error) {
  setCmdType(2);
  setSystemInfoData(std::nullopt);
  // This query always goes out with status 0 and seed 0, whatever the properties say.
  sendFrame(setDataWithCmd(kCmdSystemInfo, 0, Bytes{0x00}, 0), error);
}

void TQBleManager::setVolumeWithVolumeSize(std::int64_t volumeSize, const TQErrorHandler& error) {
  setCmdType(3);
  char digits[32];
  std::snprintf(digits, sizeof digits, "%ld", static_cast<long>(volumeSize));
  // The decimal digits travel as if they were hex digits: 35 goes out as 0x35.
  issueCommand(kCmdVolume, ZDataCoverTool::hexToBytes(digits), error);
}

void TQBleManager::orderChargerWithStartHour(std::int64_t startHour, std::int64_t startMinute,
                                             std::int64_t endHour, std::int64_t endMinute,
                                             const TQErrorHandler& error) {
  setCmdType(4);
  issueCommand(kCmdOrder,
               Bytes{0x01, low8(startHour), low8(startMinute), low8(endHour), low8(endMinute)},
               error);
}

void TQBleManager::startChargingWithError(const TQErrorHandler& error) {
  setCmdType(5);
  issueCommand(kCmdStartCharging, Bytes{0x00, 0x00}, error);
}

void TQBleManager::queryChargerStateWithError(const TQErrorHandler& error) {
  setCmdType(6);
  setSystemInfoData(std::nullopt);
  issueCommand(kCmdChargerState, Bytes{0x00}, error);
}

void TQBleManager::stopChargeWithError(const TQErrorHandler& error) {
  setCmdType(7);
  issueCommand(kCmdStopCharge, Bytes{0x00}, error);
}

void TQBleManager::queryChargingDataWithError(const TQErrorHandler& error) {
  // The state request again, without clearing the reassembly buffer.
  setCmdType(6);
  issueCommand(kCmdChargerState, Bytes{0x00}, error);
}

void TQBleManager::queryHistoryChargingListWithError(const TQErrorHandler& error) {
  setCmdType(8);
  issueCommand(kCmdHistory, Bytes{0x00}, error);
}

void TQBleManager::queryCumulationElecQuantityWithError(const TQErrorHandler& error) {
  setCmdType(9);
  issueCommand(kCmdCumulation, Bytes{0x00}, error);
}

void TQBleManager::queryHistoryErrorLogListWithError(const TQErrorHandler& error) {
  setCmdType(15);
  // The third byte is undefined by the post; it goes out as 00.
  issueCommand(kCmdErrorLog, Bytes{0x01, 0x00, 0x00}, error);
}

void TQBleManager::runningDiagnosticInfoWithError(const TQErrorHandler& error) {
  setCmdType(13);
  issueCommand(kCmdDiagnosis, Bytes{0x00}, error);
}

}  // namespace tqble
