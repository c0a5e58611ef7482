#include <gtest/gtest.h>

#include <cstring>

#include "tqble/BLESDKConst.h"

namespace tqble {
namespace {

TEST(Constants, ErrorCodesAndTextsAreExact) {
  EXPECT_EQ(errorWriteValueCode, 1001);
  EXPECT_EQ(errorNOPeripheralCode, 1002);
  EXPECT_EQ(errorReadValueForCharacteristicCode, 1003);
  EXPECT_STREQ(ZBleWriteValueErrorMsg, "蓝牙写入特征为空，请检查蓝牙连接设备");
  EXPECT_STREQ(ZBleNOPeripheralErrorMsg, "没有连接的外设");
  EXPECT_STREQ(ZBleReadValueForCharacteristicErrorMsg, "特征值读取失败");
  EXPECT_EQ(TQSetCmdSuccess, 0);
  EXPECT_EQ(TQSetCmdFailure, 1);
}

TEST(Constants, NotificationNamesEqualTheirOwnNames) {
  const std::pair<const char*, const char*> names[] = {
      {ZBleDidConnectedPeripheral, "ZBleDidConnectedPeripheral"},
      {ZBleDidConnectedSuccess, "ZBleDidConnectedSuccess"},
      {ZBleDidConnectedFailure, "ZBleDidConnectedFailure"},
      {ZBleDidDisConnected, "ZBleDidDisConnected"},
      {ZBleManagerStatePowered, "ZBleManagerStatePowered"},
      {ZBleManagerStatePoweredOn, "ZBleManagerStatePoweredOn"},
      {ZBleManagerStatePoweredOff, "ZBleManagerStatePoweredOff"},
      {ZBleDidUpdateValueForCharacteristic, "ZBleDidUpdateValueForCharacteristic"},
      {ZBleUpdateValue, "ZBleUpdateValue"},
      {ZBleVolumeSize, "ZBleVolumeSize"},
      {ZBleBingdingSuccess, "ZBleBingdingSuccess"},
      {ZBleAllBingdingDevices, "ZBleAllBingdingDevices"},
  };
  for (const auto& [value, name] : names) EXPECT_STREQ(value, name);
}

TEST(Constants, DurationsAndVersionAreExact) {
  EXPECT_EQ(ZDScrollAnimationDuration, 0.2f);
  EXPECT_EQ(ZDNormalAnimationDuration, 0.25f);
  EXPECT_EQ(TQBleSDKVersionNumber, 1.0);
  EXPECT_STREQ(TQBleSDKVersionString, "@(#)PROGRAM:TQBleSDK  PROJECT:TQBleSDK-1\n");
  EXPECT_EQ(std::strlen(TQBleSDKVersionString), 41u);
}

}  // namespace
}  // namespace tqble
