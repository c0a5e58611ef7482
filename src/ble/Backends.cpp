// The backends built into the library, by name.
#include "tqble/ble/CentralManager.h"
#include "tqble/sim/SimCentral.h"

#ifdef TQBLE_HAVE_BLUEZ
#include "bluez/BluezInternal.h"
#endif

namespace tqble::ble {

CentralFactory backendNamed(const std::string& name) {
  if (name == "sim") return &sim::makeCentral;
#ifdef TQBLE_HAVE_BLUEZ
  if (name == "bluez") return &bluez::makeCentral;
#endif
  return {};
}

std::vector<std::string> backendNames() {
  return {"sim",
#ifdef TQBLE_HAVE_BLUEZ
          "bluez",
#endif
  };
}

}  // namespace tqble::ble
