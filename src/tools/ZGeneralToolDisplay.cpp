// Display helpers of ZGeneralTool: money, separator views, dialling, text height, text
// positions, joining and splitting, and the host's permissions.
#include "platform/HostHooks.h"
#include "tools/Printf.h"
#include "tools/Utf16.h"
#include "tqble/ZGeneralTool.h"

#include <unicode/unistr.h>

namespace tqble {
namespace {

constexpr double kSeparatorHeight = 0.8;

Color separatorColor() {
  constexpr double kGrey = 240.0 / 255.0;
  return {kGrey, kGrey, kGrey, 1.0};
}

// Restricted (1) and denied (2) refuse; every other status, later ones included, allows.
bool usable(std::int64_t status) { return status != 1 && status != 2; }

}  // namespace

std::string ZGeneralTool::coverToYuanFromeFen(std::int64_t fen) {
  return detail::printf("%.2f元", static_cast<double>(fen) / 100.0);
}

std::string ZGeneralTool::coverPackageToYuanFromeFen(std::int64_t fen) {
  return coverToYuanFromeFen(fen);
}

void ZGeneralTool::callPhoneWithPhoneNum(const std::string& phoneNum,
                                         const std::shared_ptr<View>& view) {
  detail::dial(detail::printf("tel:%s", phoneNum.c_str()), view);
}

std::shared_ptr<View> ZGeneralTool::addLineInView(const std::shared_ptr<View>& view,
                                                  const Rect& rect) {
  auto line = std::make_shared<View>();
  line->frame = rect;
  line->backgroundColor = separatorColor();
  if (view) view->addSubview(line);
  return line;
}

std::shared_ptr<View> ZGeneralTool::creatSeparateLineWithRect(const Rect& rect,
                                                             const std::shared_ptr<View>& view) {
  return addLineInView(view, {rect.x, rect.y, rect.width, kSeparatorHeight});
}

double ZGeneralTool::targetStr(const std::optional<std::string>& text, const Dictionary& attribute,
                               double width) {
  if (!text) return 0;
  return detail::measureTextHeight(*text, attribute, width);
}

std::int32_t ZGeneralTool::getLocationWithStr(const std::string& needle,
                                              const std::string& content) {
  // Compared one UTF-16 unit at a time, so a longer needle never matches; no match
  // reads as 0, the same as a match at the start.
  const icu::UnicodeString units = icu::UnicodeString::fromUTF8(content);
  const icu::UnicodeString wanted = icu::UnicodeString::fromUTF8(needle);
  if (wanted.length() != 1) return 0;
  for (std::int32_t i = 0; i < units.length(); ++i) {
    if (units.charAt(i) == wanted.charAt(0)) return i;
  }
  return 0;
}

std::string ZGeneralTool::coverToStrFromArr(const std::vector<std::string>& array) {
  std::string text;
  for (std::size_t i = 0; i < array.size(); ++i) {
    if (i > 0) text += ",";
    text += array[i];
  }
  return text;
}

std::vector<std::string> ZGeneralTool::coverToArrFromStr(const std::string& text) {
  std::vector<std::string> pieces;
  std::size_t start = 0;
  for (std::size_t comma; (comma = text.find(',', start)) != std::string::npos; start = comma + 1) {
    pieces.push_back(text.substr(start, comma - start));
  }
  pieces.push_back(text.substr(start));
  return pieces;
}

bool ZGeneralTool::isOpenLiberyAuthority() {
  return usable(detail::photoLibraryAuthorizationStatus());
}

bool ZGeneralTool::isOpenCamaraAuthority() { return usable(detail::cameraAuthorizationStatus()); }

}  // namespace tqble
