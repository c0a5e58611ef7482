// Display helpers of ZConverTool: distances and mobile numbers.
#include <unicode/regex.h>
#include <unicode/unistr.h>

#include <memory>

#include "tools/Printf.h"
#include "tools/Utf16.h"
#include "tqble/ZConverTool.h"

namespace tqble {

std::string ZConverTool::converDistance(double distance) {
  if (distance < 0) return "未知";
  if (distance <= 1000) return detail::printf("%.0lf米", distance);
  return detail::printf("%.1lf千米", distance / 1000);
}

std::string ZConverTool::addDistance(double distance) {
  return detail::printf("%.1f", 6 * (distance / 1000));
}

std::string ZConverTool::addDistanceWithNoPoint(double distance) { return addDistance(distance); }

bool ZConverTool::isPhoneNum(const std::string& phoneNum) {
  // Used exactly as published, commas inside the classes included: "18," passes and
  // "15," does not.
  static const char16_t kPattern[] =
      u"^((13[0-9])|(15[^4,\\D])|(18[0,0-9])|(17[0-9])|(11[0-9])|(12[0-9])|(14[0-9])|(16[0-9])|"
      u"(19[0-9]))\\d{8}$";
  UErrorCode status = U_ZERO_ERROR;
  // The matcher reads its input in place: the text must outlive it.
  const icu::UnicodeString text = icu::UnicodeString::fromUTF8(phoneNum);
  icu::RegexMatcher matcher(icu::UnicodeString(kPattern), text, 0, status);
  if (U_FAILURE(status)) return false;
  const bool whole = matcher.matches(status);
  return U_SUCCESS(status) && whole;
}

std::string ZConverTool::coverPhoneNumber(const std::string& phoneNum) {
  return detail::cut16(phoneNum, 0, 3) + "****" + detail::cutFrom16(phoneNum, 7);
}

}  // namespace tqble
