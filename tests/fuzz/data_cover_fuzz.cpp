// The hex and byte conversions on arbitrary bytes, read as bytes and as text: nothing but
// the range error escapes, and each conversion that has an inverse round-trips through it.
#include <algorithm>
#include <cstdint>
#include <cstring>

#include "FuzzSupport.h"
#include "tqble/ZDataCoverTool.h"

using namespace tqble;
using fuzz::accepted;
using fuzz::expect;
using T = ZDataCoverTool;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Bytes bytes(data, data + size);
  const std::string text(bytes.begin(), bytes.end());

  const std::string hex = T::coverFromDataToHexStr(bytes);
  expect(hex.size() == 2 * size && T::hexToBytes(hex) == bytes, "hexToBytes reads the hex back");
  expect(T::coverFromHexDataToStr(bytes) == (size ? std::optional(hex) : std::nullopt),
         "the optional hex is absent only for no bytes");
  expect(T::coverToLowFromFrontHightByteStr(T::coverToLowFromFrontHightByteStr(hex)) == hex,
         "reversing the byte pairs twice gives the hex back");
  std::string plain = T::stringAppendSpace(T::coverFromStringToHexStr(text));
  std::erase(plain, ' ');
  expect(hex.starts_with(plain), "the grouped hex without its spaces starts the hex");
  Bytes padded;
  if (accepted([&] { padded = T::coverFromHexStrToData(hex); }))
    expect(padded.size() >= size && std::equal(bytes.begin(), bytes.end(), padded.begin()) &&
               std::all_of(padded.begin() + size, padded.end(), [](auto b) { return b == 0; }),
           "the fixed buffer holds the bytes, then zeros");

  // Arbitrary text where hex is expected, and bytes too short for a field.
  T::coverFromHexStrToInt(text), T::hexToBytes(text), T::coverFromHexStringToStr(text);
  accepted([&] { T::coverToIntFrome4BytesHexStr(text); });
  accepted([&] { T::coverFromHexStrToData(text); });
  accepted([&] { T::coverTo1ByteIntWithDa(bytes), T::coverTo2ByteIntWithDa(bytes), T::setDa(bytes); });

  std::int64_t wide = 0;
  std::memcpy(&wide, data, std::min(size, sizeof wide));
  const auto narrow = static_cast<std::int32_t>(wide);
  const auto low = static_cast<std::uint32_t>(wide);
  expect(T::coverFromHexStrToInt(T::coverFromIntToHex(low)) == low, "hex of a 32-bit value reads back");
  expect(T::setDa(T::setId(narrow)) == narrow, "setDa reads setId back");
  expect(T::coverToIntFrome4BytesHexStr(T::coverFromDataToHexStr(T::coverToByteWithData(narrow))) ==
             narrow,
         "the little-endian field reads coverToByteWithData back");
  expect(T::coverToBytesWtinDataFromLongData(wide) == T::coverToByteWithData(narrow), "low bytes");
  return 0;
}
