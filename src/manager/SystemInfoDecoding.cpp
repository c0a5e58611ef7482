// System-information answer: ten display-row contents.
#include "manager/DecodingSupport.h"
#include "tqble/AnswerDecoding.h"
#include "tqble/ZGeneralTool.h"
#include "tqble/platform/Log.h"

namespace tqble::decode {
namespace {

const std::pair<std::string, const char*> kPostTypes[] = {
    {"01", "单枪"}, {"02", "双枪"}, {"03", "多枪"}, {"04", "单枪广告桩"}, {"05", "双枪广告桩"}};

// The fault code is upper case while the hex text is lower case, so a post in fault
// shows "--". Posts in the field are read this way; keep it.
const std::pair<std::string, const char*> kGunStates[] = {{"00", "空闲中"},
                                                          {"01", "插枪未充电"},
                                                          {"06", "充电中"},
                                                          {"08", "充电结束未拔枪"},
                                                          {"0F", "故障中"}};

}  // namespace

std::array<std::string, 10> systemInfo(const Bytes& answer) {
  using detail::cut;
  using detail::hexField;
  using detail::ull;
  namespace f = protocol::system_info;
  const std::string hex = ZDataCoverTool::coverFromDataToHexStr(answer);

  const auto postNumber = ZDataCoverTool::coverFromHexStringToStr(cut(hex, f::postNumber));
  TQLog("桩号:  %s", postNumber->c_str());
  const std::string postType = detail::lookup(kPostTypes, cut(hex, f::postType), "--");
  const std::string maker = hexField(hex, f::maker) == protocol::kKnownMakerCode ? protocol::kKnownMakerName : "未知";
  const std::string magic = detail::printf("%llu", ull(hexField(hex, f::magic)));
  // Versions are sent last component first.
  const std::string protocol =
      detail::printf("%llu.%llu", ull(hexField(hex, f::protocolMajor)), ull(hexField(hex, f::protocolMinor)));
  const std::string firmware = detail::printf("%llu.%llu.%llu", ull(hexField(hex, f::firmwareMajor)),
                                              ull(hexField(hex, f::firmwareMinor)),
                                              ull(hexField(hex, f::firmwarePatch)));
  const std::string model = *ZDataCoverTool::coverFromHexStringToStr(cut(hex, f::firmwareModel));

  const std::string volumeDigits = cut(hex, f::volume);
  TQLog("获取的音量大小: %s", volumeDigits.c_str());
  const std::string volume =
      detail::printf("%llu", ull(ZDataCoverTool::coverFromHexStrToInt(volumeDigits)));

  // The charging-mode byte lies inside the firmware model; only its digits are logged.
  const std::string modeDigits = cut(hex, f::chargingMode);
  TQLog("充电模式: %s", modeDigits.c_str());

  const std::string clock = ZGeneralTool::coverToBleDatematterFromTimeInterval(
      ZDataCoverTool::coverToIntFrome4BytesHexStr(cut(hex, f::clock)));
  const std::string gunState = detail::lookup(kGunStates, cut(hex, f::gunState), "--");

  // Row 1 never shows the post number.
  return {"获取系统信息", postType, maker,  magic, protocol,
          firmware,       model,    volume, clock, gunState};
}

}  // namespace tqble::decode
