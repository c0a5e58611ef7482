#include <gtest/gtest.h>

#include "support/FakeBle.h"
#include "support/Hex.h"
#include "tqble/AnswerDecoding.h"

namespace tqble {
namespace {

using test::hex;

TEST(Acknowledgement, ReadsOnlyExactly01AsFailure) {
  const std::pair<const char*, std::int64_t> cases[] = {{"68 b0 00 00 01 00 00 00 00", 0},
                                                        {"68 b0 00 00 01 00 00 00 01", 1},
                                                        {"68 b0 00 00 01 00 00 00 02", 0},
                                                        {"68 b0 00 00 01 00 00 00 ff", 0},
                                                        {"68 b0 00 00 01 00 00 00 10", 0},
                                                        {"68 b0 00 00 02 00 00 00 01 00", 1},
                                                        {"68 b0 00 00 00 00 00 00", 1},
                                                        {"68 b0 00", 1},
                                                        {"", 1}};
  for (const auto& [frame, type] : cases) {
    EXPECT_EQ(decode::setResult(hex(frame)).resultType, type) << frame;
  }
}

TEST(Acknowledgement, EveryForwardingDecoderStoresTheSameResult) {
  test::FakeStack stack;
  auto& m = *stack.manager;
  using Decoder = void (TQBleManager::*)(const Bytes&);
  for (Decoder decoder :
       {&TQBleManager::analysisSynchroTime, &TQBleManager::analysisSetVolume,
        &TQBleManager::analysisChargingOrderTime, &TQBleManager::analysisCharging}) {
    m.setDataModel(nullptr);
    (m.*decoder)(hex("68 b2 00 00 01 00 00 00 01"));
    ASSERT_NE(m.dataModel()->result, nullptr);
    EXPECT_EQ(m.dataModel()->result->resultType, 1);
    const auto first = m.dataModel()->result;
    (m.*decoder)(hex("68 b2 00 00 01 00 00 00 00"));
    EXPECT_EQ(m.dataModel()->result->resultType, 0);
    EXPECT_NE(m.dataModel()->result, first) << "each answer gets a new result";
    EXPECT_EQ(m.dataModel()->chargingData, nullptr);
  }
}

TEST(Acknowledgement, AVolumeRefusalReachesTheDelegate) {
  test::FakeStack stack;
  auto post = stack.connectReadyPost();
  std::vector<std::int64_t> seen;
  auto delegate = std::make_shared<TQBleManagerDelegate>();
  delegate->didUpdateValueForCharacteristicValue =
      [&seen](TQBleManager&, const std::shared_ptr<TQBleDataModel>& model,
              const std::optional<TQError>&) {
        seen.push_back(model->result ? model->result->resultType : -1);
      };
  stack.manager->setDelegate(delegate);
  stack.manager->setVolumeWithVolumeSize(35, nullptr);
  stack.notify(post, hex("68 b2 00 00 01 00 00 00 01"));
  stack.manager->orderChargerWithStartHour(22, 30, 6, 0, nullptr);
  stack.notify(post, hex("68 b3 00 00"));
  stack.manager->synchroTimeWithError(nullptr);
  stack.notify(post, hex("68 b0 00 00 01 00 00 00 02"));
  EXPECT_EQ(seen, (std::vector<std::int64_t>{1, 1, 0}));
}

}  // namespace
}  // namespace tqble
