#pragma once

// Answer frames gathered from notifications of any size, by the header's length field.

#include <cstddef>
#include <vector>

#include "tqble/platform/Value.h"

namespace tqble::protocol {

/// The longest answer taken for a frame; a header announcing more is no header.
constexpr std::size_t kMaxAnswerLength = 1024;

/// Whether `code` is one of the command codes (CommandCode).
bool isCommandCode(std::uint8_t code);

/// Whether `frame`'s checksum byte is the XOR of its other bytes, as posts send answers.
bool checksumHolds(const Bytes& frame);

/// Gathers whole frames: bytes before a frame's start byte and command code are dropped,
/// and a frame ends where its length field says, whatever the pieces' sizes.
class FrameAssembler {
 public:
  /// Appends one notification; returns the frames it completes, in order.
  std::vector<Bytes> push(const Bytes& piece);
  /// Gives up the frame being gathered: its remaining bytes are dropped as they come,
  /// unless a piece beginning a new frame comes first.
  void abandon();
  /// Drops everything gathered.
  void reset();
  /// Whether part of a frame is held.
  bool gathering() const { return !buffer_.empty(); }

 private:
  Bytes buffer_;
  bool abandoned_ = false;
};

}  // namespace tqble::protocol
