#include "Log.h"

#include <cstdarg>
#include <cstdio>

namespace tqble::bridge {
namespace {
std::string& prefix() {
  static std::string value = "bridge";
  return value;
}
}  // namespace

void setLogPrefix(std::string p) {
  prefix() = std::move(p);
}

void log(const char* format, ...) {
  char line[512];
  va_list args;
  va_start(args, format);
  std::vsnprintf(line, sizeof line, format, args);
  va_end(args);
  std::fprintf(stderr, "tqble %s: %s\n", prefix().c_str(), line);
}

}  // namespace tqble::bridge
