// Gathering answer frames by their length field.
#include "protocol/FrameAssembler.h"

#include <algorithm>

#include "protocol/Frame.h"

namespace tqble::protocol {
namespace {

std::size_t bodyLength(const Bytes& bytes, std::size_t at) {
  return bytes[at + 4] | (std::size_t{bytes[at + 5]} << 8);
}

// Whether a frame may begin at `at`: its start byte, a command code and, once the header
// is there, a length that fits an answer.
bool mayStartFrame(const Bytes& bytes, std::size_t at) {
  const std::size_t left = bytes.size() - at;
  if (bytes[at] != kStartByte && bytes[at] != 0xAA) return false;
  if (left < 2) return true;
  const std::uint8_t code = bytes[at + 1];
  if (!isCommandCode(code) || bytes[at] != (code == 0xBA ? 0xAA : kStartByte)) return false;
  return left < kFrameHeaderLength ||
         kFrameHeaderLength + bodyLength(bytes, at) <= kMaxAnswerLength;
}

}  // namespace

bool isCommandCode(std::uint8_t code) {
  switch (code) {
    case kCmdSynchroTime:
    case kCmdSystemInfo:
    case kCmdVolume:
    case kCmdOrder:
    case kCmdStartCharging:
    case kCmdChargerState:
    case kCmdStopCharge:
    case kCmdHistory:
    case kCmdCumulation:
    case kCmdErrorLog:
    case kCmdDiagnosis:
      return true;
    default:
      return false;
  }
}

bool checksumHolds(const Bytes& frame) {
  return frame.size() >= kFrameHeaderLength && frameChecksum(frame, 0) == frame[7];
}

std::vector<Bytes> FrameAssembler::push(const Bytes& piece) {
  if (abandoned_ && !piece.empty() && mayStartFrame(piece, 0)) buffer_.clear();
  if (buffer_.empty()) abandoned_ = false;
  buffer_.insert(buffer_.end(), piece.begin(), piece.end());
  std::vector<Bytes> frames;
  for (;;) {
    std::size_t start = 0;
    while (start < buffer_.size() && !mayStartFrame(buffer_, start)) ++start;
    if (start > 0) {
      buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(start));
      abandoned_ = false;  // what was given up is gone
    }
    if (buffer_.size() < kFrameHeaderLength) break;
    const std::size_t total = kFrameHeaderLength + bodyLength(buffer_, 0);
    if (buffer_.size() < total) break;
    Bytes frame(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(total));
    buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(total));
    if (abandoned_) {
      abandoned_ = false;
      continue;
    }
    frames.push_back(std::move(frame));
  }
  return frames;
}

void FrameAssembler::abandon() {
  abandoned_ = !buffer_.empty();
}

void FrameAssembler::reset() {
  buffer_.clear();
  abandoned_ = false;
}

}  // namespace tqble::protocol
