#pragma once

// Commands that arrive on <root>/<post>/<command>/set, read strictly: anything that is not
// exactly a known command with a payload in range is refused before the post hears of it.

#include <cstdint>
#include <string>
#include <variant>

namespace tqble::bridge {

/// The commands and their payloads.
enum class CommandKind { Start, Stop, Enable, Volume, Reserve, SyncTime, MaxCurrent };

/// A command read from its topic and payload.
struct Command {
  CommandKind kind;
  std::string name;       ///< as in the topic
  std::int64_t value = 0; ///< volume 0-100, enable 0/1, max current in A
  int startHour = 0, startMinute = 0, endHour = 0, endMinute = 0;  ///< reserve
};

/// Why a command was refused: "unknown_command", "malformed", "too_large", "out_of_range",
/// with a sentence.
struct CommandError {
  std::string code;
  std::string message;
};

/// The largest payload read; longer ones are refused unread.
inline constexpr std::size_t kMaxPayload = 64;

/// Reads a command. Payloads: start, stop, sync_time: empty or "PRESS"; enable: true/false,
/// ON/OFF or 1/0; volume: 0-100; reserve: "HH:MM-HH:MM"; maxcurrent: 0-80 (amperes).
std::variant<Command, CommandError> parseCommand(const std::string& name,
                                                  const std::string& payload);

}  // namespace tqble::bridge
