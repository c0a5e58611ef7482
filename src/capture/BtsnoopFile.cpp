// btsnoop files: a 16-byte file header, then records of a 24-byte header and the packet.
// Datalink 2001 is the Linux monitor (btmon -w): the flags carry the adapter index and
// the packet's opcode. Datalink 1002 is H4 (the phones' snoop logs): one adapter, the
// packet type in the first byte and the direction in flag bit 0.
#include <cstring>
#include <string>

#include "HciPackets.h"
#include "tqble/capture/Capture.h"

namespace tqble::capture {
namespace {

constexpr std::size_t kFileHeader = 16;
constexpr std::size_t kRecordHeader = 24;
constexpr std::uint32_t kMonitor = 2001;
constexpr std::uint32_t kH4 = 1002;
// The largest packet either datalink carries: an ACL packet of 65535 bytes plus headers.
constexpr std::uint32_t kLargestPacket = 65535 + 16;
// btsnoop times count microseconds from year 0; this is 1970-01-01 on that scale.
constexpr std::int64_t kUnixEpoch = 0x00dcddb30f2f8000LL;

std::uint32_t be32(const Bytes& b, std::size_t at) {
  return std::uint32_t{b[at]} << 24 | std::uint32_t{b[at + 1]} << 16 |
         std::uint32_t{b[at + 2]} << 8 | b[at + 3];
}

[[noreturn]] void bad(std::uint64_t record, std::size_t offset, const std::string& what) {
  throw CaptureError("record " + std::to_string(record) + " at offset " + std::to_string(offset) +
                     ": " + what);
}

// Monitor opcodes of the packets the links are made of.
HciKind monitorKind(std::uint16_t opcode) {
  switch (opcode) {
    case 2: return HciKind::Command;
    case 3: return HciKind::Event;
    case 4: return HciKind::AclToController;
    case 5: return HciKind::AclFromController;
    default: return HciKind::Other;
  }
}

HciKind h4Kind(std::uint8_t type, bool received) {
  switch (type) {
    case 0x01: return HciKind::Command;
    case 0x02: return received ? HciKind::AclFromController : HciKind::AclToController;
    case 0x04: return HciKind::Event;
    default: return HciKind::Other;
  }
}

}  // namespace

HciCapture readHciPackets(const Bytes& file) {
  if (file.size() < kFileHeader || std::memcmp(file.data(), "btsnoop\0", 8) != 0) {
    throw CaptureError("not a btsnoop file: it does not begin with the 16-byte btsnoop header");
  }
  HciCapture capture;
  capture.datalink = be32(file, 12);
  if (capture.datalink != kMonitor && capture.datalink != kH4) {
    throw CaptureError("datalink " + std::to_string(capture.datalink) +
                       " is not read: only 2001 (btmon) and 1002 (H4 snoop logs) are");
  }
  std::size_t offset = kFileHeader;
  for (std::uint64_t record = 1; offset < file.size(); ++record) {
    if (file.size() - offset < kRecordHeader) {
      bad(record, offset, "truncated: " + std::to_string(file.size() - offset) +
                              " bytes left of a 24-byte record header");
    }
    const std::uint32_t original = be32(file, offset);
    const std::uint32_t included = be32(file, offset + 4);
    const std::uint32_t flags = be32(file, offset + 8);
    const auto stamp = static_cast<std::int64_t>(std::uint64_t{be32(file, offset + 16)} << 32 |
                                                 be32(file, offset + 20));
    if (included > original || included > kLargestPacket) {
      bad(record, offset, "corrupted: " + std::to_string(included) + " bytes included of " +
                              std::to_string(original));
    }
    if (file.size() - offset - kRecordHeader < included) {
      bad(record, offset, "truncated: the record holds " + std::to_string(included) +
                              " bytes, the file has " +
                              std::to_string(file.size() - offset - kRecordHeader) + " left");
    }
    const auto begin = file.begin() + static_cast<std::ptrdiff_t>(offset + kRecordHeader);
    HciPacket packet;
    packet.record = record;
    // A damaged stamp reads as some other time, never as an overflow.
    packet.micros = static_cast<std::int64_t>(static_cast<std::uint64_t>(stamp) -
                                              static_cast<std::uint64_t>(kUnixEpoch));
    if (capture.datalink == kMonitor) {
      packet.adapter = static_cast<std::uint16_t>(flags >> 16);
      packet.kind = monitorKind(static_cast<std::uint16_t>(flags & 0xFFFF));
      packet.data.assign(begin, begin + included);
    } else if (included > 0) {
      packet.kind = h4Kind(*begin, flags & 1);
      packet.data.assign(begin + 1, begin + included);
    }
    capture.packets.push_back(std::move(packet));
    offset += kRecordHeader + included;
  }
  return capture;
}

}  // namespace tqble::capture
