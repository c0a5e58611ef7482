// The plain answer decoders on arbitrary answers: each cuts exactly when the answer is
// too short for its fixed positions, and the counts and codes it reads follow the layout.
#include <cstdint>

#include "FuzzSupport.h"
#include "tqble/AnswerDecoding.h"

using namespace tqble;
using fuzz::expect;
using fuzz::rangeErrorExactlyWhen;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::setUp();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Bytes answer(data, data + size);
  const std::size_t n = size;

  rangeErrorExactlyWhen(n < 67, "system information needs 67 bytes", [&] {
    expect(decode::systemInfo(answer)[0] == "获取系统信息", "row 1 is the fixed text");
  });
  rangeErrorExactlyWhen(n < 32, "live data needs 32 bytes", [&] { decode::chargingData(answer); });
  rangeErrorExactlyWhen(n < 12, "energy needs 12 bytes", [&] { decode::cumulativeEnergy(answer); });
  rangeErrorExactlyWhen(n < 54, "diagnostics need 54 bytes",
                        [&] { decode::runningDiagnosis(answer); });

  // The error log trusts its count: the last entry's code ends at byte 8 * count + 8.
  const std::size_t count = n > 10 ? answer[10] : 0;
  rangeErrorExactlyWhen(n < 11 || n < 8 * count + 8, "error log cuts past its entries", [&] {
    expect(decode::errorLog(answer).size() == count, "error log has count entries");
  });

  // History: the count follows from the length, 19-byte entries from byte 12. An answer
  // shorter than the header is refused by the range check or gives no entry.
  try {
    const auto entries = decode::chargingHistory(answer);
    expect(entries.size() == (n < 12 ? 0 : (n - 12) / 19), "history entries by length");
  } catch (const std::out_of_range&) {
    expect(n < 12, "history cuts only without its header");
    ++fuzz::rangeErrors;
  }

  const auto result = decode::setResult(answer);
  expect(result.resultType == ((n <= 8 || answer[8] == 0x01) ? 1 : 0), "acknowledgement code");

  const auto state = decode::chargerState(answer);
  if (n == 26) {
    expect(state.gunStatus == (answer[8] == 6 ? "正在充电中" : "未知"), "state gun status");
    expect(!state.failureReason, "full state leaves the failure reason");
  } else if (n == 12) {
    expect(state.failureReason.has_value(), "fault answer sets a failure reason");
  } else {
    expect(!state.gunStatus && !state.serialNumber && !state.failureReason && state.duration == 0,
           "other lengths set no field");
  }
  return 0;
}
