// Request frames: 8-byte header with an XOR checksum, then the body.
#include <algorithm>

#include "manager/FrameLayout.h"
#include "tqble/TQBleManager.h"

namespace tqble {

Bytes detail::buildFrame(std::uint8_t cmd, std::uint8_t status, const Bytes* body,
                         std::uint8_t seed) {
  const std::size_t length = body ? body->size() : 0;
  Bytes frame(kFrameHeaderLength + length, 0);
  frame[0] = cmd == 0xBA ? 0xAA : 0x68;
  frame[1] = cmd;
  frame[2] = status;
  frame[4] = static_cast<std::uint8_t>(length & 0xFF);  // body length, little-endian
  frame[5] = static_cast<std::uint8_t>((length >> 8) & 0xFF);
  if (body) std::copy(body->begin(), body->end(), frame.begin() + kFrameHeaderLength);
  frame[7] = frameChecksum(frame, seed);
  return frame;
}

std::uint8_t detail::frameChecksum(const Bytes& frame, std::uint8_t seed) {
  // Seeded XOR of header bytes 0..6 and every body byte.
  std::uint8_t checksum = seed;
  for (std::size_t i = 0; i < frame.size(); ++i) {
    if (i != 7) checksum ^= frame[i];
  }
  return checksum;
}

Bytes TQBleManager::setDataWithCmd(std::uint8_t cmd, std::uint8_t statusCode,
                                   const std::optional<Bytes>& bodyData, std::uint8_t rand) const {
  return detail::buildFrame(cmd, statusCode, bodyData ? &*bodyData : nullptr, rand);
}

}  // namespace tqble
