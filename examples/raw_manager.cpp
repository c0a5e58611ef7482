// The manager on its own, with its delegate: scan, connect, wait for the system
// information it asks for by itself, then ask for the charger state.
#include <tqble/TQBle.h>

#include <chrono>
#include <cstdio>
#include <memory>

using namespace tqble;
using namespace std::chrono_literals;

int main() {
  setLogSink([](std::string_view) {});
  auto manager = TQBleManager::shareManager();  // the central is created once, here
  bool stateShown = false;
  auto delegate = std::make_shared<TQBleManagerDelegate>();
  delegate->didDiscoverPeripheral = [](TQBleManager& m, const auto& post, std::int64_t rssi) {
    std::printf("heard %s (%lld dBm)\n", post->name().c_str(), static_cast<long long>(rssi));
    m.stopScan();
    m.startConnectPeripheral(post);
  };
  delegate->didConnectPeripheral = [](TQBleManager&, const auto& post) {
    std::printf("connected to %s; discovering\n", post->identifier().c_str());
  };
  // Called after every notification; only the last one of an answer carries a record.
  delegate->didUpdateValueForCharacteristicValue =
      [&](TQBleManager&, const std::shared_ptr<TQBleDataModel>& model, const auto&) {
        if (!model->chargingData) return;
        std::printf("gun state: %s\n", model->chargingData->gunStatus.value_or("--").c_str());
        stateShown = true;
      };
  manager->setDelegate(delegate);  // held weakly: keep your own reference
  manager->scanForPeripherals();

  MainQueue& queue = MainQueue::main();  // every callback arrives on the main queue
  // Nothing marks the link as ready: wait for both characteristics, then for the system
  // information the manager asks for 3 s after connecting, so no answer is mistaken.
  if (!queue.runUntil(
          [&] { return manager->writeCharacteristic() && manager->readCharacteristic(); }, 10s))
    return 1;
  queue.runUntil([&] { return !manager->systemInfoModelList().empty() && manager->cmdType() == 0; },
                 10s);
  for (const auto& row : manager->systemTitleArr()) {
    std::printf("  %s: %s\n", row->title.value_or("").c_str(), row->content.value_or("").c_str());
  }
  manager->queryChargerStateWithError([](const TQError& e) {
    std::fprintf(stderr, "not sent: %s (%lld)\n", e.domain.c_str(), static_cast<long long>(e.code));
  });
  queue.runUntil([&] { return stateShown; }, 5s);
  return stateShown ? 0 : 1;
}
