#pragma once

// What `tqble frame` and `tqble decode` share: the twelve commands by their operation
// names, a manager whose writes are recorded instead of sent, and argument parsing.

#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "tqble/TQBleManager.h"

namespace tqble::cli {

/// A mistake on the command line: one line for stderr, exit status 2.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// How `tqble decode` shows a command's answer.
enum class AnswerKind { Result, ChargerState, SystemInfo, History, Energy, ErrorLog, Diagnosis };

struct Command {
  const char* name;
  std::vector<const char*> parameters;  ///< integer arguments, by name
  AnswerKind answer;
  std::function<void(TQBleManager&, const std::vector<std::int64_t>&, const TQErrorHandler&)> issue;
};

/// The command named `name`.  @throws UsageError when there is none.
const Command& findCommand(const std::string& name);
/// Every command, in catalogue order.
const std::vector<Command>& commands();

class RecordingPost;

/// The process's manager on a central that connects at once to a post whose write
/// characteristic records every frame. Logging is silenced unless `log` is set.
/// @throws std::runtime_error when the manager already exists.
class RecordingStack {
 public:
  explicit RecordingStack(bool log = false);
  TQBleManager& manager() { return *manager_; }
  /// Every frame written so far.
  const std::vector<Bytes>& writes() const;

 private:
  std::shared_ptr<TQBleManager> manager_;
  std::shared_ptr<RecordingPost> post_;
};

/// Bytes of hex text; blanks, dashes and colons may split it, and each group may start
/// with 0x ("68-B5", "68:b5", "0x68 0xB5", "0x68B5").
/// @throws UsageError on odd length or a character that is not a hex digit.
Bytes parseHex(const std::string& text);
/// Upper-case hex bytes separated by single spaces ("68 B5 00").
std::string spacedHex(const Bytes& bytes);
/// A whole decimal integer in [min, max].  @throws UsageError otherwise.
std::int64_t parseInteger(const std::string& text, const std::string& what, std::int64_t min,
                          std::int64_t max);

}  // namespace tqble::cli
