// Request frames: 8-byte header with an XOR checksum, then the body.
#include "protocol/Frame.h"
#include "tqble/TQBleManager.h"

namespace tqble {

Bytes TQBleManager::setDataWithCmd(std::uint8_t cmd, std::uint8_t statusCode,
                                   const std::optional<Bytes>& bodyData, std::uint8_t rand) const {
  return protocol::buildFrame(cmd, statusCode, bodyData ? &*bodyData : nullptr, rand);
}

}  // namespace tqble
