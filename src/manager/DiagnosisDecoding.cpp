// Running-diagnostics answer. Every field is one byte.
#include "manager/DecodingSupport.h"
#include "tqble/AnswerDecoding.h"
#include "tqble/platform/Log.h"

namespace tqble::decode {
namespace {

using Table = std::pair<std::uint64_t, const char*>;

const Table kChargeStates[] = {{0, "空闲"},   {1, "枪已连车"},   {2, "定时预约中"},
                               {3, "充电中"}, {4, "充电等待中"}, {5, "充电完成"}};
// Single bits; a combination is not decoded.
const Table kErrors[] = {{0, "无错误信息"},
                         {protocol::kErrorEmergencyStop, "急停"},
                         {protocol::kErrorOverVoltage, "过压"},
                         {protocol::kErrorUnderVoltage, "欠压"},
                         {protocol::kErrorOverCurrent, "过流"}};
const Table kNetworkStates[] = {
    {0, "网络已连接"}, {1, "网络连接中"}, {2, "服务注册中"}, {3, "无网络"}, {4, "重启网络"}};
const std::pair<std::string, const char*> kCurrentRatings[] = {{"00", "16A"}, {"01", "32A"}};

// Chooses, logs and returns the text for the byte at `from`.
template <std::size_t N>
std::string loggedText(const std::string& hex, const protocol::Field& field, const Table (&table)[N],
                       const char* fallback) {
  const char* text = detail::lookup(table, detail::hexField(hex, field), fallback);
  TQLog("%s", text);
  return text;
}

}  // namespace

TQBleRunDiagnosticInfo runningDiagnosis(const Bytes& answer) {
  using detail::cut;
  using detail::hexField;
  using detail::ull;
  namespace f = protocol::diagnosis;
  const std::string hex = ZDataCoverTool::coverFromDataToHexStr(answer);
  TQLog("%ld", static_cast<long>(hex.size()));
  TQBleRunDiagnosticInfo info;

  // The mode is stored as its number; immediate, timed and none are the app's to name.
  info.startMode = static_cast<std::int64_t>(hexField(hex, f::startMode));
  info.startTime =
      detail::printf("%02llu : %02llu", ull(hexField(hex, f::startHour)),
                                   ull(hexField(hex, f::startMinute)));
  info.chargeState = loggedText(hex, f::chargeState, kChargeStates, "没有充电类型");
  info.errorInfo = loggedText(hex, f::errorBits, kErrors, "其它未知错误");
  info.voltage = detail::printf("%lluV", ull(hexField(hex, f::voltage)));
  info.elec = detail::lookup(kCurrentRatings, cut(hex, f::currentRating), "--");
  info.netConnectState = loggedText(hex, f::network, kNetworkStates, "其它异常状态");

  // 0 means abnormal for the meter; the log line and the stored text differ.
  switch (hexField(hex, f::meter)) {
    case 0:
      TQLog("电表工作状态: 异常");
      info.ammeterState = "异常";
      break;
    case 1:
      TQLog("电表工作状态: 正常");
      info.ammeterState = "正常";
      break;
    default:
      TQLog("截取码错误");
      info.ammeterState = "截取电表码错误";
  }

  // The app gets the raw digits of these two, not a text.
  info.screenWorkingState = cut(hex, f::screen);
  info.elecLockState = cut(hex, f::lock);
  info.versionNum = detail::printf("V%llu.%llu.%llu", ull(hexField(hex, f::versionMajor)),
                                   ull(hexField(hex, f::versionMinor)),
                                   ull(hexField(hex, f::versionPatch)));
  return info;
}

}  // namespace tqble::decode
