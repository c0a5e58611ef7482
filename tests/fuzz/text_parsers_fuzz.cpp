// The text parsers of the display and date helpers on arbitrary text: nothing but the
// range error escapes, splitting and joining round-trip, sorting keeps every element and
// is idempotent, a written duration reads back, and masking an ASCII number is idempotent
// (the mask counts UTF-16 units, and may split a pair or an ill-formed sequence).
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>

#include "FuzzSupport.h"
#include "tqble/ZConverTool.h"
#include "tqble/ZGeneralTool.h"

using namespace tqble;
using fuzz::expect;
using G = ZGeneralTool;
using C = ZConverTool;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(data, data + size);
  const auto pieces = G::coverToArrFromStr(text);
  expect(pieces.size() == static_cast<std::size_t>(std::count(text.begin(), text.end(), ',')) + 1 &&
             G::coverToStrFromArr(pieces) == text,
         "joining the pieces at the commas gives the text");

  std::vector<std::optional<std::string>> times;
  for (const auto& piece : pieces)
    times.push_back(piece.empty() ? std::nullopt : std::optional(piece));
  auto sorted = G::sortWithTimeIntervalFromTimeStrs(times);
  expect(G::sortWithTimeIntervalFromTimeStrs(sorted) == sorted, "sorting a sorted list changes nothing");
  std::sort(times.begin(), times.end());
  std::sort(sorted.begin(), sorted.end());
  expect(sorted == times, "sorting keeps every element");

  G::cTimestampFromString(text), G::coverDateFromFormatter(text);
  fuzz::accepted([&] { G::coverDateFamaterWithDateStr(text); });
  const auto at = G::getLocationWithStr(text.substr(0, size && (data[0] & 0x80) ? 3 : 1), text);
  expect(at >= 0 && static_cast<std::size_t>(at) <= size, "a position inside the content");

  fuzz::accepted([&] { C::converTimeWith(text), C::subHourMinuteWithTimeStr(text, 1); });
  std::int32_t span = 0;
  std::memcpy(&span, data, std::min(size, sizeof span));
  expect(C::converTimeWith(C::converHourAndMinuteWith(span)) == span - span % 60,
         "a written duration reads back to the minute");

  std::string masked;
  if (fuzz::accepted([&] { masked = C::coverPhoneNumber(text); }) &&
      std::all_of(text.begin(), text.end(), [](char c) { return c > 0; }))
    expect(C::coverPhoneNumber(masked) == masked, "masking a masked number changes nothing");
  expect(!C::isPhoneNum(text) || masked.size() == size, "masking a mobile number keeps its length");
  return 0;
}
