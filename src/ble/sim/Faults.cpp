// Cutting an answer into notifications: the usual 20-byte pieces, or the sizes, losses
// and delays a test asked for.
#include <limits>

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

AnswerPlan planAnswer(const Bytes& answer, Faults& faults, const Timing& timing) {
  // A link loss armed now applies to this answer only. Taken as a plain count, "never"
  // when none is armed: a copy of the empty optional carried its unwritten storage, which
  // optimised code tested before the flag that guards it.
  constexpr std::size_t kNever = std::numeric_limits<std::size_t>::max();
  const std::size_t dropAfter = faults.dropLinkAfterNotifications.value_or(kNever);
  faults.dropLinkAfterNotifications.reset();
  if (dropAfter == 0) return AnswerPlan{{}, true};
  AnswerPlan plan{cutAnswer(answer, faults, timing), false};
  if (dropAfter <= plan.pieces.size()) plan.pieces[dropAfter - 1].dropLinkAfter = true;
  return plan;
}

}  // namespace tqble::sim
