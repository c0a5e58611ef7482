#pragma once

#include <string>
#include <vector>

#include "tqble/platform/Log.h"

namespace tqble::test {

/// Captures log lines for the lifetime of the object.
class LogCapture {
 public:
  LogCapture() {
    setLogSink([this](std::string_view line) { lines.emplace_back(line); });
  }
  ~LogCapture() { setLogSink(nullptr); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> lines;
};

}  // namespace tqble::test
