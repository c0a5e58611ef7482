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

TEST(HexText, IsTwoLowerCaseDigitsPerByteWithoutSeparators) {
  EXPECT_EQ(T::coverFromDataToHexStr(hex("00 0A FF 7f")), "000aff7f");
  EXPECT_EQ(T::coverFromDataToHexStr({}), "");
}

TEST(HexText, AbsentForAnEmptyBufferOnlyInTheOptionalForm) {
  EXPECT_EQ(T::coverFromHexDataToStr({}), std::nullopt);
  EXPECT_EQ(T::coverFromHexDataToStr(hex("00 0A FF")), "000aff");
}

struct ParseCase {
  const char* text;
  std::uint64_t value;
};

TEST(HexParsing, FollowsTheCLibraryConversion) {
  const ParseCase cases[] = {
      {"00000010", 16}, {"0x1F", 31},       {"0X1f", 31}, {"zz", 0},
      {"12zz", 18},     {"  ff", 255},      {"", 0},      {"FFFFFFFFFFFFFFFFFF", UINT64_MAX},
      {"-1", UINT64_MAX},  // the sign negates in unsigned arithmetic
  };
  for (const auto& c : cases) EXPECT_EQ(T::coverFromHexStrToInt(c.text), c.value) << c.text;
}

TEST(LittleEndianField, ReversesTheFourPairsOfTheFirstEightCharacters) {
  EXPECT_EQ(T::coverToIntFrome4BytesHexStr("78563412"), 305419896);
  EXPECT_EQ(T::coverToIntFrome4BytesHexStr("10000000"), 16);
  EXPECT_EQ(T::coverToIntFrome4BytesHexStr("ffffffff"), -1);
  EXPECT_EQ(T::coverToIntFrome4BytesHexStr("00000080"), INT32_MIN);
  EXPECT_EQ(T::coverToIntFrome4BytesHexStr("0100000099"), 1);
}

TEST(LittleEndianField, RejectsTextShorterThanEightCharacters) {
  EXPECT_THROW(T::coverToIntFrome4BytesHexStr("1000000"), std::out_of_range);
  EXPECT_THROW(T::coverToIntFrome4BytesHexStr(""), std::out_of_range);
}

TEST(PairReversal, PadsAnOddTextAtItsEnd) {
  EXPECT_EQ(T::coverToLowFromFrontHightByteStr("0a0b0c"), "0c0b0a");
  EXPECT_EQ(T::coverToLowFromFrontHightByteStr("123"), "3012");
  EXPECT_EQ(T::coverToLowFromFrontHightByteStr("abc"), "c0ab");
  EXPECT_EQ(T::coverToLowFromFrontHightByteStr(""), "");
}

TEST(PairsToDecimal, ConcatenatesEachPairWithoutPadding) {
  EXPECT_EQ(T::coverFromHexStringToStr("0102"), "12");
  EXPECT_EQ(T::coverFromHexStringToStr("0a10"), "1016");
  EXPECT_EQ(T::coverFromHexStringToStr("000a"), "010");
  EXPECT_EQ(T::coverFromHexStringToStr("ff"), "255");
  EXPECT_EQ(T::coverFromHexStringToStr("zz01"), "01");
  EXPECT_EQ(T::coverFromHexStringToStr(""), "");
  EXPECT_EQ(T::coverFromHexStringToStr("abc"), std::nullopt);
}

TEST(IntegerBytes, KeepTheirStatedByteOrders) {
  EXPECT_EQ(spaced(T::coverToByteWithData(0x01020304)), "04 03 02 01");
  EXPECT_EQ(spaced(T::coverToByteWithData(-2)), "FE FF FF FF");
  EXPECT_EQ(spaced(T::setId(0x01020304)), "01 02 03 04");
  EXPECT_EQ(spaced(T::setId(-2)), "FF FF FF FE");
  EXPECT_EQ(spaced(T::coverToBytesWtinDataFromLongData(0x1122334455667788)), "88 77 66 55");
  EXPECT_EQ(spaced(T::coverToBytesWtinDataFromLongData(-1)), "FF FF FF FF");
}

TEST(BufferReads, AreBigEndianExceptTheSignExtendedSingleByte) {
  EXPECT_EQ(T::setDa(hex("01 02 03 04 05")), 0x01020304);
  EXPECT_EQ(T::setDa(hex("80 00 00 00")), INT32_MIN);
  EXPECT_EQ(T::coverTo2ByteIntWithDa(hex("80 00")), 32768);
  EXPECT_EQ(T::coverTo2ByteIntWithDa(hex("01 02 ff")), 0x0102);
  EXPECT_EQ(T::coverTo1ByteIntWithDa(hex("80")), -128);
  EXPECT_EQ(T::coverTo1ByteIntWithDa(hex("ff 01")), -1);
  EXPECT_EQ(T::coverTo1ByteIntWithDa(hex("7f")), 127);
}

TEST(BufferReads, RejectBuffersThatAreTooShort) {
  EXPECT_THROW(T::setDa(hex("01 02 03")), std::out_of_range);
  EXPECT_THROW(T::coverTo2ByteIntWithDa(hex("01")), std::out_of_range);
  EXPECT_THROW(T::coverTo1ByteIntWithDa({}), std::out_of_range);
}

TEST(HexToBytes, IgnoresATrailingCharacterAndRepeatsTheLastByteOnAFailedPair) {
  EXPECT_EQ(spaced(T::hexToBytes("0a1B")), "0A 1B");
  EXPECT_EQ(spaced(T::hexToBytes("0a1")), "0A");
  EXPECT_EQ(spaced(T::hexToBytes("")), "");
  EXPECT_EQ(spaced(T::hexToBytes("7fzz01")), "7F 7F 01");
  EXPECT_EQ(spaced(T::hexToBytes(" f")), "0F");  // leading blank skipped by the scanner
}

TEST(TextBytes, AreTheUtf8BytesDespiteTheName) {
  EXPECT_EQ(spaced(T::coverFromStringToHexData("a时")), "61 E6 97 B6");
  EXPECT_EQ(T::coverFromStringToHexStr("abcdefghi"), "61626364 65666768 69");
  EXPECT_EQ(T::coverFromStringToHexStr("abcd"), "61626364");
  EXPECT_EQ(T::coverFromStringToHexStr(""), "");
}

struct SpaceCase {
  const char* text;
  const char* expected;
};

TEST(StringAppendSpace, AddsASpaceOnlyAfterAFullEightCharacterGroup) {
  const SpaceCase cases[] = {
      {"", ""},
      {"1234567", "1234567"},
      {"12345678", "12345678 "},
      {"12345678 1234", "12345678 1234"},
      {"12345678 12345678", "12345678 12345678 "},
      {"1234 123456789", "1234 123456789"},
      // Without any space the group is taken to start at index 1.
      {"123456789", "123456789 "},
      {"1234567890", "1234567890"},
      // Lengths count UTF-16 units: eight Chinese characters are a full group.
      {"一二三四五六七八", "一二三四五六七八 "},
  };
  for (const auto& c : cases) EXPECT_EQ(T::stringAppendSpace(c.text), c.expected) << c.text;
}

TEST(FixedBuffer, DecodesWithTheFirstCharactersCaseAndLogsEachByte) {
  test::LogCapture log;
  const Bytes bytes = T::coverFromHexStrToData("A0a0ff1a1AAb");
  ASSERT_EQ(bytes.size(), 128u);
  // 1A reads its low digit as if lower case: 16 + ('A' - 87) = -6; Ab reads it as
  // upper case: 160 + ('b' - 55) = 203.
  EXPECT_EQ(spaced(Bytes(bytes.begin(), bytes.begin() + 6)), "A0 A0 FF 1A FA CB");
  EXPECT_EQ(log.lines, (std::vector<std::string>{"int_ch=160", "int_ch=160", "int_ch=255",
                                                 "int_ch=26", "int_ch=-6", "int_ch=203"}));
  EXPECT_EQ(Bytes(bytes.begin() + 6, bytes.end()), Bytes(122, 0));
}

TEST(FixedBuffer, RejectsOddAndOverlongText) {
  test::LogCapture log;
  EXPECT_THROW(T::coverFromHexStrToData("0a1"), std::out_of_range);
  EXPECT_EQ(T::coverFromHexStrToData(std::string(256, 'f')), Bytes(128, 0xFF));
  EXPECT_THROW(T::coverFromHexStrToData(std::string(258, 'f')), std::out_of_range);
}

TEST(AsciiText, IsAlwaysTheFixedSampleWhateverTheArgument) {
  const std::string sample = "31 32 33 34 35 36 37 38 39 41 42 43 44 45 46 47 ";
  EXPECT_EQ(T::coverFromStringToAsciiStr("xyz"), sample);
  EXPECT_EQ(T::coverFromStringToAsciiStr(""), sample);
}

TEST(IntToHex, IsUpperCaseWithAtMostNineDigits) {
  const std::pair<std::int64_t, const char*> cases[] = {
      {0, "00"},          {5, "05"},
      {10, "0A"},         {255, "FF"},
      {256, "100"},       {4096, "1000"},
      {0x123456789, "123456789"},
      {0xABCDEF1234, "BCDEF1234"},  // only the lowest nine digits survive
      {-1, "-1"},         {-17, "-1-1"},
      {-26, "-1-10"},  // the remainder -10 is written as a number, not a letter
  };
  for (const auto& [value, text] : cases) EXPECT_EQ(T::coverFromIntToHex(value), text) << value;
}

TEST(Demonstrations, LogTheirExactLines) {
  test::LogCapture log;
  T::coverFromBytesArrToData();
  T::coverFromBytesArrToHexStr();
  T::coverTest(std::any{});
  EXPECT_EQ(log.lines,
            (std::vector<std::string>{
                "字节数组转换的data 数据为: <00010203 04050607 08090a0b 0c0d0e0f 10111213 "
                "14151617>",
                "1234abcd", "bytes 的16进制数为:3132333461626364",
                "data 的16进制数为:<31323334 61626364>"}));
}

}  // namespace
}  // namespace tqble
