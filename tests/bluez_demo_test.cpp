// `tqble scan --backend bluez` with no bluetoothd on the bus (the radio guest runs the demo
// against the real daemon): the tool says why nothing was heard, and fails.
#include "support/PrivateBus.h"

namespace tqble::test {
namespace {

TEST(BluezDemo, ToolSaysTheRadioIsUnsupportedWithoutBluetoothd) {
  usePrivateSystemBus();
  const Outcome scan = shell(TQBLE_CLI_PATH " scan --seconds 0.5 --backend bluez");
  EXPECT_EQ(scan.status, 3);
  EXPECT_EQ(scan.out + scan.err,
            "tqble scan: nothing heard (the radio is unsupported here: no Bluetooth daemon or "
            "adapter)\n");
}

}  // namespace
}  // namespace tqble::test
