#pragma once

// The bridge's log: one line per event on stderr (the journal under systemd), each
// prefixed with the process's part ("gateway garage" or "post garage-1"). Settings are
// logged by name; secrets never are.

#include <string>

namespace tqble::bridge {

/// Sets the prefix of this process's lines.
void setLogPrefix(std::string prefix);
/// Writes one line.
void log(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace tqble::bridge
