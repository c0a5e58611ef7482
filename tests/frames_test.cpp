#include <gtest/gtest.h>

#include "support/FakeBle.h"
#include "support/Hex.h"

namespace tqble {
namespace {

using test::hex;
using test::spaced;

struct FrameCase {
  const char* name;
  std::uint8_t cmd;
  std::uint8_t status;
  std::optional<Bytes> body;
  std::uint8_t rand;
  const char* expected;
};

void PrintTo(const FrameCase& c, std::ostream* os) {
  *os << c.name;
}

class FrameEncoding : public testing::TestWithParam<FrameCase> {};

TEST_P(FrameEncoding, ProducesExactBytes) {
  test::FakeStack stack;
  const auto& c = GetParam();
  EXPECT_EQ(spaced(stack.manager->setDataWithCmd(c.cmd, c.status, c.body, c.rand)),
            spaced(hex(c.expected)));
}

INSTANTIATE_TEST_SUITE_P(
    Frames, FrameEncoding,
    testing::Values(
        FrameCase{"StateQuery", 0xB5, 0, hex("00"), 0, "68 B5 00 00 01 00 00 DC 00"},
        FrameCase{"AbsentBody", 0xB5, 0, std::nullopt, 0, "68 B5 00 00 00 00 00 DD"},
        FrameCase{"EmptyBody", 0xB5, 0, Bytes{}, 0, "68 B5 00 00 00 00 00 DD"},
        // 0xBA alone takes the 0xAA start byte, which enters the checksum.
        FrameCase{"CodeBA", 0xBA, 0, std::nullopt, 0, "AA BA 00 00 00 00 00 10"},
        FrameCase{"CodeB9", 0xB9, 0, std::nullopt, 0, "68 B9 00 00 00 00 00 D1"},
        FrameCase{"CodeBB", 0xBB, 0, std::nullopt, 0, "68 BB 00 00 00 00 00 D3"},
        // Status and command above 0x7F are copied verbatim.
        FrameCase{"HighStatus", 0xFF, 0x80, hex("01 02"), 0, "68 FF 80 00 02 00 00 16 01 02"},
        // The seed changes byte 7 only.
        FrameCase{"SeededChecksum", 0xB5, 0, hex("00"), 0x5A, "68 B5 00 00 01 00 00 86 00"},
        FrameCase{"SeedAndStatus", 0x32, 0x07, hex("00"), 0xFF, "68 32 07 00 01 00 00 A3 00"}),
    [](const auto& info) { return info.param.name; });

TEST(FrameEncoding, LengthIsLittleEndianForLongBodies) {
  test::FakeStack stack;
  const Bytes body(256, 0x11);
  const Bytes frame = stack.manager->setDataWithCmd(0xB0, 0, body, 0);
  ASSERT_EQ(frame.size(), 264u);
  EXPECT_EQ(frame[4], 0x00);
  EXPECT_EQ(frame[5], 0x01);
  // 256 equal body bytes cancel out in the XOR: 68 ^ B0 ^ 01.
  EXPECT_EQ(frame[7], 0x68 ^ 0xB0 ^ 0x01);
  EXPECT_TRUE(std::equal(body.begin(), body.end(), frame.begin() + 8));
}

}  // namespace
}  // namespace tqble
