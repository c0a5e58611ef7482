// `tqble decode`: one answer frame decoded as the manager decodes that command's answer,
// printed as JSON beside the header checks the manager itself never makes.
#include <cstdio>
#include <iostream>
#include <iterator>
#include <stdexcept>

#include "AnswerJson.h"
#include "DecodedAnswer.h"
#include "CommandCatalogue.h"
#include "Subcommands.h"
#include "protocol/FrameChecks.h"
#include "tqble/ZDataCoverTool.h"
#include "tqble/platform/Log.h"

namespace tqble::cli {
namespace {

constexpr char kDecodeUsage[] =
    "usage: tqble decode <command> <hex>... [--log]\n"
    "  Decodes one whole answer frame (header included) as the answer to <command>.\n"
    "  The hex may be split by blanks, dashes or colons, its groups may start with 0x,\n"
    "  and several arguments are joined in order (the notifications of one answer);\n"
    "  '-' reads the hex from standard input. Prints JSON: the command and its code, the\n"
    "  answer's bytes, warnings where its start byte, command byte, length field or\n"
    "  checksum (unseeded) is not what that command's answer carries, and the answer: the\n"
    "  result or record the manager stores, the ten system-information rows, or, for the\n"
    "  history, energy, error-log and diagnostics answers that the manager decodes and\n"
    "  drops, what the decoding yields; beside it, under \"typed\", the typed answer as\n"
    "  `tqble run` prints it (or its error). The warnings never change a decoded value: the\n"
    "  manager checks none of this. queryChargingDataWithError answers are read as\n"
    "  charger state, as the manager reads them; runningDiagnosticInfoWithError prints the\n"
    "  full diagnostics although the manager itself drops that answer unread. --log\n"
    "  writes the decoder's log lines to stderr (or where TQBLE_LOG says).\n";

std::string byteText(std::uint8_t byte) {
  return "0x" + ZDataCoverTool::coverFromIntToHex(byte);
}

// The manager keeps results, states and system information: it expects this answer since
// the command was issued, so dispatch the answer and read what the decoder stored.
Json decodeAnswer(const Command& command, const Bytes& answer, TQBleManager& manager) {
  std::vector<ZRunStateModel> rows;
  const bool kept = command.answer == AnswerKind::Result ||
                    command.answer == AnswerKind::ChargerState ||
                    command.answer == AnswerKind::SystemInfo;
  if (kept) manager.analysisData(answer);
  if (command.answer == AnswerKind::SystemInfo) {
    for (const auto& row : manager.systemTitleArr()) rows.push_back(*row);
  }
  return decodedJson(command.answer, answer, kept ? manager.dataModel().get() : nullptr, rows);
}

}  // namespace

int runDecode(const std::vector<std::string>& args) {
  if (args.empty() || args[0] == "--help") {
    std::fputs(kDecodeUsage, args.empty() ? stderr : stdout);
    return args.empty() ? 2 : 0;
  }
  const Command* command = nullptr;
  try {
    command = &findCommand(args[0]);
    bool log = false;
    std::string hex;
    for (std::size_t i = 1; i < args.size(); ++i) {
      if (args[i] == "--log") {
        log = true;
      } else if (args[i] == "-") {
        hex.push_back(' ');
        hex.append(std::istreambuf_iterator<char>(std::cin), {});
      } else if (args[i].starts_with("--")) {
        throw UsageError("unknown option '" + args[i] + "'");
      } else {
        hex.push_back(' ');  // unquoted bytes and notifications arrive as several arguments
        hex += args[i];
      }
    }
    if (hex.empty()) throw UsageError(std::string(command->name) + ": missing <hex>");
    const Bytes answer = parseHex(hex.substr(1));

    // Issuing the command gives its request frame, whose code the answer should echo, and
    // leaves the manager expecting this answer.
    RecordingStack stack(log);
    command->issue(stack.manager(), std::vector<std::int64_t>(command->parameters.size(), 0),
                   nullptr);
    const Bytes& request = stack.writes().front();
    Json json{{"command", command->name},
              {"code", byteText(request[1])},
              {"bytes", spacedHex(answer)},
              {"warnings", protocol::headerWarnings(request, answer)}};
    json["answer"] = decodeAnswer(*command, answer, stack.manager());
    // The typed decoders reuse the manager's, whose log lines are out already.
    const LogSink kept = logSink();
    setLogSink([](std::string_view) {});
    try {
      json["typed"] = typedDecodedJson(command->answer, answer);
    } catch (const std::out_of_range& e) {
      json["typed"] = Json{{"error", e.what()}};
    }
    setLogSink(kept);
    std::printf("%s\n", json.dump(2).c_str());
    return 0;
  } catch (const UsageError& e) {
    std::fprintf(stderr, "tqble decode: %s\n", e.what());
    return 2;
  } catch (const std::out_of_range& e) {
    std::fprintf(stderr, "tqble decode: the answer is too short for %s: %s\n", command->name,
                 e.what());
    return 1;
  }
}

}  // namespace tqble::cli
