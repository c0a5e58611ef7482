// The backends built into the library, by name.
#include "tqble/ble/CentralManager.h"
#include "tqble/sim/SimCentral.h"

namespace tqble::ble {

CentralFactory backendNamed(const std::string& name) {
  if (name == "sim") return &sim::makeCentral;
  return {};
}

std::vector<std::string> backendNames() { return {"sim"}; }

}  // namespace tqble::ble
