#pragma once

#include <functional>
#include <string_view>

namespace tqble {

/// Receives every log line, without a trailing line feed.
using LogSink = std::function<void(std::string_view line)>;

/// Replaces the log sink; an empty sink restores the default, which the environment
/// variable TQBLE_LOG chooses: standard error (unset or "stderr"), "off", or a file path.
void setLogSink(LogSink sink);
/// The sink lines go to now (to put it back after a quiet stretch).
LogSink logSink();

/// Writes one printf-style line to the log sink: no level, no prefix.
void TQLog(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace tqble
