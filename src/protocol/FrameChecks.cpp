// Header checks of a frame against the request it answers.
#include "protocol/FrameChecks.h"

#include "protocol/Frame.h"
#include "tqble/ZDataCoverTool.h"

namespace tqble::protocol {
namespace {

std::string byteText(std::uint8_t byte) {
  return "0x" + ZDataCoverTool::coverFromIntToHex(byte);
}

}  // namespace

std::size_t declaredBodyLength(const Bytes& frame) {
  if (frame.size() < kFrameHeaderLength) return 0;
  return frame[4] | std::size_t{frame[5]} << 8;
}

std::vector<std::string> headerWarnings(const Bytes& request, const Bytes& frame) {
  std::vector<std::string> warnings;
  if (frame.size() < kFrameHeaderLength) {
    warnings.push_back("the answer has " + std::to_string(frame.size()) +
                       " bytes, fewer than the 8 of a frame header");
  }
  if (!frame.empty() && !request.empty() && frame[0] != request[0]) {
    warnings.push_back("start byte is " + byteText(frame[0]) + ", not " + byteText(request[0]));
  }
  if (frame.size() > 1 && request.size() > 1 && frame[1] != request[1]) {
    warnings.push_back("command byte is " + byteText(frame[1]) + ", not " + byteText(request[1]));
  }
  if (frame.size() < kFrameHeaderLength) return warnings;
  const std::size_t declared = declaredBodyLength(frame);
  const std::size_t body = frame.size() - kFrameHeaderLength;
  if (declared != body) {
    warnings.push_back("length field says " + std::to_string(declared) +
                       " body bytes, the answer has " + std::to_string(body));
  }
  if (const std::uint8_t expected = frameChecksum(frame, 0); frame[7] != expected) {
    warnings.push_back("checksum is " + byteText(frame[7]) + ", not " + byteText(expected));
  }
  return warnings;
}

}  // namespace tqble::protocol
