#pragma once

// The two errors the manager makes itself: the message text is the domain, no user-info.

#include "tqble/BLESDKConst.h"
#include "tqble/TQError.h"

namespace tqble::detail {

/// 1002: there is no connected peripheral.
inline TQError noPeripheralError() { return {ZBleNOPeripheralErrorMsg, errorNOPeripheralCode, {}}; }

/// 1001: no write characteristic is known.
inline TQError noWriteCharacteristicError() {
  return {ZBleWriteValueErrorMsg, errorWriteValueCode, {}};
}

}  // namespace tqble::detail
