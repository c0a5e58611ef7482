#pragma once

#include <chrono>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "tqble/platform/Value.h"

namespace tqble {

/// A persistent key-value store kept as a JSON file shared by the application's processes.
/// Changes are saved on their own shortly after they are made and when the store is
/// destroyed (the shared store at normal process exit). Safe to use from any thread.
class UserDefaults {
 public:
  /// Reads `file` if it exists; a damaged file is moved aside (".damaged") and logged. One
  /// that cannot be read is logged and left as it is: the store starts empty and never
  /// writes over it.
  explicit UserDefaults(std::filesystem::path file);
  /// Saves what is not saved yet.
  ~UserDefaults();
  UserDefaults(const UserDefaults&) = delete;
  UserDefaults& operator=(const UserDefaults&) = delete;

  /// The shared store, on the path of standardPath() unless overridden.
  static UserDefaults& standardUserDefaults();
  /// Re-points the shared store at `file` (nullopt: standardPath()) and reloads it.
  static void setStandardUserDefaultsPath(std::optional<std::filesystem::path> file);
  /// $XDG_CONFIG_HOME/tqble/<application>.json, else under $HOME/.config.
  static std::filesystem::path standardPath();
  /// The application's name for standardPath(): the one set, else the program's name.
  static std::string applicationName();
  /// Names the application for standardPath() (nullopt: the program's name).
  static void setApplicationName(std::optional<std::string> name);

  /// The value under `key`; std::monostate when none.
  Value objectForKey(const std::string& key) const;
  /// Stores `value` under `key`; std::monostate removes the key. Saved soon.
  void setObject(const Value& value, const std::string& key);
  /// Removes `key`. Saved soon.
  void removeObjectForKey(const std::string& key);
  /// Saves now: under the file's lock, the keys changed here are merged onto the file's
  /// current contents, which then replace it atomically; with no change, only re-reads it.
  /// False and a log line on failure.
  bool synchronize();
  /// The file this store reads and writes.
  std::filesystem::path path() const;

  /// How long a change waits for others before it is saved on its own.
  static constexpr std::chrono::milliseconds kSaveDelay{500};

 private:
  void load();
  bool save();
  void saveWhenDue();
  bool saverRunsHere();
  void wakeSaver();

  mutable std::mutex mutex_;
  std::filesystem::path path_;
  std::map<std::string, Value> values_;
  std::set<std::string> changed_;  // keys set or removed here since the last save
  std::optional<std::chrono::steady_clock::time_point> due_;
  bool stopping_ = false;
  // The saver thread and what wakes it: a plain thread and an eventfd rather than
  // std::thread and a condition variable, which a forked child could neither drop nor
  // destroy.
  unsigned long saver_ = 0;  // a pthread_t
  int saverProcess_ = 0;     // the process saver_ runs in; 0: none
  int wakeFd_ = -1;
};

}  // namespace tqble
