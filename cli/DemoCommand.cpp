#include <cstdio>

#include "Subcommands.h"

namespace tqble::cli {
int runDemo(const std::vector<std::string>&) {
  std::puts("tqble demo: the scripted session against the virtual charging post is not built yet.");
  return 0;
}
}  // namespace tqble::cli
