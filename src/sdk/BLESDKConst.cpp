#include "tqble/BLESDKConst.h"

namespace tqble {

const std::int64_t errorWriteValueCode = 1001;
const std::int64_t errorNOPeripheralCode = 1002;
const std::int64_t errorReadValueForCharacteristicCode = 1003;

const char* const ZBleWriteValueErrorMsg = "蓝牙写入特征为空，请检查蓝牙连接设备";
const char* const ZBleNOPeripheralErrorMsg = "没有连接的外设";
const char* const ZBleReadValueForCharacteristicErrorMsg = "特征值读取失败";

const std::int64_t TQSetCmdSuccess = 0;
const std::int64_t TQSetCmdFailure = 1;

const char* const ZBleDidConnectedPeripheral = "ZBleDidConnectedPeripheral";
const char* const ZBleDidConnectedSuccess = "ZBleDidConnectedSuccess";
const char* const ZBleDidConnectedFailure = "ZBleDidConnectedFailure";
const char* const ZBleDidDisConnected = "ZBleDidDisConnected";
const char* const ZBleManagerStatePowered = "ZBleManagerStatePowered";
const char* const ZBleManagerStatePoweredOn = "ZBleManagerStatePoweredOn";
const char* const ZBleManagerStatePoweredOff = "ZBleManagerStatePoweredOff";
const char* const ZBleDidUpdateValueForCharacteristic = "ZBleDidUpdateValueForCharacteristic";
const char* const ZBleUpdateValue = "ZBleUpdateValue";
const char* const ZBleVolumeSize = "ZBleVolumeSize";
const char* const ZBleBingdingSuccess = "ZBleBingdingSuccess";
const char* const ZBleAllBingdingDevices = "ZBleAllBingdingDevices";

const float ZDScrollAnimationDuration = 0.2f;
const float ZDNormalAnimationDuration = 0.25f;

}  // namespace tqble
