// Creation of the manager singleton and its lazily created properties.
#include "tqble/TQBleManager.h"

#include <cstdlib>
#include <mutex>
#include <stdexcept>

namespace tqble {
namespace {

struct Creation {
  std::once_flag allocation;
  std::once_flag initialisation;
  std::shared_ptr<TQBleManager> instance;
  bool initialised = false;  // a failed start (unknown backend) may be retried with another
  ble::CentralFactory factory;
  std::string backend;
};

Creation& creation() {
  static Creation state;
  return state;
}

ble::CentralFactory chosenFactory() {
  auto& state = creation();
  if (state.factory) return state.factory;
  std::string name = state.backend;
  if (name.empty()) {
    const char* env = std::getenv("TQBLE_BACKEND");
    name = env && *env ? env : "sim";
  }
  auto factory = ble::backendNamed(name);
  if (!factory) {
    std::string built;
    for (const auto& n : ble::backendNames()) built += (built.empty() ? "" : ", ") + n;
    throw std::runtime_error("unknown BLE backend: " + name + " (built: " + built + ")");
  }
  return factory;
}

}  // namespace

std::shared_ptr<TQBleManager> TQBleManager::shareManager() {
  auto& state = creation();
  std::call_once(state.allocation,
                 [&state] { state.instance = std::make_shared<TQBleManager>(PrivateTag{}); });
  std::call_once(state.initialisation, [&state] { state.instance->initOnce(); });
  return state.instance;
}

bool TQBleManager::useBackend(const std::string& name) {
  auto& state = creation();
  if (state.initialised) return false;
  state.backend = name;
  state.factory = nullptr;
  return true;
}

bool TQBleManager::useCentralFactory(ble::CentralFactory factory) {
  auto& state = creation();
  if (state.initialised) return false;
  state.factory = std::move(factory);
  return true;
}

TQBleManager::~TQBleManager() = default;

void TQBleManager::initOnce() {
  centralManager_ = chosenFactory()(weak_from_this());
  setStatusCode(0);
  setRand(0);
  setCmd(0);
  setCmdType(0);
  creation().initialised = true;
}

const TQBleManager::Rows& TQBleManager::systemTitleArr() {
  if (!systemTitleArr_) {
    static const char* const kTitles[] = {
        "桩号",         "桩类型",         "厂商",     "Magic Number", "通信协议版本",
        "设备嵌入式软件开发", "嵌入式软件型号", "音量大小", "充电桩时间",   "枪状态"};
    Rows rows;
    for (const char* title : kTitles) {
      auto row = std::make_shared<ZRunStateModel>();
      row->title = title;
      row->content = "--";
      rows.push_back(std::move(row));
    }
    systemTitleArr_ = std::move(rows);
  }
  return *systemTitleArr_;
}

TQBleManager::Rows& TQBleManager::systemInfoModelList() {
  if (!systemInfoModelList_) systemInfoModelList_.emplace();
  return *systemInfoModelList_;
}

std::vector<TQBleManager::PeripheralPtr>& TQBleManager::allPeripheral() {
  if (!allPeripheral_) allPeripheral_.emplace();
  return *allPeripheral_;
}

const std::shared_ptr<TQBleDataModel>& TQBleManager::dataModel() {
  if (!dataModel_) dataModel_ = std::make_shared<TQBleDataModel>();
  return dataModel_;
}

Bytes& TQBleManager::systemInfoData() {
  if (!systemInfoData_) systemInfoData_.emplace();
  return *systemInfoData_;
}

}  // namespace tqble
