// The reception path driven by a byte-coded script through a fake central: commands of
// the shared table, notified chunks, read errors, connections with or without discovery,
// disconnections, the delayed system-information query, a raw pending tag and a delegate
// that comes, goes or lacks the value-update call. After every event the harness checks
// what the manager promises whatever the command's end-of-answer rule:
// - a command leaves its tag pending (a buffer-clearing one, an empty buffer) and writes
//   one frame of its length, or calls its handler once with 1002 (no link) or 1001 (no
//   write characteristic);
// - a notification completes at most one answer, tapped under the tag that was pending;
//   with nothing pending it changes nothing; after a buffer-clearing command the answer
//   (or the buffer, while incomplete) is exactly the chunks since; after a dispatch the
//   tag is 0 and the buffer empty or as it was, else the tag stays;
// - a delegate with the value-update call hears every notification and read error once,
//   each time with the manager's record, which is then replaced; without the call (or
//   without a delegate) the record stays;
// - the delayed query runs 3 s after each connection and leaves its tag pending;
// - only a decoder of a dispatched answer may throw, and only the range error.
#include <chrono>
#include <cstdint>
#include <optional>

#include "FuzzSupport.h"
#include "support/Commands.h"
#include "support/FakeBle.h"
#include "support/Hex.h"
#include "support/Recorder.h"
#include "tqble/BLESDKConst.h"
#include "tqble/platform/MainQueue.h"

using namespace tqble;
using namespace tqble::test;
using fuzz::expect;
using Codes = std::vector<std::int64_t>;

namespace {

struct Harness {
  FakeStack stack;
  TQBleManager& m = *stack.manager;
  Recorder heard;
  std::shared_ptr<TQBleManagerDelegate> delegates[3] = {
      heard.delegate, nullptr, std::make_shared<TQBleManagerDelegate>()};  // heard, none, deaf
  std::shared_ptr<FakeCharacteristic> read = std::make_shared<FakeCharacteristic>("FFF4", 0x12);
  struct {
    std::shared_ptr<FakePeripheral> post;  // the last one connected
    unsigned delegate = 0;                 // of delegates[], modulo 3
    std::optional<Bytes> since;            // chunks since a buffer-clearing command, while pending
    std::size_t dueQueries = 0;            // connections since time last passed
  } s;

  Harness() {
    MainQueue::main().useVirtualClock();
    heard.attach(m);
  }

  /// The manager is the process's one: each script starts it idle, unlinked, with no answer.
  void reset() {
    MainQueue::main().clear();
    if (s.post) m.didDisconnectPeripheral(*stack.central, s.post, std::nullopt);
    m.setCmdType(0), m.setSystemInfoData(std::nullopt), m.setSystemInfoModelList(std::nullopt);
    m.setDataModel(nullptr), m.setWriteCharacteristic(nullptr), m.setDelegate(delegates[0]);
    heard.clear();
    s = {};
  }

  std::size_t writes() const { return s.post ? s.post->writes.size() : 0; }

  void command(const CommandRow& row) {
    const bool linked = m.connectedPheral() != nullptr;
    const bool writable = linked && m.writeCharacteristic();
    const std::size_t before = writes();
    Codes errors;
    row.issue(m, [&errors](const TQError& e) { errors.push_back(e.code); });
    expect(m.cmdType() == row.tag, "a command leaves its tag pending");
    expect(!row.clearsBuffer || m.systemInfoData().empty(), "the command cleared the buffer");
    s.since = row.clearsBuffer ? std::optional(Bytes{}) : std::nullopt;
    const auto missing = linked ? errorWriteValueCode : errorNOPeripheralCode;
    expect(errors == (writable ? Codes{} : Codes{missing}), "an error only for what is missing");
    expect(writes() == before + writable, "a frame written only with no error");
    expect(!writable || s.post->writes.back().data.size() == hex(row.frame).size(), "the command's frame length");
  }

  /// A notification (`chunk`) or a read error (no chunk).
  void update(const std::optional<Bytes>& chunk) {
    const auto tag = m.cmdType();
    const Bytes buffer = m.systemInfoData();
    const std::size_t taps = heard.tapped.size(), updates = heard.updates.size();
    const auto record = m.dataModel();
    read->value_ = chunk.value_or(Bytes{});
    const auto error = chunk ? std::nullopt : std::optional(TQError{"read failed", 5, {}});
    try {
      m.didUpdateValueForCharacteristic(s.post, read, error);
    } catch (const std::out_of_range&) {
      expect(heard.tapped.size() == taps + 1, "a range error only from a dispatched answer");
      throw;
    }
    const bool dispatched = heard.tapped.size() > taps;
    expect(heard.tapped.size() <= taps + 1 && (chunk || !dispatched), "one answer at most");
    expect(tag || (!dispatched && m.systemInfoData() == buffer), "nothing pending, no change");
    if (chunk && s.since) s.since->insert(s.since->end(), chunk->begin(), chunk->end());
    const Bytes& gathered = dispatched ? heard.tapped.back().second : m.systemInfoData();
    expect(!s.since || gathered == *s.since, "the answer or buffer is the chunks since");
    if (dispatched) {
      expect(heard.tapped.back().first == tag, "the answer carries the tag that was pending");
      expect(m.cmdType() == 0, "nothing pending after a dispatch");
      expect(m.systemInfoData().empty() || m.systemInfoData() == buffer, "buffer emptied or left");
      s.since.reset();
    } else {
      expect(m.cmdType() == tag, "an unfinished answer keeps its command pending");
    }
    const bool heardIt = s.delegate % 3 == 0;
    expect(heard.updates.size() == updates + heardIt, "one delegate call per notification");
    expect((m.dataModel() == record) != heardIt, "a new record after each call, else the same");
    if (!heardIt) return;
    expect(heard.updates.back() == record, "the call hands out the record");
    expect(heard.updateErrors.back().has_value() == !chunk, "the call carries the read error");
  }

  void timePasses() {
    const bool writable = m.connectedPheral() && m.writeCharacteristic();
    const std::size_t before = writes();
    expect(MainQueue::main().runFor(std::chrono::seconds(3)) == s.dueQueries,
           "one system-information query 3 s after each connection");
    if (s.dueQueries == 0) return;
    const auto& query = commandRow("querySystemInfoWithError");
    expect(m.cmdType() == query.tag && m.systemInfoData().empty(), "the delayed query pending");
    expect(writes() == before + (writable ? s.dueQueries : 0), "each delayed query written");
    s.since = Bytes{}, s.dueQueries = 0;
  }

  /// `post` is connected, with its services discovered if it has any.
  void connect(std::shared_ptr<FakePeripheral> post) {
    if (post->services_.empty()) m.didConnectPeripheral(*stack.central, post);
    s.post = std::move(post), ++s.dueQueries;
  }
};

}  // namespace

// Script: an event byte, then its operands. Events: 0 command (row of the command table),
// 1 chunk (length byte, then the bytes), 2 read error, 3 connection, 4 connection with its
// services discovered, 5 disconnection, 6 three seconds pass, 7 delegate heard -> none -> without
// the call, 8 raw pending tag.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Harness h;
  h.reset();
  std::size_t at = 0;
  auto next = [&]() -> std::uint8_t { return at < size ? data[at++] : 0; };
  auto chunk = [&] {
    Bytes bytes(next() % 42);
    for (auto& b : bytes) b = next();
    return bytes;
  };
  try {
    while (at < size) {
      // clang-format off
      switch (next() % 9) {
        case 0: h.command(kCommandRows[next() % std::size(kCommandRows)]); break;
        case 1: h.update(chunk()); break;
        case 2: h.update(std::nullopt); break;
        case 3: h.connect(std::make_shared<FakePeripheral>()); break;
        case 4: h.connect(h.stack.connectReadyPost()); break;
        case 5: if (h.s.post) h.m.didDisconnectPeripheral(*h.stack.central, h.s.post, {}); break;
        case 6: h.timePasses(); break;
        case 7: h.m.setDelegate(h.delegates[++h.s.delegate % 3]); break;
        case 8: h.m.setCmdType(next() % 17), h.s.since.reset(); break;
      }
      // clang-format on
    }
  } catch (const std::out_of_range&) {
    // A decoder cut past a dispatched answer; what the manager holds after that is not
    // defined, so the script ends here.
    ++fuzz::rangeErrors;
  }
  return 0;
}
