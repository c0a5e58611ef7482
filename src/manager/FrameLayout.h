#pragma once

// The charger frame as both ends of the link lay it out: command codes and the 8-byte
// header with its seeded XOR checksum. The manager frames requests with it, the virtual
// post its answers.

#include <cstddef>
#include <cstdint>

#include "tqble/platform/Value.h"

namespace tqble::detail {

/// Command codes of the charger protocol.
enum CommandCode : std::uint8_t {
  kCmdSynchroTime = 0xB0,
  kCmdSystemInfo = 0xB1,
  kCmdVolume = 0xB2,
  kCmdOrder = 0xB3,
  kCmdStartCharging = 0xB4,
  kCmdChargerState = 0xB5,
  kCmdStopCharge = 0xB6,
  kCmdHistory = 0xB7,
  kCmdCumulation = 0xB8,
  kCmdErrorLog = 0x34,
  kCmdDiagnosis = 0x32,
};

/// Length of the frame header; the body follows it.
constexpr std::size_t kFrameHeaderLength = 8;

/// A whole frame: header (start byte, code, status, little-endian body length, checksum
/// seeded with `seed` over header bytes 0-6 and the body), then the body if any.
Bytes buildFrame(std::uint8_t cmd, std::uint8_t status, const Bytes* body, std::uint8_t seed);

/// The checksum byte `frame` should carry: `seed` XOR every byte but the checksum itself.
std::uint8_t frameChecksum(const Bytes& frame, std::uint8_t seed);

}  // namespace tqble::detail
