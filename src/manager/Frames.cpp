// Request frames: 8-byte header with an XOR checksum, then the body.
#include <algorithm>

#include "tqble/TQBleManager.h"

namespace tqble {

Bytes TQBleManager::setDataWithCmd(std::uint8_t cmd, std::uint8_t statusCode,
                                   const std::optional<Bytes>& bodyData, std::uint8_t rand) const {
  constexpr std::size_t kHeader = 8;
  const std::size_t length = bodyData ? bodyData->size() : 0;
  Bytes frame(kHeader + length, 0);
  frame[0] = cmd == 0xBA ? 0xAA : 0x68;
  frame[1] = cmd;
  frame[2] = statusCode;
  frame[4] = static_cast<std::uint8_t>(length & 0xFF);  // body length, little-endian
  frame[5] = static_cast<std::uint8_t>((length >> 8) & 0xFF);
  if (bodyData) std::copy(bodyData->begin(), bodyData->end(), frame.begin() + kHeader);
  // Seeded XOR of header bytes 0..6 and every body byte.
  std::uint8_t checksum = rand;
  for (std::size_t i = 0; i < frame.size(); ++i) {
    if (i != 7) checksum ^= frame[i];
  }
  frame[7] = checksum;
  return frame;
}

}  // namespace tqble
