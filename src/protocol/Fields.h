#pragma once

// Where each answer field lies: frame offset, width and byte order, and the codes the post
// puts in them. The manager's decoders cut these fields out of the answer's hex text (byte
// k at character 2k); the client's typed decoders read the bytes themselves. Both take the
// positions from here only.

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "tqble/platform/Value.h"

namespace tqble::protocol {

enum class ByteOrder { Big, Little };

/// A fixed-position field: `offset` bytes from the start of the frame (or of a list entry).
struct Field {
  std::size_t offset;
  std::size_t width;
  ByteOrder order = ByteOrder::Big;
  /// First hex character of the field in the answer's hex text.
  constexpr std::size_t hexFrom() const { return 2 * offset; }
  /// Length of the field in hex characters.
  constexpr std::size_t hexLength() const { return 2 * width; }
};

/// The field's bytes as an unsigned number in its byte order, `base` bytes into `frame`.
/// @throws std::out_of_range when the field lies past the end.
inline std::uint64_t read(const Bytes& frame, const Field& field, std::size_t base = 0) {
  const std::size_t from = base + field.offset;
  if (from > frame.size() || field.width > frame.size() - from)
    throw std::out_of_range("a field at byte " + std::to_string(from) + " of a " +
                            std::to_string(frame.size()) + "-byte answer");
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < field.width; ++i) {
    const std::size_t at = field.order == ByteOrder::Big ? i : field.width - 1 - i;
    value = value << 8 | frame[from + at];
  }
  return value;
}

/// The field as a signed 32-bit number (a 4-byte field whose top bit is set is negative).
inline std::int32_t readSigned32(const Bytes& frame, const Field& field, std::size_t base = 0) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(read(frame, field, base)));
}

/// The field's bytes, each written as a decimal number, concatenated (0x01 0x0c gives "112").
inline std::string readDigits(const Bytes& frame, const Field& field, std::size_t base = 0) {
  read(frame, Field{field.offset, 0}, base);  // range check of the start
  std::string text;
  for (std::size_t i = 0; i < field.width; ++i)
    text += std::to_string(read(frame, Field{field.offset + i, 1}, base));
  return text;
}

/// Gun-state codes (system information and state answers).
enum GunCode : std::uint8_t {
  kGunIdle = 0x00,
  kGunPluggedIn = 0x01,
  kGunCharging = 0x06,
  kGunFinished = 0x08,
  kGunFault = 0x0F,
};

/// Fault codes of the short state answer.
enum FaultCode : std::uint16_t {
  kFaultOverCurrent = 0x0004,
  kFaultOverVoltage = 0x0008,
  kFaultUnderVoltage = 0x0010,
  kFaultEmergencyStop = 0x0100,
};

/// Error bits of the diagnostics answer; one at a time.
enum ErrorBit : std::uint8_t {
  kErrorEmergencyStop = 1,
  kErrorOverVoltage = 2,
  kErrorUnderVoltage = 4,
  kErrorOverCurrent = 8,
};

/// The manufacturer code of the one maker this post line knows, and its name.
constexpr std::uint8_t kKnownMakerCode = 102;
constexpr const char* kKnownMakerName = "Velmora";
/// Charging-mode byte value of timed charging (anything else is immediate).
constexpr std::uint8_t kTimedMode = 0x01;

namespace system_info {
constexpr Field postNumber{8, 20};
constexpr Field postType{28, 1};
constexpr Field maker{29, 1};
constexpr Field magic{30, 4};
constexpr Field protocolMinor{34, 1};
constexpr Field protocolMajor{35, 1};
constexpr Field firmwarePatch{36, 1};
constexpr Field firmwareMinor{37, 1};
constexpr Field firmwareMajor{38, 1};
constexpr Field firmwareModel{39, 20};
constexpr Field chargingMode{54, 1};  // inside the firmware model
constexpr Field volume{59, 1};
constexpr Field clock{60, 4, ByteOrder::Little};
constexpr Field gunState{66, 1};
}  // namespace system_info

namespace state {
constexpr Field gunState{8, 1};
constexpr Field serial{9, 4};
constexpr Field energy{13, 2, ByteOrder::Little};
constexpr Field voltage{15, 4, ByteOrder::Little};
constexpr Field current{19, 2, ByteOrder::Little};
constexpr Field duration{21, 4, ByteOrder::Little};
constexpr Field faultCode{9, 2};  // the short fault answer
}  // namespace state

namespace live_data {
constexpr Field unused{8, 4};
constexpr Field serial{16, 4};
constexpr Field energy{20, 2};
constexpr Field voltage{22, 4};
constexpr Field current{26, 2};
constexpr Field duration{28, 4};
}  // namespace live_data

namespace ack {
constexpr Field status{8, 1};
}

namespace history {
constexpr Field count{10, 2};  // sent, not trusted: the length decides
constexpr std::size_t kFirstEntry = 12;
constexpr std::size_t kEntryLength = 19;
// Within an entry.
constexpr Field serial{0, 4};
constexpr Field energy{4, 2};
constexpr Field start{6, 4, ByteOrder::Little};
constexpr Field end{10, 4, ByteOrder::Little};
constexpr Field duration{14, 4, ByteOrder::Little};
}  // namespace history

namespace cumulation {
constexpr Field energy{8, 4, ByteOrder::Little};
}

namespace error_log {
constexpr Field count{10, 1};
constexpr std::size_t kFirstEntry = 11;
constexpr std::size_t kEntryLength = 8;
// Within an entry.
constexpr Field time{0, 4, ByteOrder::Little};
constexpr Field code{4, 1};
}  // namespace error_log

namespace diagnosis {
constexpr Field versionMajor{28, 1};
constexpr Field versionMinor{29, 1};
constexpr Field versionPatch{30, 1};
constexpr Field chargeState{38, 1};
constexpr Field errorBits{39, 1};
constexpr Field voltage{40, 1};
constexpr Field startMode{42, 1};
constexpr Field startHour{43, 1};
constexpr Field startMinute{44, 1};
constexpr Field currentRating{47, 1};
constexpr Field network{48, 1};
constexpr Field meter{51, 1};
constexpr Field screen{52, 1};
constexpr Field lock{53, 1};
}  // namespace diagnosis

}  // namespace tqble::protocol
