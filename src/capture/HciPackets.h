#pragma once

// The HCI packets of a btsnoop file, whichever its datalink: what the link reader needs.

#include <cstdint>
#include <vector>

#include "tqble/platform/Value.h"

namespace tqble::capture {

enum class HciKind { Command, Event, AclToController, AclFromController, Other };

struct HciPacket {
  std::uint64_t record = 0;  ///< from 1
  std::int64_t micros = 0;   ///< since 1970
  std::uint16_t adapter = 0;
  HciKind kind = HciKind::Other;
  Bytes data;  ///< the packet without its H4 type byte
};

struct HciCapture {
  std::uint32_t datalink = 0;
  std::vector<HciPacket> packets;
};

/// Splits a btsnoop file of datalink 2001 or 1002 into HCI packets.
/// @throws CaptureError naming the record and offset where the file is bad.
HciCapture readHciPackets(const Bytes& file);

/// Little-endian 16-bit value at `at`; the caller checks the length.
inline std::uint16_t le16(const Bytes& b, std::size_t at) {
  return static_cast<std::uint16_t>(b[at] | b[at + 1] << 8);
}

}  // namespace tqble::capture
