// The text parsers of the display and date helpers on arbitrary text: cuts refuse only
// the texts they must, and the parsers agree with one another and with the number rule.
#include <unicode/ustring.h>

#include <algorithm>
#include <cstdint>
#include <optional>

#include "FuzzSupport.h"
#include "tqble/ZConverTool.h"
#include "tqble/ZGeneralTool.h"

using namespace tqble;
using fuzz::expect;
using fuzz::rangeErrorExactlyWhen;

namespace {

/// UTF-16 length of valid UTF-8, nullopt for invalid text.
std::optional<std::int32_t> utf16Length(const std::string& s) {
  std::int32_t length = 0;
  UErrorCode status = U_ZERO_ERROR;
  u_strFromUTF8(nullptr, 0, &length, s.data(), static_cast<std::int32_t>(s.size()), &status);
  if (status != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(status)) return std::nullopt;
  return length;
}

/// The mobile-number rule on ASCII text: 1, then 1-9, a third character that depends on
/// the second (15 refuses 4, 18 also takes a comma), then eight digits.
bool mobileNumber(const std::string& s) {
  auto digit = [](char c) { return c >= '0' && c <= '9'; };
  if (s.size() != 11 || s[0] != '1' || s[1] < '1' || s[1] > '9') return false;
  const bool third =
      s[1] == '5' ? digit(s[2]) && s[2] != '4' : digit(s[2]) || (s[1] == '8' && s[2] == ',');
  return third && std::all_of(s.begin() + 3, s.end(), digit);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::setUp();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(data, data + size);
  const auto length = utf16Length(text);

  const auto pieces = ZGeneralTool::coverToArrFromStr(text);
  expect(pieces.size() == static_cast<std::size_t>(std::count(text.begin(), text.end(), ',')) + 1,
         "one piece more than commas");
  expect(ZGeneralTool::coverToStrFromArr(pieces) == text, "joining the pieces gives the text");

  std::vector<std::optional<std::string>> times;
  for (const auto& piece : pieces)
    times.push_back(piece.empty() ? std::nullopt : std::optional(piece));
  auto sorted = ZGeneralTool::sortWithTimeIntervalFromTimeStrs(times);
  std::sort(times.begin(), times.end());
  std::sort(sorted.begin(), sorted.end());
  expect(sorted == times, "sorting keeps every element");

  ZGeneralTool::cTimestampFromString(text);
  ZGeneralTool::coverDateFromFormatter(text);
  fuzz::mayCut([&] { ZGeneralTool::coverDateFamaterWithDateStr(text); });
  const std::string needle = text.substr(0, size && (data[0] & 0x80) ? 3 : 1);
  const auto at = ZGeneralTool::getLocationWithStr(needle, text);
  expect(at >= 0 && (!length || at < std::max(*length, 1)), "a position inside the content");

  const auto hourMark = text.find("时");
  const bool noMarks =
      hourMark == std::string::npos || text.find("分", hourMark) == std::string::npos;
  rangeErrorExactlyWhen(noMarks, "a duration needs 时 then 分", [&] {
    const auto seconds = ZConverTool::converTimeWith(text);
    const auto hours = ZConverTool::subHourMinuteWithTimeStr(text, 0);
    const auto minutes = ZConverTool::subHourMinuteWithTimeStr(text, 1);
    expect(static_cast<std::uint64_t>(seconds) ==
               static_cast<std::uint64_t>(hours) * 3600 + static_cast<std::uint64_t>(minutes) * 60,
           "seconds of hours and minutes");
  });

  if (length) {
    rangeErrorExactlyWhen(*length < 7, "a masked number needs 7 characters",
                          [&] { ZConverTool::coverPhoneNumber(text); });
  } else {
    fuzz::mayCut([&] { ZConverTool::coverPhoneNumber(text); });
  }
  const bool accepted = ZConverTool::isPhoneNum(text);
  if (std::all_of(text.begin(), text.end(), [](char c) { return c > 0; })) {
    expect(accepted == mobileNumber(text), "mobile-number rule");
  }
  return 0;
}
