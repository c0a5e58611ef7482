// The reception path driven by a byte-coded script through a fake central: commands,
// notified chunks, read errors, connections, discovery, disconnections, the delayed
// system-information query, a raw pending tag and a delegate that comes and goes.
// After every event the manager must hold what a small model of the end-of-answer
// rules says: pending tag, gathered buffer, dispatched answers, delegate calls,
// handler errors, writes and the record handed out.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

#include "FuzzSupport.h"
#include "support/FakeBle.h"
#include "tqble/platform/MainQueue.h"

using namespace tqble;
using namespace tqble::test;
using fuzz::expect;

namespace {

/// What a delegate call carries: the record's result code (if any), whether it holds
/// charging data, and the read error's code (if any).
struct Report {
  std::optional<std::int64_t> result;
  bool chargingData = false;
  std::optional<std::int64_t> error;
  bool operator==(const Report&) const = default;
};
using Tap = std::pair<std::int64_t, Bytes>;

/// What the manager must hold, kept by the end-of-answer rules of each pending tag.
struct Model {
  std::int64_t tag = 0;
  Bytes buffer;
  bool connected = false, writeKnown = false, delegate = true;
  int delayedQueries = 0;
  Report record;  // what dataModel holds now (error unused)
  std::size_t rows = 0, writes = 0, readErrorLines = 0;
  std::vector<Tap> taps;
  std::vector<Report> reports;
  std::vector<std::int64_t> errors;

  /// A command: its tag first, then the write or the error (to the harness's handler
  /// only when `ours`; the delayed query has a handler of its own).
  void command(std::int64_t newTag, bool clearsBuffer, bool ours = true) {
    tag = newTag;
    if (clearsBuffer) buffer.clear();
    if (connected && writeKnown)
      ++writes;
    else if (ours)
      errors.push_back(connected ? 1001 : 1002);
  }

  /// One notified chunk; returns the tag dispatched to, if the chunk completed an answer.
  std::optional<std::int64_t> receive(const Bytes& chunk) {
    if (tag == 7) {  // the chunk alone; the buffer stays
      decoded(7, chunk);
      tag = 0;
      return 7;
    }
    const auto in = [this](std::initializer_list<std::int64_t> tags) {
      return std::find(tags.begin(), tags.end(), tag) != tags.end();
    };
    if (tag == 9) {
      buffer.clear();  // only this chunk counts
    } else if (!in({1, 2, 3, 4, 5, 6, 8, 13, 14, 15})) {
      return std::nullopt;
    }
    buffer.insert(buffer.end(), chunk.begin(), chunk.end());
    const std::size_t n = buffer.size();
    const bool complete = in({1, 3, 4, 5}) || (tag == 2 && n == 67) || (tag == 13 && n == 66) ||
                          (tag == 6 && (n == 26 || n == 12)) || (tag == 9 && n == 13) ||
                          (in({8, 14, 15}) && chunk.size() != 20);
    if (!complete) return std::nullopt;
    const auto dispatched = tag;
    decoded(tag, buffer);
    tag = 0;
    buffer.clear();
    return dispatched;
  }

  void decoded(std::int64_t answerTag, const Bytes& answer) {
    taps.emplace_back(answerTag, answer);
    if (answerTag == 1 || answerTag == 3 || answerTag == 4 || answerTag == 5) {
      record.result = (answer.size() <= 8 || answer[8] == 0x01) ? 1 : 0;
    } else if (answerTag == 7) {
      record.result = 0;
    } else if (answerTag == 6 || answerTag == 14) {
      record.chargingData = true;
    } else if (answerTag == 2) {
      rows += 10;
    }
  }

  /// Every value update ends with the delegate call, which hands the record out.
  void reported(std::optional<std::int64_t> error) {
    if (!delegate) return;
    reports.push_back({record.result, record.chargingData, error});
    record = {};
  }
};

struct Harness {
  FakeStack stack;
  std::shared_ptr<TQBleManagerDelegate> delegate = std::make_shared<TQBleManagerDelegate>();
  std::shared_ptr<FakeCharacteristic> read = std::make_shared<FakeCharacteristic>("FFF4", 0x12);
  std::vector<std::shared_ptr<FakePeripheral>> posts;
  std::vector<Tap> taps;
  std::vector<Report> reports;
  std::vector<std::int64_t> errors;
  std::size_t readErrorLines = 0;

  Harness() {
    MainQueue::main().useVirtualClock();
    delegate->didUpdateValueForCharacteristicValue =
        [this](TQBleManager&, const std::shared_ptr<TQBleDataModel>& model,
               const std::optional<TQError>& error) { reports.push_back(reportOf(*model, error)); };
    stack.manager->addAnswerObserver(
        [this](std::int64_t tag, const Bytes& answer) { taps.emplace_back(tag, answer); });
    setLogSink([this](std::string_view line) { readErrorLines += line == "读取特征值有误"; });
  }

  static Report reportOf(const TQBleDataModel& model, const std::optional<TQError>& error) {
    Report r;
    if (model.result) r.result = model.result->resultType;
    r.chargingData = model.chargingData != nullptr;
    if (error) r.error = error->code;
    return r;
  }

  void reset() {
    auto& m = *stack.manager;
    MainQueue::main().clear();
    m.setDelegate({});
    if (!posts.empty()) m.didDisconnectPeripheral(*stack.central, posts.back(), std::nullopt);
    m.setCmdType(0);
    m.setSystemInfoData(std::nullopt);
    m.setDataModel(nullptr);
    m.setSystemInfoModelList(std::nullopt);
    m.setWriteCharacteristic(nullptr);
    m.setReadCharacteristic(nullptr);
    m.setDelegate(delegate);
    posts.clear();
    taps.clear();
    reports.clear();
    errors.clear();
    readErrorLines = 0;
  }

  void check(const Model& model) {
    auto& m = *stack.manager;
    expect(m.cmdType() == model.tag, "pending tag");
    expect(m.systemInfoData() == model.buffer, "gathered buffer");
    expect(taps == model.taps, "dispatched answers");
    expect(reports == model.reports, "delegate calls");
    expect(errors == model.errors, "handler errors");
    expect(readErrorLines == model.readErrorLines, "read error log lines");
    expect(m.systemInfoModelList().size() == model.rows, "system information rows");
    expect(reportOf(*m.dataModel(), std::nullopt) == model.record, "the record in dataModel");
    std::size_t writes = 0;
    for (const auto& post : posts) writes += post->writes.size();
    expect(writes == model.writes, "frames written");
  }
};

using M = TQBleManager;
using H = const TQErrorHandler&;
struct Command {
  void (*issue)(M&, H);
  std::int64_t tag;
  bool clearsBuffer;
};
const Command kCommands[] = {
    {[](M& m, H h) { m.synchroTimeWithError(h); }, 1, false},
    {[](M& m, H h) { m.querySystemInfoWithError(h); }, 2, true},
    {[](M& m, H h) { m.setVolumeWithVolumeSize(35, h); }, 3, false},
    {[](M& m, H h) { m.orderChargerWithStartHour(22, 30, 6, 0, h); }, 4, false},
    {[](M& m, H h) { m.startChargingWithError(h); }, 5, false},
    {[](M& m, H h) { m.queryChargerStateWithError(h); }, 6, true},
    {[](M& m, H h) { m.stopChargeWithError(h); }, 7, false},
    {[](M& m, H h) { m.queryChargingDataWithError(h); }, 6, false},
    {[](M& m, H h) { m.queryHistoryChargingListWithError(h); }, 8, false},
    {[](M& m, H h) { m.queryCumulationElecQuantityWithError(h); }, 9, false},
    {[](M& m, H h) { m.queryHistoryErrorLogListWithError(h); }, 15, false},
    {[](M& m, H h) { m.runningDiagnosticInfoWithError(h); }, 13, false},
};

Harness* harness = nullptr;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::setUp();
  static Harness h;
  harness = &h;
  return 0;
}

// Script: an event byte, then its operands. Events: 0 command, 1 chunk (length byte,
// then the bytes), 2 read error, 3 connection, 4 discovery, 5 disconnection, 6 three
// seconds pass, 7 delegate comes or goes, 8 raw pending tag.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Harness& h = *harness;
  h.reset();
  Model model;
  auto& m = *h.stack.manager;
  std::size_t at = 0;
  auto next = [&]() -> std::uint8_t { return at < size ? data[at++] : 0; };
  const TQErrorHandler handler = [&h](const TQError& e) { h.errors.push_back(e.code); };

  while (at < size) {
    std::optional<std::int64_t> dispatched;
    try {
      switch (next() % 9) {
        case 0: {
          const Command& c = kCommands[next() % std::size(kCommands)];
          model.command(c.tag, c.clearsBuffer);
          c.issue(m, handler);
          break;
        }
        case 1: {
          Bytes chunk(next() % 42);
          for (auto& b : chunk) b = next();
          h.read->value_ = chunk;
          dispatched = model.receive(chunk);
          model.reported(std::nullopt);
          m.didUpdateValueForCharacteristic(h.posts.empty() ? nullptr : h.posts.back(), h.read,
                                            std::nullopt);
          break;
        }
        case 2:
          ++model.readErrorLines;
          model.reported(5);
          m.didUpdateValueForCharacteristic(nullptr, h.read, TQError{"read failed", 5, {}});
          break;
        case 3:
          h.posts.push_back(std::make_shared<FakePeripheral>());
          model.connected = true;
          ++model.delayedQueries;
          m.didConnectPeripheral(*h.stack.central, h.posts.back());
          break;
        case 4: {
          if (h.posts.empty()) break;
          auto service = std::make_shared<FakeService>("FFF0");
          service->characteristics_ = {std::make_shared<FakeCharacteristic>("FFF3", 0x04), h.read};
          h.posts.back()->services_ = {service};
          model.writeKnown = true;
          m.didDiscoverServices(h.posts.back(), std::nullopt);
          m.didDiscoverCharacteristicsForService(h.posts.back(), service, std::nullopt);
          break;
        }
        case 5:
          if (h.posts.empty()) break;
          model.connected = false;
          m.didDisconnectPeripheral(*h.stack.central, h.posts.back(), std::nullopt);
          break;
        case 6:
          for (; model.delayedQueries > 0; --model.delayedQueries) model.command(2, true, false);
          MainQueue::main().runFor(std::chrono::seconds(3));
          break;
        case 7:
          model.delegate = !model.delegate;
          m.setDelegate(model.delegate ? h.delegate : nullptr);
          break;
        case 8:
          model.tag = next() % 17;
          m.setCmdType(model.tag);
          break;
      }
    } catch (const std::out_of_range&) {
      // The list and live-data decoders cut by a count or a position the answer may
      // not reach; what the manager holds after that is not defined, so the script ends.
      expect(dispatched == 8 || dispatched == 14 || dispatched == 15,
             "range error only from a list or live data");
      ++fuzz::rangeErrors;
      return 0;
    }
    h.check(model);
  }
  return 0;
}
