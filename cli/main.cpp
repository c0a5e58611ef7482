// tqble: command-line tool for the TQBle SDK.
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "Subcommands.h"

namespace {

constexpr char kUsage[] =
    "usage: tqble scan [--seconds N]                      posts heard: name, identifier, RSSI\n"
    "       tqble run POST COMMAND [ARGUMENTS] [--table]  one command's answer, as JSON\n"
    "       tqble survey POST                             every read command, one JSON document\n"
    "       tqble watch POST [--every S]                  the charger state, live\n"
    "       tqble history POST [--csv]                    the charging sessions\n"
    "       tqble frame COMMAND [ARGUMENTS] [--status N] [--rand N] [--time SECONDS]\n"
    "       tqble decode COMMAND HEX... | - [--log]\n"
    "       tqble capture FILE|- [--json] [--write-handle H --notify-handle H]\n"
    "       tqble demo [--quiet] [--backend NAME]\n"
    "       tqble post [--adapter hciN] [--name NAME] [--state S] [faults]\n"
    "       tqble bridge CONFIG [--backend NAME] | --check CONFIG\n"
    "       tqble help [SUBCOMMAND] | --help | --version\n"
    "Commands that ask a post take --backend sim|bluez (sim: a simulated post, the default).\n"
    "Frames print as upper-case hex bytes separated by single spaces; 'tqble help SUBCOMMAND'\n"
    "describes each subcommand.\n";

using Runner = int (*)(const std::vector<std::string>&);

struct Subcommand {
  const char* name;
  Runner run;
};

constexpr Subcommand kSubcommands[] = {
    {"scan", tqble::cli::runScan},       {"run", tqble::cli::runRun},
    {"survey", tqble::cli::runSurvey},   {"watch", tqble::cli::runWatch},
    {"history", tqble::cli::runHistory}, {"frame", tqble::cli::runFrame},
    {"decode", tqble::cli::runDecode},   {"capture", tqble::cli::runCapture},
    {"demo", tqble::cli::runDemo},       {"post", tqble::cli::runPost},
    {"bridge", tqble::cli::runBridge},
};

// `tqble help NAME`: the subcommand's own --help, on stdout.
int help(const std::vector<std::string>& args) {
  if (args.empty()) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  for (const auto& sub : kSubcommands) {
    if (args[0] == sub.name) return sub.run({"--help"});
  }
  std::fprintf(stderr, "tqble help: unknown subcommand '%s'\n%s", args[0].c_str(), kUsage);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  const std::string name = argv[1];
  std::vector<std::string> args(argv + 2, argv + argc);
  if (name == "--help" || name == "-h") return help({});
  if (name == "--version") {
    std::printf("tqble %s\n", TQBLE_VERSION);
    return 0;
  }
  try {
    if (name == "help") return help(args);
    for (const auto& sub : kSubcommands) {
      if (name == sub.name) return sub.run(args);
    }
  } catch (const std::exception& e) {
    std::fprintf(stderr, "tqble %s: %s\n", name.c_str(), e.what());
    return 1;
  }
  std::fprintf(stderr, "tqble: unknown subcommand '%s'\n%s", name.c_str(), kUsage);
  return 2;
}
