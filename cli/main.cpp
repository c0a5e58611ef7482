// tqble: command-line tool for the TQBle SDK.
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "Subcommands.h"

namespace {

constexpr char kUsage[] =
    "usage: tqble frame <command> [arguments] [--status N] [--rand N] [--time SECONDS]\n"
    "       tqble decode <command> <hex> [--log]\n"
    "       tqble demo [--quiet] [--backend NAME]\n"
    "       tqble post [--adapter hciN] [--name NAME] [faults]   (see 'tqble post --help')\n"
    "Frames print as upper-case hex bytes separated by single spaces; 'tqble frame --help'\n"
    "and 'tqble decode --help' describe the commands and the JSON output.\n";

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  const std::string name = argv[1];
  const std::vector<std::string> args(argv + 2, argv + argc);
  try {
    if (name == "frame") return tqble::cli::runFrame(args);
    if (name == "decode") return tqble::cli::runDecode(args);
    if (name == "demo") return tqble::cli::runDemo(args);
    if (name == "post") return tqble::cli::runPost(args);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "tqble %s: %s\n", name.c_str(), e.what());
    return 1;
  }
  std::fprintf(stderr, "tqble: unknown subcommand '%s'\n%s", name.c_str(), kUsage);
  return 2;
}
