#include "Commands.h"

#include <charconv>
#include <optional>
#include <string_view>
#include <utility>

namespace tqble::bridge {
namespace {

constexpr std::pair<const char*, CommandKind> kNames[] = {
    {"start", CommandKind::Start},     {"stop", CommandKind::Stop},
    {"enable", CommandKind::Enable},   {"volume", CommandKind::Volume},
    {"reserve", CommandKind::Reserve}, {"sync_time", CommandKind::SyncTime},
    {"maxcurrent", CommandKind::MaxCurrent}};

CommandError malformed(const std::string& what) {
  return {"malformed", what};
}

// A whole decimal number, or nothing.
std::optional<std::int64_t> number(std::string_view text) {
  std::int64_t value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

// "HH:MM", or false.
bool clock(std::string_view text, int& hour, int& minute) {
  if (text.size() != 5 || text[2] != ':') return false;
  const auto h = number(text.substr(0, 2)), m = number(text.substr(3, 2));
  if (!h || !m) return false;
  hour = static_cast<int>(*h);
  minute = static_cast<int>(*m);
  return true;
}

}  // namespace

std::variant<Command, CommandError> parseCommand(const std::string& name,
                                                  const std::string& payload) {
  const CommandKind* kind = nullptr;
  for (const auto& [known, k] : kNames)
    if (name == known) kind = &k;
  if (!kind) return CommandError{"unknown_command", "no command '" + name.substr(0, 32) + "'"};
  if (payload.size() > kMaxPayload)
    return CommandError{"too_large",
                        "payload of " + std::to_string(payload.size()) + " bytes (at most " +
                            std::to_string(kMaxPayload) + ")"};
  Command c{*kind, name};
  switch (c.kind) {
    case CommandKind::Start:
    case CommandKind::Stop:
    case CommandKind::SyncTime:
      if (!payload.empty() && payload != "PRESS") return malformed("expected no payload or PRESS");
      return c;
    case CommandKind::Enable:
      if (payload == "true" || payload == "ON" || payload == "1") c.value = 1;
      else if (payload == "false" || payload == "OFF" || payload == "0") c.value = 0;
      else return malformed("expected true or false");
      return c;
    case CommandKind::Volume:
    case CommandKind::MaxCurrent: {
      const auto value = number(payload);
      if (!value) return malformed("expected a whole number");
      const std::int64_t max = c.kind == CommandKind::Volume ? 100 : 80;
      if (*value < 0 || *value > max)
        return CommandError{"out_of_range", "expected 0 to " + std::to_string(max)};
      c.value = *value;
      return c;
    }
    case CommandKind::Reserve: {
      const auto dash = payload.find('-');
      if (dash == std::string::npos ||
          !clock(std::string_view(payload).substr(0, dash), c.startHour, c.startMinute) ||
          !clock(std::string_view(payload).substr(dash + 1), c.endHour, c.endMinute))
        return malformed("expected HH:MM-HH:MM");
      if (c.startHour > 23 || c.endHour > 23 || c.startMinute > 59 || c.endMinute > 59)
        return CommandError{"out_of_range", "hours 00-23, minutes 00-59"};
      return c;
    }
  }
  return malformed("unreadable");
}

}  // namespace tqble::bridge
