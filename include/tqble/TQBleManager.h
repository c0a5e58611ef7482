#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tqble/Models.h"
#include "tqble/TQBleManagerDelegate.h"
#include "tqble/TQError.h"
#include "tqble/ble/CentralManager.h"
#include "tqble/platform/Value.h"

namespace tqble {

/// The one object through which an application talks to a charging post: it owns the
/// central, the link, the pending command and its answer, and reports to one delegate.
/// Single-threaded: call it on the main queue.
class TQBleManager final : public ble::CentralManagerDelegate,
                           public ble::PeripheralDelegate,
                           public std::enable_shared_from_this<TQBleManager> {
 public:
  using PeripheralPtr = std::shared_ptr<ble::Peripheral>;
  using CharacteristicPtr = std::shared_ptr<ble::Characteristic>;
  using Rows = std::vector<std::shared_ptr<ZRunStateModel>>;

  // ---- Creation ----------------------------------------------------------------------

  /// The process-wide manager; the first call creates it and its central, once.
  /// @throws std::runtime_error when the chosen backend does not exist.
  static std::shared_ptr<TQBleManager> shareManager();
  /// Chooses the central's backend by name ("sim"); only before the first shareManager().
  /// Without a choice, $TQBLE_BACKEND decides, else "sim". Returns false when too late.
  static bool useBackend(const std::string& name);
  /// Chooses the central's factory directly (tests, custom stacks); only before first use.
  static bool useCentralFactory(ble::CentralFactory factory);

  /// Only shareManager() can make the tag, so every manager is the shared one.
  class PrivateTag {
    friend class TQBleManager;
    explicit PrivateTag() = default;
  };
  explicit TQBleManager(PrivateTag) {}
  ~TQBleManager() override;
  TQBleManager(const TQBleManager&) = delete;
  TQBleManager& operator=(const TQBleManager&) = delete;

  // ---- Properties --------------------------------------------------------------------

  /// The delegate, held weakly.
  std::weak_ptr<TQBleManagerDelegate> delegate() const { return delegate_; }
  void setDelegate(std::weak_ptr<TQBleManagerDelegate> delegate) { delegate_ = std::move(delegate); }
  /// The connected peripheral; empty when not connected.
  const PeripheralPtr& connectedPheral() const { return connectedPheral_; }
  /// The "FFF3" characteristic commands are written to.
  const CharacteristicPtr& writeCharacteristic() const { return writeCharacteristic_; }
  void setWriteCharacteristic(CharacteristicPtr c) { writeCharacteristic_ = std::move(c); }
  /// The "FFF4" characteristic answers arrive on.
  const CharacteristicPtr& readCharacteristic() const { return readCharacteristic_; }
  void setReadCharacteristic(CharacteristicPtr c) { readCharacteristic_ = std::move(c); }
  /// The platform central, created once with the manager.
  const std::shared_ptr<ble::CentralManager>& centralManager() const { return centralManager_; }
  /// The ten system-information display rows: the same row objects on every call.
  const Rows& systemTitleArr();
  /// Rows appended by every system-information answer; created empty on first read.
  Rows& systemInfoModelList();
  void setSystemInfoModelList(std::optional<Rows> list) { systemInfoModelList_ = std::move(list); }
  /// Created empty on first read; the SDK never fills it.
  std::vector<PeripheralPtr>& allPeripheral();
  void setAllPeripheral(std::optional<std::vector<PeripheralPtr>> list) {
    allPeripheral_ = std::move(list);
  }
  /// The current result holder, created on first read; empty resets it.
  const std::shared_ptr<TQBleDataModel>& dataModel();
  void setDataModel(std::shared_ptr<TQBleDataModel> model) { dataModel_ = std::move(model); }
  /// The reassembly buffer of the pending answer, created empty on first read.
  Bytes& systemInfoData();
  void setSystemInfoData(std::optional<Bytes> data) { systemInfoData_ = std::move(data); }
  /// Status code copied into byte 2 of command frames.
  std::uint8_t statusCode() const { return statusCode_; }
  void setStatusCode(std::uint8_t value) { statusCode_ = value; }
  /// Checksum seed of command frames.
  std::uint8_t rand() const { return rand_; }
  void setRand(std::uint8_t value) { rand_ = value; }
  /// The pending-command tag; 0 when no answer is awaited.
  std::int64_t cmdType() const { return cmdType_; }
  void setCmdType(std::int64_t value) { cmdType_ = value; }
  /// Kept for the interface; nothing reads it.
  std::uint8_t cmd() const { return cmd_; }
  void setCmd(std::uint8_t value) { cmd_ = value; }

  // ---- Frames and the write path -----------------------------------------------------

  /// Builds a request frame: 8-byte header with the XOR checksum seeded by `rand`, then
  /// the body (an absent and an empty body give the same frame).
  Bytes setDataWithCmd(std::uint8_t cmd, std::uint8_t statusCode,
                       const std::optional<Bytes>& bodyData, std::uint8_t rand) const;
  /// Writes a whole frame without response to the write characteristic; reports 1002
  /// (no peripheral) or 1001 (no write characteristic) through `error`, never success.
  void writeData(const Bytes& data, const PeripheralPtr& peripheral, const TQErrorHandler& error);

  // ---- Commands (each records its pending tag first, then frames and writes) ---------

  /// Sets the post's clock to now (cmd 0xB0).
  void synchroTimeWithError(const TQErrorHandler& error);
  /// Asks for the system information (cmd 0xB1); clears the reassembly buffer.
  void querySystemInfoWithError(const TQErrorHandler& error);
  /// Sets the speaker volume (cmd 0xB2); its decimal digits travel as hex digits.
  void setVolumeWithVolumeSize(std::int64_t volumeSize, const TQErrorHandler& error);
  /// Reserves a charging period (cmd 0xB3).
  void orderChargerWithStartHour(std::int64_t startHour, std::int64_t startMinute,
                                 std::int64_t endHour, std::int64_t endMinute,
                                 const TQErrorHandler& error);
  /// Starts charging (cmd 0xB4).
  void startChargingWithError(const TQErrorHandler& error);
  /// Asks for the charger state (cmd 0xB5); clears the reassembly buffer.
  void queryChargerStateWithError(const TQErrorHandler& error);
  /// Stops charging (cmd 0xB6).
  void stopChargeWithError(const TQErrorHandler& error);
  /// Asks for live charging data: the state request without clearing the buffer.
  void queryChargingDataWithError(const TQErrorHandler& error);
  /// Asks for the charging history (cmd 0xB7).
  void queryHistoryChargingListWithError(const TQErrorHandler& error);
  /// Asks for the cumulative energy (cmd 0xB8).
  void queryCumulationElecQuantityWithError(const TQErrorHandler& error);
  /// Asks for the error log (cmd 0x34).
  void queryHistoryErrorLogListWithError(const TQErrorHandler& error);
  /// Asks for the running diagnostics (cmd 0x32).
  void runningDiagnosticInfoWithError(const TQErrorHandler& error);

  // ---- Reception and dispatch --------------------------------------------------------

  /// Calls the decoder of the pending command with a whole answer (may be absent).
  void analysisData(const std::optional<Bytes>& data);

  /// Observes each complete answer just before dispatch, with its pending tag; changes
  /// nothing the manager does. Returns a token for removeAnswerObserver.
  /// Observers must not issue commands synchronously (queue them with MainQueue::async):
  /// the answer is dispatched by the tag pending when the observer returns.
  using AnswerObserver = std::function<void(std::int64_t cmdType, const Bytes& answer)>;
  std::uint64_t addAnswerObserver(AnswerObserver observer);
  /// Removes an answer observer; unknown tokens are ignored.
  void removeAnswerObserver(std::uint64_t token);

  // ---- Link --------------------------------------------------------------------------

  /// Scans for every peripheral, with no filter.
  void scanForPeripherals();
  /// Connects to a peripheral; scanning goes on.
  void startConnectPeripheral(const PeripheralPtr& peripheral);
  /// Stops scanning and cancels the connection; without a peripheral reports 1002.
  void stopConnectPeripheral(const PeripheralPtr& peripheral, const TQErrorHandler& error);
  /// Stops scanning.
  void stopScan();

  // ---- Discovery ---------------------------------------------------------------------

  /// Logs one line per set characteristic property bit, lowest first.
  void logCharacteristicProperties(std::uint64_t properties);

  // ---- Decoders ----------------------------------------------------------------------

  /// System information: rewrites the ten display rows and appends them to the list.
  /// @throws std::out_of_range when the answer is shorter than 67 bytes.
  void analysisQuerySystemInfo(const Bytes& data);
  /// Charger state (26 or 12 bytes) into dataModel.chargingData.
  void analysisQueryState(const Bytes& data);
  /// Live charging data into dataModel.chargingData.
  /// @throws std::out_of_range when the answer is shorter than 32 bytes.
  void analysisQueryChargingData(const Bytes& data);
  /// Start-charging acknowledgement into dataModel.result.
  void analysisCharging(const Bytes& data);
  /// Stop charging: always success into dataModel.result.
  void analysisStopCharge();
  /// Reverses the byte pairs of hex text; 2 characters or fewer come back unchanged.
  std::string coverHeightToLowWithHexStr(const std::string& hex) const;
  /// Charging history: decoded, then dropped.
  void analysisQueryChargingHistoryList(const Bytes& data);
  /// Cumulative energy: decoded, then dropped.
  /// @throws std::out_of_range when the answer is shorter than 12 bytes.
  void analysisQueryTotalChargingCapacity(const Bytes& data);
  /// Error log: decoded, then dropped.
  /// @throws std::out_of_range when the answer is shorter than 11 bytes or its entry
  /// count exceeds the entries present.
  void analysisQueryHistoryErrorLogList(const Bytes& data);
  /// Running diagnostics as routed by the dispatcher: does nothing with the answer.
  void analysisChargeOperationDiagnosisInfo(const Bytes& data);
  /// Running diagnostics, full decoder: logs most fields, then drops the record.
  /// @throws std::out_of_range when the answer is shorter than 54 bytes.
  void analysisRuningDiagnosisInfo(const Bytes& data);
  /// Setting acknowledgement into dataModel.result.
  void analysisSynchroTime(const Bytes& data);
  /// Volume acknowledgement: as analysisSynchroTime.
  void analysisSetVolume(const Bytes& data);
  /// Reservation acknowledgement: as analysisSynchroTime.
  void analysisChargingOrderTime(const Bytes& data);

  // ---- Platform callbacks ------------------------------------------------------------

  void centralManagerDidUpdateState(ble::CentralManager& central) override;
  void didDiscoverPeripheral(ble::CentralManager& central, const PeripheralPtr& peripheral,
                             const Dictionary& advertisementData, std::int64_t RSSI) override;
  void didConnectPeripheral(ble::CentralManager& central, const PeripheralPtr& peripheral) override;
  void didDisconnectPeripheral(ble::CentralManager& central, const PeripheralPtr& peripheral,
                               const std::optional<TQError>& error) override;
  void didFailToConnectPeripheral(ble::CentralManager& central, const PeripheralPtr& peripheral,
                                  const std::optional<TQError>& error) override;
  void didDiscoverServices(const PeripheralPtr& peripheral,
                           const std::optional<TQError>& error) override;
  void didDiscoverCharacteristicsForService(const PeripheralPtr& peripheral,
                                            const std::shared_ptr<ble::Service>& service,
                                            const std::optional<TQError>& error) override;
  void didUpdateValueForCharacteristic(const PeripheralPtr& peripheral,
                                       const CharacteristicPtr& characteristic,
                                       const std::optional<TQError>& error) override;
  void didWriteValueForCharacteristic(const PeripheralPtr& peripheral,
                                      const CharacteristicPtr& characteristic,
                                      const std::optional<TQError>& error) override;

 private:
  void initOnce();
  /// The delegate if it is still alive.
  std::shared_ptr<TQBleManagerDelegate> liveDelegate() const { return delegate_.lock(); }
  /// Frames `body` under `code` with the status and seed properties, then sends it.
  void issueCommand(std::uint8_t code, const Bytes& body, const TQErrorHandler& error);
  /// Writes a frame to the connected peripheral, wrapping the caller's handler.
  void sendFrame(const Bytes& frame, const TQErrorHandler& error);
  /// Appends one notified chunk by the pending command's end-of-answer rule.
  void gatherChunk(const Bytes& chunk);
  /// Shows a complete answer to the answer observers.
  void tapAnswer(const Bytes& answer);

  std::weak_ptr<TQBleManagerDelegate> delegate_;
  PeripheralPtr connectedPheral_;
  CharacteristicPtr writeCharacteristic_;
  CharacteristicPtr readCharacteristic_;
  std::shared_ptr<ble::CentralManager> centralManager_;
  std::optional<Rows> systemTitleArr_;
  std::optional<Rows> systemInfoModelList_;
  std::optional<std::vector<PeripheralPtr>> allPeripheral_;
  std::shared_ptr<TQBleDataModel> dataModel_;
  std::optional<Bytes> systemInfoData_;
  std::uint8_t statusCode_ = 0;
  std::uint8_t rand_ = 0;
  std::int64_t cmdType_ = 0;
  std::uint8_t cmd_ = 0;
  std::vector<std::pair<std::uint64_t, AnswerObserver>> answerObservers_;
  std::uint64_t nextAnswerObserver_ = 1;
};

}  // namespace tqble
