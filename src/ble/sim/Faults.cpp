// Cutting an answer into notifications: the usual 20-byte pieces, or the sizes, losses
// and delays a test asked for.
#include "SimInternal.h"
#include "protocol/Frame.h"

namespace tqble::sim {
std::vector<Piece> cutAnswer(const Bytes& answer, const Faults& faults, const Timing& timing) {
  std::vector<Piece> pieces;
  std::size_t offset = 0;
  std::chrono::nanoseconds due{0};
  while (offset < answer.size()) {
    const std::size_t index = pieces.size();
    std::size_t size = index < faults.chunkSizes.size() ? faults.chunkSizes[index] : protocol::kFullNotification;
    if (size == 0) size = protocol::kFullNotification;
    size = std::min(size, answer.size() - offset);
    if (index > 0) due += timing.notificationGap;
    // A late piece holds back every piece behind it: notifications keep their order.
    if (auto late = faults.lateNotifications.find(index); late != faults.lateNotifications.end()) {
      due += late->second;
    }
    pieces.push_back(Piece{Bytes(answer.begin() + static_cast<std::ptrdiff_t>(offset),
                                 answer.begin() + static_cast<std::ptrdiff_t>(offset + size)),
                           due, faults.lostNotifications.contains(index)});
    offset += size;
  }
  return pieces;
}

}  // namespace tqble::sim
