// The hex and byte conversions on arbitrary text and bytes: fixed-position cuts refuse
// short input and nothing else, and the conversions agree with one another.
#include <algorithm>
#include <cstdint>
#include <cstring>

#include "FuzzSupport.h"
#include "tqble/ZDataCoverTool.h"

using namespace tqble;
using fuzz::expect;
using fuzz::rangeErrorExactlyWhen;
using T = ZDataCoverTool;

namespace {

bool isAscii(const std::string& s) {
  return std::all_of(s.begin(), s.end(),
                     [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

bool isLowerHex(const std::string& s) {
  return std::all_of(s.begin(), s.end(),
                     [](char c) { return std::strchr("0123456789abcdef", c) && c; });
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::setUp();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Bytes bytes(data, data + size);
  const std::string text(bytes.begin(), bytes.end());

  const std::string hex = T::coverFromDataToHexStr(bytes);
  expect(hex.size() == 2 * size && isLowerHex(hex), "two lower-case digits per byte");
  expect(T::hexToBytes(hex) == bytes, "hexToBytes reads coverFromDataToHexStr back");
  expect(T::coverFromHexDataToStr(bytes) == (size ? std::optional(hex) : std::nullopt),
         "hex data text is nullopt only when empty");
  expect(T::coverToLowFromFrontHightByteStr(T::coverToLowFromFrontHightByteStr(hex)) == hex,
         "reversing the pairs twice gives the text back");
  expect(T::coverFromStringToHexData(text) == bytes, "a text's bytes");

  T::coverFromHexStrToInt(text);
  T::coverFromStringToHexStr(text);
  T::stringAppendSpace(text);
  T::coverFromStringToAsciiStr(text);
  T::coverToLowFromFrontHightByteStr(text);
  if (isAscii(text)) {
    // Character counts equal byte counts only for ASCII text.
    expect(T::hexToBytes(text).size() == size / 2, "one byte per complete pair");
    expect(T::coverFromHexStringToStr(text).has_value() == (size % 2 == 0),
           "odd length is nullopt");
    rangeErrorExactlyWhen(size < 8, "the 4-byte field needs 8 characters",
                          [&] { T::coverToIntFrome4BytesHexStr(text); });
    rangeErrorExactlyWhen(
        size % 2 == 1 || size > 256, "the 128-byte buffer takes pairs up to 256",
        [&] { expect(T::coverFromHexStrToData(text).size() == 128, "128 bytes"); });
  } else {
    T::hexToBytes(text);
    T::coverFromHexStringToStr(text);
    fuzz::mayCut([&] { T::coverToIntFrome4BytesHexStr(text); });
    fuzz::mayCut([&] { T::coverFromHexStrToData(text); });
  }

  std::int64_t wide = 0;
  if (size) std::memcpy(&wide, data, std::min(size, sizeof wide));
  const std::string upper = T::coverFromIntToHex(wide);
  expect(wide < 0 || (upper.size() >= 2 && upper.size() <= 9), "two to nine digits");
  expect(T::setId(static_cast<std::int32_t>(wide)).size() == 4, "four bytes");
  expect(T::setDa(T::setId(static_cast<std::int32_t>(wide))) == static_cast<std::int32_t>(wide),
         "setDa reads setId back");
  expect(T::coverToBytesWtinDataFromLongData(wide) ==
             T::coverToByteWithData(static_cast<std::int32_t>(wide)),
         "the low four bytes, least significant first");
  rangeErrorExactlyWhen(size < 4, "four bytes", [&] { T::setDa(bytes); });
  rangeErrorExactlyWhen(size < 2, "two bytes", [&] { T::coverTo2ByteIntWithDa(bytes); });
  rangeErrorExactlyWhen(size < 1, "one byte", [&] { T::coverTo1ByteIntWithDa(bytes); });
  return 0;
}
