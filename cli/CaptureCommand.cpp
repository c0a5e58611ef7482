// `tqble capture`: a btsnoop capture read as the post's conversation, each request with
// its answer as the manager gathered and decoded it, and what looks wrong on the way.
#include <charconv>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>

#include "AnswerJson.h"
#include "CommandCatalogue.h"
#include "DecodedAnswer.h"
#include "Subcommands.h"
#include "tqble/capture/Capture.h"

namespace tqble::cli {
namespace {

constexpr char kCaptureUsage[] =
    "usage: tqble capture FILE|- [--json] [--write-handle H --notify-handle H] [--log]\n"
    "  Reads a btsnoop capture (btmon -w, or a phone's HCI snoop log; '-' for standard\n"
    "  input) and prints the post's conversation on every link: each request to FFF3 with\n"
    "  its time and command, the pieces of its answer on FFF4, the latency, the answer as\n"
    "  the manager reassembled it and its typed values, and warnings: a start byte,\n"
    "  command byte, length field or checksum that is off, a lost or an extra piece, an\n"
    "  answer with no request. FFF3 and FFF4 are found from the GATT discovery in the\n"
    "  capture; --write-handle and --notify-handle (decimal or 0x hex) give them for links\n"
    "  whose discovery the daemon's cache skipped. --json prints one JSON document. --log\n"
    "  writes the decoders' log lines to stderr.\n";

std::uint16_t handleArgument(const std::string& option, const std::string& text) {
  const bool hex = text.starts_with("0x") || text.starts_with("0X");
  const char* begin = text.data() + (hex ? 2 : 0);
  const char* end = text.data() + text.size();
  unsigned value = 0;
  const auto [stop, error] = std::from_chars(begin, end, value, hex ? 16 : 10);
  if (begin == end || error != std::errc() || stop != end || value == 0 || value > 0xFFFF) {
    throw UsageError(option + " takes an attribute handle from 1 to 0xFFFF, not '" + text + "'");
  }
  return static_cast<std::uint16_t>(value);
}

Bytes readInput(const std::string& path) {
  if (path == "-") return Bytes(std::istreambuf_iterator<char>(std::cin), {});
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot open '" + path + "'");
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

std::string handleText(const std::optional<std::uint16_t>& handle) {
  char text[8];
  std::snprintf(text, sizeof text, "0x%04X", handle.value_or(0));
  return handle ? text : "unknown";
}

Json pieceJson(const capture::Piece& piece) {
  return Json{{"record", piece.record}, {"time", piece.time}, {"bytes", spacedHex(piece.value)}};
}

// The answer's values: the typed answer of the frame the manager reassembled.
Json values(const capture::Exchange& exchange) {
  const capture::Answer& answer = *exchange.answer;
  if (exchange.command.empty() || !answer.decoderError.empty()) return nullptr;
  try {
    return typedDecodedJson(findCommand(exchange.command).answer, answer.frame);
  } catch (const std::out_of_range&) {
    return nullptr;  // too short for its decoder: the warnings say what is off
  }
}

Json timelineJson(const capture::Timeline& timeline) {
  Json links = Json::array();
  for (const auto& link : timeline.traffic.links) {
    links.push_back(Json{{"adapter", link.adapter},
                         {"connection", link.connection},
                         {"peer", link.peer},
                         {"writeHandle", handleText(link.handles.write)},
                         {"notifyHandle", handleText(link.handles.notify)},
                         {"discovered", link.discovered}});
  }
  Json exchanges = Json::array();
  for (const auto& e : timeline.exchanges) {
    Json json{{"link", e.link + 1}};
    json["request"] = e.request ? pieceJson(*e.request) : Json(nullptr);
    json["command"] = e.command.empty() ? Json(nullptr) : Json(e.command);
    Json pieces = Json::array();
    for (const auto& p : e.pieces) pieces.push_back(pieceJson(p));
    json["pieces"] = pieces;
    json["answer"] = nullptr;
    if (e.answer) {
      json["answer"] = Json{{"latency", e.answer->latency},
                            {"cmdType", e.answer->cmdType},
                            {"bytes", spacedHex(e.answer->frame)},
                            {"values", values(e)}};
    }
    json["warnings"] = e.warnings;
    exchanges.push_back(json);
  }
  return Json{{"datalink", timeline.traffic.datalink},
              {"links", links},
              {"exchanges", exchanges},
              {"notes", timeline.notes}};
}

void printText(const capture::Timeline& timeline) {
  std::size_t warnings = 0;
  for (const auto& e : timeline.exchanges) warnings += e.warnings.size();
  std::printf("btsnoop datalink %u: %zu links, %zu exchanges, %zu warnings\n",
              timeline.traffic.datalink, timeline.traffic.links.size(),
              timeline.exchanges.size(), warnings);
  for (std::size_t i = 0; i < timeline.traffic.links.size(); ++i) {
    const auto& l = timeline.traffic.links[i];
    std::printf("link %zu: adapter %u, connection 0x%04X, peer %s, FFF3 %s, FFF4 %s%s\n", i + 1,
                l.adapter, l.connection, l.peer.empty() ? "unknown" : l.peer.c_str(),
                handleText(l.handles.write).c_str(), handleText(l.handles.notify).c_str(),
                l.discovered ? " (discovered)" : "");
  }
  for (const auto& note : timeline.notes) std::printf("note: %s\n", note.c_str());
  for (const auto& e : timeline.exchanges) {
    const double time = e.request ? e.request->time : e.pieces.front().time;
    std::printf("\n%10.3f s  link %zu  %s\n", time, e.link + 1,
                e.request ? (e.command.empty() ? "unknown command" : e.command.c_str())
                          : "no request");
    if (e.request) std::printf("  request  %s\n", spacedHex(e.request->value).c_str());
    for (const auto& p : e.pieces) {
      std::printf("  piece    %s  (+%.3f s)\n", spacedHex(p.value).c_str(),
                  e.request ? p.time - e.request->time : 0.0);
    }
    if (e.answer) {
      std::printf("  answer   %zu pieces in %.3f s: %s\n", e.pieces.size(), e.answer->latency,
                  spacedHex(e.answer->frame).c_str());
      std::printf("  values   %s\n", values(e).dump().c_str());
    }
    for (const auto& w : e.warnings) std::printf("  warning  %s\n", w.c_str());
  }
}

}  // namespace

int runCapture(const std::vector<std::string>& args) {
  if (args.empty() || args[0] == "--help") {
    std::fputs(kCaptureUsage, args.empty() ? stderr : stdout);
    return args.empty() ? 2 : 0;
  }
  try {
    std::optional<std::string> path;
    bool json = false;
    bool log = false;
    capture::Handles given;
    for (std::size_t i = 0; i < args.size(); ++i) {
      const std::string& a = args[i];
      if (a == "--json") {
        json = true;
      } else if (a == "--log") {
        log = true;
      } else if (a == "--write-handle" || a == "--notify-handle") {
        if (i + 1 == args.size()) throw UsageError(a + " needs a value");
        (a == "--write-handle" ? given.write : given.notify) = handleArgument(a, args[++i]);
      } else if (a.starts_with("--") || path) {
        throw UsageError("unexpected '" + a + "'");
      } else {
        path = a;
      }
    }
    if (!path) throw UsageError("missing FILE");
    capture::Traffic traffic = capture::readBtsnoop(readInput(*path), given);
    RecordingStack stack(log);
    const capture::Timeline timeline = capture::replay(std::move(traffic), stack.manager());
    if (json) {
      std::printf("%s\n", timelineJson(timeline).dump(2).c_str());
    } else {
      printText(timeline);
    }
    return 0;
  } catch (const UsageError& e) {
    std::fprintf(stderr, "tqble capture: %s\n", e.what());
    return 2;
  }
}

}  // namespace tqble::cli
