// The capture reader on any bytes: a btsnoop file is read or refused with a CaptureError
// naming a record and an offset, never anything else; a file that reads is replayed, and
// every answer is made of its own exchange's pieces (with bytes the manager kept from
// before, or only the last pieces where the manager starts over).
#include <algorithm>

#include "FuzzSupport.h"
#include "tqble/TQBleManager.h"
#include "tqble/capture/Capture.h"

using namespace tqble;
using fuzz::expect;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const auto manager = TQBleManager::shareManager();  // no link: requests go nowhere
  capture::Traffic traffic;
  try {
    traffic = capture::readBtsnoop(Bytes(data, data + size), {0x0010, 0x0012});
  } catch (const capture::CaptureError& e) {
    const std::string what = e.what();
    expect(what.starts_with("record ") || what.starts_with("not a btsnoop") ||
               what.starts_with("datalink "),
           "a refusal names its record");
    return 0;
  }
  const auto timeline = capture::replay(std::move(traffic), *manager);
  for (const auto& exchange : timeline.exchanges) {
    Bytes pieces;
    for (const auto& piece : exchange.pieces) {
      expect(piece.link == exchange.link, "a piece of another link");
      pieces.insert(pieces.end(), piece.value.begin(), piece.value.end());
    }
    if (!exchange.answer) continue;
    const Bytes& frame = exchange.answer->frame;
    const auto endsWith = [](const Bytes& whole, const Bytes& tail) {
      return whole.size() >= tail.size() && std::equal(tail.rbegin(), tail.rend(), whole.rbegin());
    };
    expect(endsWith(pieces, frame) || endsWith(frame, pieces), "an answer of other pieces");
  }
  expect(manager->cmdType() == 0, "the pending command restored");
  return 0;
}
