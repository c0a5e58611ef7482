// Simulated central (placeholder until the simulated radio lands).
#include "tqble/sim/SimCentral.h"

namespace tqble::sim {
namespace {

class IdleCentral final : public ble::CentralManager {
 public:
  std::int64_t state() const override { return ble::CentralManagerStateUnknown; }
  void scanForPeripheralsWithServices(const std::vector<ble::UUID>&, const Dictionary&) override {}
  void stopScan() override {}
  void connectPeripheral(const std::shared_ptr<ble::Peripheral>&, const Dictionary&) override {}
  void cancelPeripheralConnection(const std::shared_ptr<ble::Peripheral>&) override {}
};

}  // namespace

std::shared_ptr<ble::CentralManager> makeCentral(std::weak_ptr<ble::CentralManagerDelegate>) {
  return std::make_shared<IdleCentral>();
}

}  // namespace tqble::sim
