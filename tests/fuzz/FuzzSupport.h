#pragma once

// Shared by the harnesses. The system's own range errors (std::out_of_range from the
// checked cut) are expected for inputs too short for a fixed-position cut: they are
// counted and shown when the run ends. Anything else thrown escapes to libFuzzer, and
// a broken expectation aborts with its reason; both are reported as crashes.

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

/// Runs `cut`, which must throw the range error exactly when `tooShort` holds.
template <class Cut>
void rangeErrorExactlyWhen(bool tooShort, const char* what, Cut&& cut) {
  try {
    cut();
  } catch (const std::out_of_range&) {
    expect(tooShort, what);
    ++rangeErrors;
    return;
  }
  expect(!tooShort, what);
}

/// Runs `cut`, counting a range error where its length rule is not checked.
template <class Cut>
void mayCut(Cut&& cut) {
  try {
    cut();
  } catch (const std::out_of_range&) {
    ++rangeErrors;
  }
}

/// Silences the log and shows the range-error count at exit.
inline void setUp() {
  setLogSink([](std::string_view) {});
  std::atexit([] { std::fprintf(stderr, "range errors (expected, counted): %lu\n", rangeErrors); });
}

}  // namespace tqble::fuzz
