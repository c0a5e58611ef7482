#pragma once

#include <memory>

#include "tqble/ble/CentralManager.h"

namespace tqble::sim {

/// Makes a central on the simulated radio, reporting to `delegate` on the main queue.
std::shared_ptr<ble::CentralManager> makeCentral(std::weak_ptr<ble::CentralManagerDelegate> delegate);

}  // namespace tqble::sim
