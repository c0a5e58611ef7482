#pragma once

// Shared by the harnesses, one per executable. The system's own range errors
// (std::out_of_range from the checked cut) are allowed: they are counted and shown when
// the run ends. Anything else thrown escapes to libFuzzer, and a broken expectation aborts
// with its reason; both are reported as crashes.

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "tqble/platform/Log.h"

namespace tqble::fuzz {

inline unsigned long rangeErrors = 0;

/// Aborts with `what` unless `holds`.
inline void expect(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "broken expectation: %s\n", what);
  std::abort();
}

/// Runs `cut`; false (and one more range error counted) when it throws the range error.
template <class Cut>
bool accepted(Cut&& cut) {
  try {
    cut();
    return true;
  } catch (const std::out_of_range&) {
    ++rangeErrors;
    return false;
  }
}

}  // namespace tqble::fuzz

/// Silences the log and shows the range-error count at exit.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  tqble::setLogSink([](std::string_view) {});
  std::atexit([] {
    std::fprintf(stderr, "range errors (allowed, counted): %lu\n", tqble::fuzz::rangeErrors);
  });
  return 0;
}
