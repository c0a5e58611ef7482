// Frames: 8-byte header with an XOR checksum, then the body.
#include "protocol/Frame.h"

#include <algorithm>

namespace tqble::protocol {

Bytes buildFrame(std::uint8_t cmd, std::uint8_t status, const Bytes* body, std::uint8_t seed) {
  const std::size_t length = body ? body->size() : 0;
  Bytes frame(kFrameHeaderLength + length, 0);
  frame[0] = cmd == 0xBA ? 0xAA : kStartByte;
  frame[1] = cmd;
  frame[2] = status;
  frame[4] = static_cast<std::uint8_t>(length & 0xFF);  // body length, little-endian
  frame[5] = static_cast<std::uint8_t>((length >> 8) & 0xFF);
  if (body) std::copy(body->begin(), body->end(), frame.begin() + kFrameHeaderLength);
  frame[7] = frameChecksum(frame, seed);
  return frame;
}

std::uint8_t frameChecksum(const Bytes& frame, std::uint8_t seed) {
  // Seeded XOR of header bytes 0..6 and every body byte.
  std::uint8_t checksum = seed;
  for (std::size_t i = 0; i < frame.size(); ++i) {
    if (i != 7) checksum ^= frame[i];
  }
  return checksum;
}

bool startsFrame(const Bytes& answer, std::uint8_t cmd) {
  return answer.size() >= 2 && answer[0] == (cmd == 0xBA ? 0xAA : kStartByte) && answer[1] == cmd;
}

}  // namespace tqble::protocol
