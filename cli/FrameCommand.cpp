#include "Subcommands.h"

namespace tqble::cli {
int runFrame(const std::vector<std::string>&) { return 2; }
}  // namespace tqble::cli
