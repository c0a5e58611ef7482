// Charger-state answer (little-endian) and live charging data (big-endian). The two
// layouts differ on the wire; each decoder keeps its own byte order.
#include "manager/DecodingSupport.h"
#include "tqble/AnswerDecoding.h"
#include "tqble/platform/Log.h"

namespace tqble::decode {
namespace {

constexpr std::size_t kFullStateChars = 52;   // 26-byte answer
constexpr std::size_t kFaultStateChars = 24;  // 12-byte answer

// Matched as text, so a code with two bits set is not defined.
const std::pair<std::string, const char*> kFaults[] = {
    {"0004", "过流"}, {"0008", "过压"}, {"0010", "欠压"}, {"0100", "急停按下"}};

const char* gunStatusOf(const std::string& hex) {
  return detail::hexField(hex, protocol::state::gunState) == protocol::kGunCharging ? "正在充电中" : "未知";
}

std::uint64_t littleEndian(const std::string& hex, const protocol::Field& field) {
  return ZDataCoverTool::coverFromHexStrToInt(detail::reverseBytePairs(detail::cut(hex, field)));
}

}  // namespace

TQBleChargingData chargerState(const Bytes& answer) {
  using detail::cut;
  namespace f = protocol::state;
  TQBleChargingData data;
  const std::string hex = ZDataCoverTool::coverFromDataToHexStr(answer);
  if (hex.size() == kFullStateChars) {
    data.gunStatus = gunStatusOf(hex);
    data.serialNumber = ZDataCoverTool::coverFromHexStringToStr(cut(hex, f::serial));
    data.elecQuantity = littleEndian(hex, f::energy);
    data.voltage = littleEndian(hex, f::voltage);
    data.electric = littleEndian(hex, f::current);
    data.duration = detail::widen32(ZDataCoverTool::coverFromHexStrToInt(
        ZDataCoverTool::coverToLowFromFrontHightByteStr(cut(hex, f::duration))));
  } else if (hex.size() == kFaultStateChars) {
    data.gunStatus = gunStatusOf(hex);
    data.failureReason = "";
    data.failureReason = detail::lookup(kFaults, cut(hex, f::faultCode), "暂未定义错误类型");
  }
  return data;
}

TQBleChargingData chargingData(const Bytes& answer) {
  using detail::cut;
  using detail::hexField;
  using detail::widen32;
  namespace f = protocol::live_data;
  const std::string hex = ZDataCoverTool::coverFromDataToHexStr(answer);
  TQLog("解析的充电中的数据 %s    ++  %ld", hex.c_str(), static_cast<long>(hex.size()));
  cut(hex, f::unused);  // part of the layout, not used
  const auto serial = ZDataCoverTool::coverFromHexStringToStr(cut(hex, f::serial));
  const std::uint64_t energy = widen32(hexField(hex, f::energy));
  const std::uint64_t voltage = widen32(hexField(hex, f::voltage));
  const std::uint64_t current = widen32(hexField(hex, f::current));
  const std::uint64_t duration = widen32(hexField(hex, f::duration));

  TQBleChargingData data;
  data.serialNumber = serial;
  data.elecQuantity = energy;
  data.voltage = voltage;
  data.electric = current;
  data.duration = duration;
  return data;
}

}  // namespace tqble::decode
