#include "tqble/platform/Log.h"

#include "platform/Text.h"

#include <cstdarg>
#include <cstdio>
#include <string>

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
  const std::string line = detail::vformat(format, args);
  va_end(args);
  if (sink()) {
    sink()(line);
  } else {
    std::fprintf(stderr, "%s\n", line.c_str());
  }
}

}  // namespace tqble
