#include <gtest/gtest.h>

#include <stdexcept>

#include "support/Hex.h"
#include "support/LogCapture.h"
#include "tqble/ZDataCoverTool.h"

namespace tqble {
namespace {

using T = ZDataCoverTool;
using test::hex;
using test::spaced;

// Each row pairs a computed result with the result it must equal.
template <typename V>
void expectRows(const std::vector<std::pair<V, V>>& rows) {
  for (std::size_t i = 0; i < rows.size(); ++i)
    EXPECT_EQ(rows[i].first, rows[i].second) << "row " << i;
}

TEST(Texts, AreLowerCaseHexPairsWithTheirStatedQuirks) {
  // clang-format off
  expectRows<std::string>({
      {T::coverFromDataToHexStr(hex("00 0A FF 7f")), "000aff7f"}, {T::coverFromHexDataToStr({}).value_or("-"), "-"},
      {T::coverToLowFromFrontHightByteStr("abc"), "c0ab"},  // an odd text is padded at its end
      {T::coverFromHexStringToStr("000a10").value_or("-"), "01016"},  // unpadded decimals
      {T::coverFromHexStringToStr("abc").value_or("-"), "-"},
      {spaced(T::hexToBytes("7fzz0")), "7F 7F"},  // a failed pair repeats; a last digit is lost
      {spaced(T::coverFromStringToHexData("a时")), "61 E6 97 B6"},  // UTF-8, despite the name
      {T::coverFromStringToHexStr("abcdefghi"), "61626364 65666768 69"},
      {T::coverFromStringToAsciiStr("xyz"), "31 32 33 34 35 36 37 38 39 41 42 43 44 45 46 47 "},
      {spaced(T::coverToByteWithData(0x01020304)), "04 03 02 01"}, {spaced(T::setId(-2)), "FF FF FF FE"},
      {spaced(T::coverToBytesWtinDataFromLongData(0x1122334455667788)), "88 77 66 55"},
      // Upper case, at most nine digits, and negative remainders written as numbers.
      {T::coverFromIntToHex(0), "00"}, {T::coverFromIntToHex(0xABCDEF1234), "BCDEF1234"},
      {T::coverFromIntToHex(-17), "-1-1"}, {T::coverFromIntToHex(-26), "-1-10"},
      // A space only after a full group of eight UTF-16 units, the first group starting at index 1.
      {T::stringAppendSpace("12345678"), "12345678 "}, {T::stringAppendSpace("12345678 1234"), "12345678 1234"},
      {T::stringAppendSpace("123456789"), "123456789 "}, {T::stringAppendSpace("1234567890"), "1234567890"},
      {T::stringAppendSpace("一二三四五六七八"), "一二三四五六七八 "},
  });
  // clang-format on
}

TEST(Integers, ParseLikeStrtoulReadTheirByteOrdersAndShortInputsAreRangeErrors) {
  // clang-format off
  expectRows<std::uint64_t>({
      {T::coverFromHexStrToInt("  12zz"), 18},  // skips blanks, stops at the first non-digit
      {T::coverFromHexStrToInt("FFFFFFFFFFFFFFFFFF"), UINT64_MAX}, {T::coverFromHexStrToInt("-1"), UINT64_MAX}});
  expectRows<std::int64_t>({
      {T::coverToIntFrome4BytesHexStr("0100000099"), 1},  // little-endian first eight characters
      {T::coverToIntFrome4BytesHexStr("00000080"), INT32_MIN}, {T::setDa(hex("80 00 00 01 ff")), INT32_MIN + 1},
      {T::coverTo2ByteIntWithDa(hex("80 00 ff")), 32768}, {T::coverTo1ByteIntWithDa(hex("ff 01")), -1}});
  // clang-format on
  test::LogCapture quiet;
  EXPECT_THROW((void)T::coverToIntFrome4BytesHexStr("1000000"), std::out_of_range);
  EXPECT_THROW((void)T::setDa(hex("01 02 03")), std::out_of_range);
  EXPECT_THROW((void)T::coverFromHexStrToData("0a1"), std::out_of_range);
  EXPECT_THROW((void)T::coverFromHexStrToData(std::string(258, 'f')), std::out_of_range);
}

TEST(FixedBuffer, Is128BytesDecodedWithTheFirstCharactersCase) {
  test::LogCapture quiet;  // a line per byte
  const Bytes bytes = T::coverFromHexStrToData("A0a0ff1a1AAb");
  ASSERT_EQ(bytes.size(), 128u);
  // 1A reads its low digit as lower case: 16 + ('A' - 87) = -6; Ab as upper: 160 + ('b' - 55).
  EXPECT_EQ(spaced(Bytes(bytes.begin(), bytes.begin() + 7)), "A0 A0 FF 1A FA CB 00");
  EXPECT_EQ(T::coverFromHexStrToData(std::string(256, 'f')), Bytes(128, 0xFF));
}

TEST(NonAsciiHexText, IsMeasuredAndCutInUtf16UnitsAsThePlatformCounts) {
  test::LogCapture quiet;
  // clang-format off
  expectRows<std::string>({
      {T::coverToLowFromFrontHightByteStr("中文"), "中文"}, {T::coverToLowFromFrontHightByteStr("a中b"), "b0a中"},
      {T::coverFromHexStringToStr("é1").value_or("-"), "0"}, {T::coverFromHexStringToStr("0aé").value_or("-"), "-"},
      {spaced(T::hexToBytes("0a中")), "0A"}, {spaced(T::hexToBytes("0a中b")), "0A 0A"},
      {std::to_string(T::coverToIntFrome4BytesHexStr("é1000000")), "0"},
      // 中 is unit 0x4E2D: (0x4E2D - 87) * 16, stored as its low byte.
      {spaced(Bytes(1, T::coverFromHexStrToData("中0")[0])), "60"},
  });
  // clang-format on
  EXPECT_THROW((void)T::coverToIntFrome4BytesHexStr("123456é"), std::out_of_range);
  EXPECT_THROW((void)T::coverFromHexStrToData("中"), std::out_of_range);
}

}  // namespace
}  // namespace tqble
