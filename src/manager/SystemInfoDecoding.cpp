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

constexpr std::uint64_t kVelmoraCode = 102;

}  // namespace

std::array<std::string, 10> systemInfo(const Bytes& answer) {
  using detail::cut;
  using detail::hexField;
  using detail::ull;
  const std::string hex = ZDataCoverTool::coverFromDataToHexStr(answer);

  const auto postNumber = ZDataCoverTool::coverFromHexStringToStr(cut(hex, 16, 40));
  TQLog("桩号:  %s", postNumber->c_str());
  const std::string postType = detail::lookup(kPostTypes, cut(hex, 56, 2), "--");
  const std::string maker = hexField(hex, 58, 2) == kVelmoraCode ? "Velmora" : "未知";
  const std::string magic = detail::printf("%llu", ull(hexField(hex, 60, 8)));
  // Versions are sent last component first.
  const std::string protocol =
      detail::printf("%llu.%llu", ull(hexField(hex, 70, 2)), ull(hexField(hex, 68, 2)));
  const std::string firmware = detail::printf("%llu.%llu.%llu", ull(hexField(hex, 76, 2)),
                                              ull(hexField(hex, 74, 2)), ull(hexField(hex, 72, 2)));
  const std::string model = *ZDataCoverTool::coverFromHexStringToStr(cut(hex, 78, 40));

  const std::string volumeDigits = cut(hex, 118, 2);
  TQLog("获取的音量大小: %s", volumeDigits.c_str());
  const std::string volume =
      detail::printf("%llu", ull(ZDataCoverTool::coverFromHexStrToInt(volumeDigits)));

  // The charging-mode byte lies inside the firmware model; only its digits are logged.
  const std::string modeDigits = cut(hex, 108, 2);
  TQLog("充电模式: %s", modeDigits.c_str());

  const std::string clock = ZGeneralTool::coverToBleDatematterFromTimeInterval(
      ZDataCoverTool::coverToIntFrome4BytesHexStr(cut(hex, 120, 8)));
  const std::string gunState = detail::lookup(kGunStates, cut(hex, 132, 2), "--");

  // Row 1 never shows the post number.
  return {"获取系统信息", postType, maker,  magic, protocol,
          firmware,       model,    volume, clock, gunState};
}

}  // namespace tqble::decode
