// Cost of receiving answers (per notification, through the manager's value-update
// callback and dispatch) and of decoding them (per answer, with the plain decoders).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <memory>

#include "platform/DateFormat.h"
#include "tqble/AnswerDecoding.h"
#include "tqble/TQBleManager.h"
#include "tqble/platform/Log.h"
#include "tqble/platform/MainQueue.h"
#include "tqble/sim/VirtualPost.h"

namespace {

using namespace tqble;

class Characteristic final : public ble::Characteristic {
 public:
  ble::UUID uuid() const override { return ble::UUID::fromString("FFF4"); }
  std::uint64_t properties() const override { return 0x12; }
  Bytes value() const override { return value_; }
  std::shared_ptr<ble::Service> service() const override { return {}; }
  Bytes value_;
};

// One manager for the process, with a listening delegate and a silent log.
struct Receiver {
  Receiver() {
    setLogSink([](std::string_view) {});
    MainQueue::main().useVirtualClock();
    manager = TQBleManager::shareManager();
    delegate = std::make_shared<TQBleManagerDelegate>();
    delegate->didUpdateValueForCharacteristicValue = [this](TQBleManager&, const auto&, const auto&) { ++calls; };
    manager->setDelegate(delegate);
  }
  std::shared_ptr<TQBleManager> manager;
  std::shared_ptr<TQBleManagerDelegate> delegate;
  std::shared_ptr<Characteristic> read = std::make_shared<Characteristic>();
  std::uint64_t calls = 0;
};

Receiver& receiver() {
  static Receiver r;
  return r;
}

// The post's real answer to one request frame.
Bytes answerTo(sim::VirtualPost& post, Bytes request) {
  std::uint8_t c = 0;
  for (std::size_t i = 0; i < request.size(); ++i) {
    if (i != 7) c ^= request[i];
  }
  request[7] = c;
  return post.handleWrite(request).at(0);
}

sim::VirtualPost& post() {
  static auto p = [] {
    receiver();
    auto made = std::make_unique<sim::VirtualPost>();
    auto& m = made->model();
    for (std::uint32_t i = 0; i < 5; ++i) m.addHistory({1000 + i, 1200, 1'700'000'000, 1'700'003'600, 3600});
    for (std::uint8_t i = 0; i < 5; ++i) m.addError({1'700'000'000, i});
    m.plugIn();
    m.startCharging();
    return made;
  }();
  return *p;
}

Bytes request(std::uint8_t cmd, Bytes body) {
  Bytes frame(8 + body.size(), 0);
  frame[0] = 0x68;
  frame[1] = cmd;
  frame[4] = static_cast<std::uint8_t>(body.size());
  std::copy(body.begin(), body.end(), frame.begin() + 8);
  return frame;
}

void receive(benchmark::State& state, std::int64_t cmdType, const Bytes& answer, std::vector<std::size_t> sizes) {
  auto& r = receiver();
  std::vector<Bytes> pieces;
  std::size_t at = 0;
  for (std::size_t size : sizes) {
    pieces.emplace_back(answer.begin() + static_cast<std::ptrdiff_t>(at),
                        answer.begin() + static_cast<std::ptrdiff_t>(at + size));
    at += size;
  }
  for (auto _ : state) {
    r.manager->setCmdType(cmdType);
    r.manager->setSystemInfoData(std::nullopt);
    for (const Bytes& piece : pieces) {
      r.read->value_ = piece;
      r.manager->didUpdateValueForCharacteristic(nullptr, r.read, std::nullopt);
    }
    if (r.manager->cmdType() != 0) state.SkipWithError("the answer did not complete");
    // The system-information rows grow with every answer; keep the list from growing.
    r.manager->setSystemInfoModelList(std::nullopt);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(pieces.size()));
  state.SetLabel("items = notifications");
}

void BM_ReceiveStateAnswer_20_6(benchmark::State& state) {
  receive(state, 6, answerTo(post(), request(0xB5, {0})), {20, 6});
}
void BM_ReceiveSystemInfo_20_20_20_7(benchmark::State& state) {
  receive(state, 2, answerTo(post(), request(0xB1, {0})), {20, 20, 20, 7});
}
void BM_ReceiveAcknowledgement_9(benchmark::State& state) {
  receive(state, 3, answerTo(post(), request(0xB2, {0x35})), {9});
}
void BM_ReceiveHistory5_20x5_7(benchmark::State& state) {
  receive(state, 8, answerTo(post(), request(0xB7, {0})), {20, 20, 20, 20, 20, 7});
}
void BM_ReceiveDiagnostics_20_20_20_6(benchmark::State& state) {
  receive(state, 13, answerTo(post(), request(0x32, {0})), {20, 20, 20, 6});
}
BENCHMARK(BM_ReceiveStateAnswer_20_6);
BENCHMARK(BM_ReceiveSystemInfo_20_20_20_7);
BENCHMARK(BM_ReceiveAcknowledgement_9);
BENCHMARK(BM_ReceiveHistory5_20x5_7);
BENCHMARK(BM_ReceiveDiagnostics_20_20_20_6);

template <typename Decode>
void decodeEach(benchmark::State& state, const Bytes& answer, Decode decode) {
  for (auto _ : state) benchmark::DoNotOptimize(decode(answer));
  state.SetItemsProcessed(state.iterations());
  state.SetLabel("items = answers");
}

void BM_DecodeSystemInfo(benchmark::State& s) { decodeEach(s, answerTo(post(), request(0xB1, {0})), decode::systemInfo); }
void BM_DecodeChargerState(benchmark::State& s) { decodeEach(s, answerTo(post(), request(0xB5, {0})), decode::chargerState); }
void BM_DecodeFaultAnswer(benchmark::State& s) {
  decodeEach(s, Bytes{0x68, 0xB5, 0, 0, 4, 0, 0, 0xDE, 0x0F, 0x00, 0x08, 0x00}, decode::chargerState);
}
void BM_DecodeSetResult(benchmark::State& s) { decodeEach(s, answerTo(post(), request(0xB2, {0x35})), decode::setResult); }
void BM_DecodeHistory5(benchmark::State& s) { decodeEach(s, answerTo(post(), request(0xB7, {0})), decode::chargingHistory); }
void BM_DecodeCumulativeEnergy(benchmark::State& s) {
  decodeEach(s, answerTo(post(), request(0xB8, {0})), decode::cumulativeEnergy);
}
void BM_DecodeErrorLog5(benchmark::State& s) { decodeEach(s, answerTo(post(), request(0x34, {1, 0, 0})), decode::errorLog); }
void BM_DecodeDiagnostics(benchmark::State& s) {
  decodeEach(s, answerTo(post(), request(0x32, {0})), decode::runningDiagnosis);
}
BENCHMARK(BM_DecodeSystemInfo);
BENCHMARK(BM_DecodeChargerState);
BENCHMARK(BM_DecodeFaultAnswer);
BENCHMARK(BM_DecodeSetResult);
BENCHMARK(BM_DecodeHistory5);
BENCHMARK(BM_DecodeCumulativeEnergy);
BENCHMARK(BM_DecodeErrorLog5);
BENCHMARK(BM_DecodeDiagnostics);

// One post-time text, from the cached zone offsets and through ICU's formatter.
// Post clocks an hour and a second apart, within the post clock's range.
template <std::string (*Format)(std::int64_t)>
void postTimeTexts(benchmark::State& s) {
  std::int64_t t = 1'700'000'000;
  for (auto _ : s) benchmark::DoNotOptimize(Format(t = t > 2'000'000'000 ? 0 : t + 3'601));
}
void BM_PostTimeText(benchmark::State& s) { postTimeTexts<detail::formatPostTime>(s); }
void BM_PostTimeTextThroughICU(benchmark::State& s) { postTimeTexts<detail::formatPostTimeSlowly>(s); }
BENCHMARK(BM_PostTimeText);
BENCHMARK(BM_PostTimeTextThroughICU);

}  // namespace

BENCHMARK_MAIN();
