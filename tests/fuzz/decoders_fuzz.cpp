// The answer decoders on arbitrary answers and on the same answer one byte shorter:
// nothing but the range error escapes, an answer is never refused where its prefix was
// accepted, fixed-position fields do not depend on what follows them, and a list never
// holds more entries than its answer has bytes.
#include <cstdint>
#include <optional>
#include <tuple>

#include "FuzzSupport.h"
#include "tqble/AnswerDecoding.h"
#include "tqble/BLESDKConst.h"

using namespace tqble;
using fuzz::expect;

namespace {

/// Decodes `whole` and `whole` without its last byte; where both are accepted, the two
/// results agree on `fields`. Returns the whole answer's result, if accepted.
template <class Decode, class Fields>
auto prefixAndWhole(const Bytes& whole, Decode decode, Fields fields) {
  std::optional<decltype(decode(whole))> full, part;
  const bool wholeOk = fuzz::accepted([&] { full = decode(whole); });
  if (!whole.empty() &&
      fuzz::accepted([&] { part = decode(Bytes(whole.begin(), whole.end() - 1)); })) {
    expect(wholeOk, "an answer is accepted where its prefix was");
    expect(fields(*part) == fields(*full), "the prefix decodes as the whole answer");
  }
  return full;
}

const auto all = [](const auto& decoded) { return decoded; };
const auto count = [](const auto& entries) { return entries.size(); };

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Bytes answer(data, data + size);
  prefixAndWhole(answer, decode::systemInfo, all);
  prefixAndWhole(answer, decode::cumulativeEnergy, all);
  prefixAndWhole(answer, decode::chargingData, [](const auto& d) {
    return std::tie(d.serialNumber, d.elecQuantity, d.voltage, d.duration);
  });
  prefixAndWhole(answer, decode::runningDiagnosis, [](const auto& d) {
    return std::tie(d.versionNum, d.errorInfo, d.elec, d.startMode);
  });
  const auto log = prefixAndWhole(answer, decode::errorLog, count);
  const auto history = prefixAndWhole(answer, decode::chargingHistory, [](const auto&) { return 0; });
  expect((!log || log->size() <= size) && (!history || history->size() <= size), "no more entries than bytes");

  const auto result = decode::setResult(answer).resultType;
  expect(result == TQSetCmdSuccess || result == TQSetCmdFailure, "an acknowledgement is one or the other");
  (void)decode::chargerState(answer);
  return 0;
}
