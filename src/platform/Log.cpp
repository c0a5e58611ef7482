#include "tqble/platform/Log.h"

#include "platform/Text.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace tqble {
namespace {

void toStandardError(std::string_view line) {
  std::fprintf(stderr, "%.*s\n", static_cast<int>(line.size()), line.data());
}

// Where lines go while the application sets no sink: TQBLE_LOG names standard error
// (unset, empty or "stderr"), nowhere ("off") or a file to append to (anything else).
LogSink environmentSink() {
  const char* choice = std::getenv("TQBLE_LOG");
  const std::string_view value = choice ? choice : "";
  if (value.empty() || value == "stderr") return toStandardError;
  if (value == "off") return [](std::string_view) {};
  std::shared_ptr<std::FILE> file(std::fopen(choice, "a"), [](std::FILE* f) {
    if (f) std::fclose(f);
  });
  if (!file) {
    std::fprintf(stderr, "TQBLE_LOG: cannot open '%s' (%s); logging to standard error\n", choice,
                 std::strerror(errno));
    return toStandardError;
  }
  return [file](std::string_view line) {
    // One write per line, flushed, so that lines of several processes stay whole.
    std::fprintf(file.get(), "%.*s\n", static_cast<int>(line.size()), line.data());
    std::fflush(file.get());
  };
}

LogSink& sink() {
  static LogSink instance = environmentSink();
  return instance;
}

}  // namespace

void setLogSink(LogSink newSink) { sink() = newSink ? std::move(newSink) : environmentSink(); }

LogSink logSink() { return sink(); }

void TQLog(const char* format, ...) {
  va_list args;
  va_start(args, format);
  const std::string line = detail::vformat(format, args);
  va_end(args);
  sink()(line);
}

}  // namespace tqble
