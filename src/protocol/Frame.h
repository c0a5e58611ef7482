#pragma once

// The charger frame as both ends of the link lay it out: command codes, the 8-byte
// header with its seeded XOR checksum, and the lengths that end the fixed-size answers.
// The manager frames requests and gathers answers with it, the virtual post lays out its
// answers, and the tool and the client read answers by it.

#include <cstddef>
#include <cstdint>

#include "tqble/platform/Value.h"

namespace tqble::protocol {

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

/// Start byte of every frame but those with code 0xBA.
constexpr std::uint8_t kStartByte = 0x68;
/// Length of the frame header; the body follows it.
constexpr std::size_t kFrameHeaderLength = 8;
/// The largest notification; list answers end with the first shorter one.
constexpr std::size_t kFullNotification = 20;

// Whole-frame lengths (header included) of the fixed-size answers.
constexpr std::size_t kSystemInfoLength = 67;
constexpr std::size_t kDiagnosisLength = 66;
constexpr std::size_t kDiagnosisLongLength = 74;
constexpr std::size_t kStateLength = 26;
constexpr std::size_t kFaultLength = 12;
constexpr std::size_t kCumulationLength = 13;

/// A whole frame: header (start byte, code, status, little-endian body length, checksum
/// seeded with `seed` over header bytes 0-6 and the body), then the body if any.
Bytes buildFrame(std::uint8_t cmd, std::uint8_t status, const Bytes* body, std::uint8_t seed);

/// The checksum byte `frame` should carry: `seed` XOR every byte but the checksum itself.
std::uint8_t frameChecksum(const Bytes& frame, std::uint8_t seed);

/// Whether `answer` begins with the header of a frame carrying command `cmd`.
bool startsFrame(const Bytes& answer, std::uint8_t cmd);

}  // namespace tqble::protocol
