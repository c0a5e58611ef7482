#include <gtest/gtest.h>

#include "support/FakeBle.h"
#include "support/Hex.h"
#include "tqble/AnswerDecoding.h"

namespace tqble {
namespace {

using test::hex;

TEST(Acknowledgement, ReadsOnlyExactly01AsFailureAndAShortFrameAsFailure) {
  // clang-format off
  const std::pair<const char*, std::int64_t> cases[] = {
      {"68 b0 00 00 01 00 00 00 00", 0}, {"68 b0 00 00 01 00 00 00 01", 1}, {"68 b0 00 00 01 00 00 00 02", 0},
      {"68 b0 00 00 01 00 00 00 10", 0}, {"68 b0 00 00 02 00 00 00 01 00", 1},
      {"68 b0 00 00 00 00 00 00", 1}, {"", 1}};  // short frames
  // clang-format on
  for (const auto& [frame, type] : cases) {
    EXPECT_EQ(decode::setResult(hex(frame)).resultType, type) << frame;
  }
}

TEST(Acknowledgement, EveryForwardingDecoderStoresANewResultAndStopAlwaysSucceeds) {
  test::FakeStack stack;
  auto& m = *stack.manager;
  for (auto decoder : {&TQBleManager::analysisSynchroTime, &TQBleManager::analysisSetVolume,
                       &TQBleManager::analysisChargingOrderTime, &TQBleManager::analysisCharging}) {
    (m.*decoder)(hex("68 b2 00 00 01 00 00 00 01"));
    const auto first = m.dataModel()->result;
    (m.*decoder)(hex("68 b2 00 00 01 00 00 00 00"));
    const auto second = m.dataModel()->result;
    ASSERT_TRUE(first && second && second != first) << "each answer gets a new result";
    EXPECT_TRUE(first->resultType == 1 && second->resultType == 0 && !m.dataModel()->chargingData);
  }
  m.setCmdType(7);
  for (const auto& answer :
       {std::optional(hex("68 b6 01 00 01 00 00 00 01")), std::optional<Bytes>()}) {
    m.setDataModel(nullptr);
    m.analysisData(answer);
    ASSERT_NE(m.dataModel()->result, nullptr);
    EXPECT_EQ(m.dataModel()->result->resultType, 0);
  }
}

}  // namespace
}  // namespace tqble
