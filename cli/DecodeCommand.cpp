// `tqble decode`: one answer frame decoded as the manager decodes that command's answer,
// printed as JSON.
#include <cstdio>
#include <stdexcept>

#include "AnswerJson.h"
#include "CommandCatalogue.h"
#include "Subcommands.h"
#include "tqble/AnswerDecoding.h"
#include "tqble/platform/Log.h"

namespace tqble::cli {
namespace {

constexpr char kDecodeUsage[] =
    "usage: tqble decode <command> <hex> [--log]\n"
    "  Decodes one whole answer frame (header included; blanks between hex digits are\n"
    "  allowed) as the answer to <command> and prints it as JSON: the result or record\n"
    "  the manager stores, the ten system-information rows, or, for the history, energy,\n"
    "  error-log and diagnostics answers that the manager decodes and drops, what the\n"
    "  decoding yields. queryChargingDataWithError answers are read as charger state, as\n"
    "  the manager reads them; runningDiagnosticInfoWithError prints the full diagnostics\n"
    "  although the manager itself drops that answer unread. --log writes the decoder's\n"
    "  log lines to stderr.\n";

Json decodeAnswer(const Command& command, const Bytes& answer, bool log) {
  switch (command.answer) {
    case AnswerKind::History:
      return toJson(decode::chargingHistory(answer));
    case AnswerKind::Energy:
      return toJson(CumulativeEnergy{decode::cumulativeEnergy(answer)});
    case AnswerKind::ErrorLog:
      return toJson(decode::errorLog(answer));
    case AnswerKind::Diagnosis:
      return toJson(decode::runningDiagnosis(answer));
    case AnswerKind::Result:
    case AnswerKind::ChargerState:
    case AnswerKind::SystemInfo:
      break;
  }

  // The manager keeps these: issue the command so that it expects this answer, then
  // dispatch the answer and read what the decoder stored.
  RecordingStack stack(log);
  TQBleManager& manager = stack.manager();
  command.issue(manager, std::vector<std::int64_t>(command.parameters.size(), 0), nullptr);
  manager.analysisData(answer);
  if (command.answer == AnswerKind::SystemInfo) {
    Json rows = Json::array();
    for (const auto& row : manager.systemTitleArr()) {
      rows.push_back(Json{{"title", text(row->title)}, {"content", text(row->content)}});
    }
    return rows;
  }
  const auto& model = manager.dataModel();
  if (command.answer == AnswerKind::Result) {
    return model->result ? Json{{"resultType", model->result->resultType}} : Json(nullptr);
  }
  return model->chargingData ? chargeFields(*model->chargingData) : Json(nullptr);
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
    std::optional<std::string> hex;
    for (std::size_t i = 1; i < args.size(); ++i) {
      if (args[i] == "--log") {
        log = true;
      } else if (args[i].starts_with("--")) {
        throw UsageError("unknown option '" + args[i] + "'");
      } else {
        // Unquoted bytes arrive as several arguments.
        hex = hex ? *hex + " " + args[i] : args[i];
      }
    }
    if (!hex) throw UsageError(std::string(command->name) + ": missing <hex>");
    const Bytes answer = parseHex(*hex);
    if (!log) setLogSink([](std::string_view) {});

    const Json json = decodeAnswer(*command, answer, log);
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
