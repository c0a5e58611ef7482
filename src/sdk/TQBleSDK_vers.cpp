#include "tqble/BLESDKConst.h"

namespace tqble {

const double TQBleSDKVersionNumber = 1.0;
const char TQBleSDKVersionString[] = "@(#)PROGRAM:TQBleSDK  PROJECT:TQBleSDK-1\n";

}  // namespace tqble
