#pragma once

#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "tqble/platform/Value.h"

namespace tqble {

/// A persistent key-value store kept as a JSON file. Safe to use from any thread.
class UserDefaults {
 public:
  /// Reads `file` if it exists; a damaged file is moved aside (".damaged") and logged.
  explicit UserDefaults(std::filesystem::path file);

  /// The shared store, on the path of standardPath() unless overridden.
  static UserDefaults& standardUserDefaults();
  /// Re-points the shared store at `file` (nullopt: standardPath()) and reloads it.
  static void setStandardUserDefaultsPath(std::optional<std::filesystem::path> file);
  /// $XDG_CONFIG_HOME/tqble/defaults.json, else $HOME/.config/tqble/defaults.json.
  static std::filesystem::path standardPath();

  /// The value under `key`; std::monostate when none.
  Value objectForKey(const std::string& key) const;
  /// Stores `value` under `key` in memory; std::monostate removes the key.
  void setObject(const Value& value, const std::string& key);
  /// Removes `key` from memory.
  void removeObjectForKey(const std::string& key);
  /// Writes every value to the file atomically (temporary file, then rename); false and
  /// a log line when that fails.
  bool synchronize();
  /// The file this store reads and writes.
  std::filesystem::path path() const;

 private:
  void load();

  mutable std::mutex mutex_;
  std::filesystem::path path_;
  std::map<std::string, Value> values_;
};

}  // namespace tqble
