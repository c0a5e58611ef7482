#pragma once

// What the subcommands share: the twelve commands by their operation names and short
// names, a manager whose writes are recorded instead of sent, and argument parsing.

#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "AnswerJson.h"
#include "tqble/TQBleManager.h"
#include "tqble/client/ChargerClient.h"

namespace tqble::cli {

/// A mistake on the command line: one line for stderr, exit status 2.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// How `tqble decode` shows a command's answer.
enum class AnswerKind { Result, ChargerState, SystemInfo, History, Energy, ErrorLog, Diagnosis };

using Args = std::vector<std::int64_t>;

struct Command {
  const char* name;
  const char* shortName;
  std::vector<const char*> parameters;  ///< integer arguments, by name
  AnswerKind answer;
  /// Issues it on the manager.
  std::function<void(TQBleManager&, const Args&, const TQErrorHandler&)> issue;
  /// Asks it through the client; the answer arrives as JSON: typed, or with `raw` the
  /// manager's record.
  std::function<void(ChargerClient&, const Args&, bool raw, Completion<Json>)> ask;
};

/// The command named `name` (operation or short name).  @throws UsageError when there is none.
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
/// Terminal columns of UTF-8 text (CJK characters count two).
std::size_t displayWidth(const std::string& s);
/// `s` padded with blanks to `columns` terminal columns (CJK characters count two).
std::string padded(const std::string& s, std::size_t columns);
/// A whole decimal integer in [min, max].  @throws UsageError otherwise.
std::int64_t parseInteger(const std::string& text, const std::string& what, std::int64_t min,
                          std::int64_t max);

}  // namespace tqble::cli
