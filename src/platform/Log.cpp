#include "tqble/platform/Log.h"

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

namespace tqble {
namespace {

LogSink& sink() {
  static LogSink instance;
  return instance;
}

}  // namespace

void setLogSink(LogSink newSink) { sink() = std::move(newSink); }

void TQLog(const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list copy;
  va_copy(copy, args);
  const int length = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  std::string line(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
  if (length > 0) std::vsnprintf(line.data(), line.size() + 1, format, args);
  va_end(args);
  if (sink()) {
    sink()(line);
  } else {
    std::fprintf(stderr, "%s\n", line.c_str());
  }
}

}  // namespace tqble
