// `tqble frame`: the request frame a command writes, built by the manager itself.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <optional>

#include "CommandCatalogue.h"
#include "Subcommands.h"
#include "platform/DateFormat.h"

namespace tqble::cli {
namespace {

constexpr char kFrameUsage[] =
    "usage: tqble frame <command> [arguments] [--status N] [--rand N] [--time SECONDS]\n"
    "  Prints the frame the command writes, as upper-case hex bytes separated by single\n"
    "  spaces, then the command's name and code. --status and --rand (0-255) set the\n"
    "  manager's properties of that name; querySystemInfoWithError ignores both. --time\n"
    "  fixes the clock (seconds since 1970) that synchroTimeWithError sends.\n"
    "  commands:";

void printUsage(std::FILE* out) {
  std::fputs(kFrameUsage, out);
  for (const auto& command : commands()) {
    std::fprintf(out, "\n    %s (%s)", command.name, command.shortName);
    for (const char* parameter : command.parameters) std::fprintf(out, " <%s>", parameter);
  }
  std::fputc('\n', out);
}

double parseSeconds(const std::string& text) {
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || !std::isfinite(value)) {
    throw UsageError("--time must be a number of seconds, not '" + text + "'");
  }
  return value;
}

}  // namespace

int runFrame(const std::vector<std::string>& args) {
  if (args.empty() || args[0] == "--help") {
    printUsage(args.empty() ? stderr : stdout);
    return args.empty() ? 2 : 0;
  }
  try {
    const Command& command = findCommand(args[0]);
    std::vector<std::int64_t> values;
    std::optional<std::uint8_t> status, rand;
    std::optional<double> time;
    for (std::size_t i = 1; i < args.size(); ++i) {
      const std::string& arg = args[i];
      const bool option = arg == "--status" || arg == "--rand" || arg == "--time";
      if (option && i + 1 == args.size()) throw UsageError(arg + " needs a value");
      if (arg == "--status") {
        status = static_cast<std::uint8_t>(parseInteger(args[++i], "--status", 0, 255));
      } else if (arg == "--rand") {
        rand = static_cast<std::uint8_t>(parseInteger(args[++i], "--rand", 0, 255));
      } else if (arg == "--time") {
        time = parseSeconds(args[++i]);
      } else if (arg.starts_with("--")) {
        throw UsageError("unknown option '" + arg + "'");
      } else {
        if (values.size() == command.parameters.size()) {
          throw UsageError(std::string(command.name) + ": unexpected argument '" + arg + "'");
        }
        values.push_back(
            parseInteger(arg, command.parameters[values.size()], INT64_MIN, INT64_MAX));
      }
    }
    if (values.size() < command.parameters.size()) {
      throw UsageError(std::string(command.name) + ": missing <" +
                       command.parameters[values.size()] + ">");
    }

    if (time && std::string_view(command.name) != "synchroTimeWithError") {
      throw UsageError("--time applies to synchroTimeWithError only");
    }
    if (time) detail::setNowSource([seconds = *time] { return seconds; });
    RecordingStack stack;
    if (status) stack.manager().setStatusCode(*status);
    if (rand) stack.manager().setRand(*rand);
    std::optional<TQError> failure;
    command.issue(stack.manager(), values, [&failure](const TQError& error) { failure = error; });
    if (failure || stack.writes().size() != 1) {
      std::fprintf(stderr, "tqble frame: %s wrote nothing: %s\n", command.name,
                   failure ? failure->domain.c_str() : "no frame");
      return 1;
    }
    const Bytes& frame = stack.writes().front();
    std::printf("%s  %s 0x%02X\n", spacedHex(frame).c_str(), command.name, frame[1]);
    return 0;
  } catch (const UsageError& e) {
    std::fprintf(stderr, "tqble frame: %s\n", e.what());
    return 2;
  }
}

}  // namespace tqble::cli
