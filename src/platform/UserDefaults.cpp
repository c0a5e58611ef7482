#include "tqble/platform/UserDefaults.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <system_error>
#include <type_traits>

#include "platform/Hex.h"
#include "tqble/platform/Log.h"

namespace tqble {
namespace {

static_assert(std::is_same_v<pthread_t, unsigned long>,
              "the saver's handle is kept as a pthread_t");

using nlohmann::json;
namespace fs = std::filesystem;

// Byte values are the one kind JSON lacks; they are kept as {"$bytes": "<hex>"}.
constexpr char kBytesTag[] = "$bytes";

json toJson(const Value& value) {
  return std::visit(
      [](const auto& v) -> json {
        using V = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<V, std::monostate>) {
          return nullptr;
        } else if constexpr (std::is_same_v<V, Bytes>) {
          return json{{kBytesTag, detail::hexText(v)}};
        } else {
          return v;
        }
      },
      value);
}

// @throws std::invalid_argument for a JSON shape no Value has.
Value fromJson(const json& j) {
  switch (j.type()) {
    case json::value_t::null:
      return std::monostate{};
    case json::value_t::boolean:
      return j.get<bool>();
    case json::value_t::number_integer:
      return j.get<std::int64_t>();
    case json::value_t::number_unsigned:
      if (j.get<std::uint64_t>() > static_cast<std::uint64_t>(INT64_MAX)) {
        return j.get<double>();
      }
      return j.get<std::int64_t>();
    case json::value_t::number_float:
      return j.get<double>();
    case json::value_t::string:
      return j.get<std::string>();
    case json::value_t::array: {
      std::vector<std::string> texts;
      for (const auto& element : j) {
        if (!element.is_string()) throw std::invalid_argument("a list holds a non-text value");
        texts.push_back(element.get<std::string>());
      }
      return texts;
    }
    case json::value_t::object:
      if (j.size() == 1 && j.contains(kBytesTag) && j[kBytesTag].is_string()) {
        auto bytes = detail::bytesOfHex(j[kBytesTag].get_ref<const std::string&>());
        if (!bytes) throw std::invalid_argument("bad byte text");
        return *std::move(bytes);
      }
      throw std::invalid_argument("an object that is not a byte value");
    default:
      throw std::invalid_argument("an unsupported value");
  }
}

// A free name next to `file` for keeping a damaged copy; earlier copies are never replaced.
fs::path asidePath(const fs::path& file) {
  fs::path aside = file;
  aside += ".damaged";
  std::error_code error;
  for (int n = 1; fs::exists(aside, error); ++n) {
    aside = file;
    aside += ".damaged." + std::to_string(n);
  }
  return aside;
}

std::optional<fs::path>& pathOverride() {
  static std::optional<fs::path> file;
  return file;
}

std::optional<std::string>& nameOverride() {
  static std::optional<std::string> name;
  return name;
}

// The processes of one application take turns on its file through an advisory lock on
// "<file>.lock", held while the file is read, merged and replaced.
class FileLock {
 public:
  explicit FileLock(const fs::path& file) {
    fs::path lock = file;
    lock += ".lock";
    fd_ = ::open(lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd_ < 0) {
      problem_ = "cannot open " + lock.string() + ": " + std::strerror(errno);
      return;
    }
    while (::flock(fd_, LOCK_EX) < 0) {
      if (errno == EINTR) continue;
      problem_ = "cannot lock " + lock.string() + ": " + std::strerror(errno);
      ::close(fd_);
      fd_ = -1;
      return;
    }
  }
  ~FileLock() {
    if (fd_ >= 0) ::close(fd_);
  }
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

  bool held() const { return fd_ >= 0; }
  const std::string& problem() const { return problem_; }

 private:
  int fd_ = -1;
  std::string problem_;
};

struct Contents {
  enum { missing, good, damaged, unreadable } state = missing;
  std::map<std::string, Value> values;
  std::string problem;
};

Contents readFile(const fs::path& file) {
  Contents contents;
  const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    if (errno != ENOENT) contents = {Contents::unreadable, {}, std::strerror(errno)};
    return contents;
  }
  std::string text;
  char buffer[65536];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) contents = {Contents::unreadable, {}, std::strerror(errno)};
    if (n <= 0) break;
    text.append(buffer, static_cast<std::size_t>(n));
  }
  ::close(fd);
  if (contents.state == Contents::unreadable) return contents;
  try {
    const json root = json::parse(text);
    if (!root.is_object()) throw std::invalid_argument("the top level is not an object");
    for (const auto& [key, value] : root.items()) contents.values[key] = fromJson(value);
    contents.state = Contents::good;
  } catch (const std::exception& e) {
    contents = {Contents::damaged, {}, e.what()};
  }
  return contents;
}

// Whether the file's values can be built on; logs why not. A damaged file is kept aside
// for inspection; one that cannot be read (its permissions, another user's) is no damage
// and stays where it is, untouched, until it can be read again.
bool usable(const fs::path& file, const Contents& contents) {
  if (contents.state == Contents::good || contents.state == Contents::missing) return true;
  if (contents.state == Contents::unreadable) {
    TQLog("user defaults: cannot read %s (%s); it is left as it is and values are kept in "
          "memory only",
          file.c_str(), contents.problem.c_str());
    return false;
  }
  const fs::path aside = asidePath(file);
  if (::rename(file.c_str(), aside.c_str()) != 0) {
    TQLog("user defaults: %s is damaged (%s) and could not be moved aside: %s", file.c_str(),
          contents.problem.c_str(), std::strerror(errno));
    return false;
  }
  TQLog("user defaults: %s is damaged (%s); moved to %s", file.c_str(), contents.problem.c_str(),
        aside.c_str());
  return true;
}

// Temporary files left by a writer that was killed; only called with the lock held, when
// no other writer can be using one.
void removeStaleTemporaries(const fs::path& file) {
  const std::string prefix = file.filename().string() + ".tmp.";
  std::error_code error;
  for (const auto& entry :
       fs::directory_iterator(file.parent_path().empty() ? "." : file.parent_path(), error)) {
    if (entry.path().filename().string().starts_with(prefix)) fs::remove(entry.path(), error);
  }
}

bool writeAll(int fd, const std::string& text) {
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

// Replaces `file` with `text`: a uniquely named temporary file, synced, renamed over it,
// and the directory synced so the rename itself survives a crash.
bool replaceFile(const fs::path& file, const std::string& text) {
  std::string temporary = file.string() + ".tmp.XXXXXX";
  const int fd = ::mkostemp(temporary.data(), O_CLOEXEC);
  if (fd < 0) {
    TQLog("user defaults: cannot create %s: %s", temporary.c_str(), std::strerror(errno));
    return false;
  }
  const bool written = writeAll(fd, text) && ::fsync(fd) == 0;
  const int writeError = errno;
  if (::close(fd) != 0 || !written) {
    TQLog("user defaults: cannot write %s: %s", temporary.c_str(),
          std::strerror(written ? errno : writeError));
    ::unlink(temporary.c_str());
    return false;
  }
  if (::rename(temporary.c_str(), file.c_str()) != 0) {
    TQLog("user defaults: cannot replace %s: %s", file.c_str(), std::strerror(errno));
    ::unlink(temporary.c_str());
    return false;
  }
  const fs::path directory = file.parent_path().empty() ? "." : file.parent_path();
  if (const int dir = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); dir >= 0) {
    if (::fsync(dir) != 0)
      TQLog("user defaults: cannot sync %s: %s", directory.c_str(), std::strerror(errno));
    ::close(dir);
  }
  return true;
}

}  // namespace

UserDefaults::UserDefaults(fs::path file) : path_(std::move(file)) {
  load();
}

UserDefaults::~UserDefaults() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  if (saverRunsHere()) {
    wakeSaver();
    ::pthread_join(saver_, nullptr);
  }
  std::lock_guard lock(mutex_);
  if (!changed_.empty()) save();
  if (wakeFd_ >= 0) ::close(wakeFd_);
}

std::string UserDefaults::applicationName() {
  if (nameOverride()) return *nameOverride();
  return program_invocation_short_name;
}

void UserDefaults::setApplicationName(std::optional<std::string> name) {
  nameOverride() = std::move(name);
}

fs::path UserDefaults::standardPath() {
  const std::string file = applicationName() + ".json";
  if (const char* config = std::getenv("XDG_CONFIG_HOME"); config && *config) {
    return fs::path(config) / "tqble" / file;
  }
  const char* home = std::getenv("HOME");
  return fs::path(home && *home ? home : ".") / ".config" / "tqble" / file;
}

UserDefaults& UserDefaults::standardUserDefaults() {
  static UserDefaults shared(pathOverride().value_or(standardPath()));
  return shared;
}

void UserDefaults::setStandardUserDefaultsPath(std::optional<fs::path> file) {
  pathOverride() = std::move(file);
  UserDefaults& shared = standardUserDefaults();
  std::lock_guard lock(shared.mutex_);
  if (!shared.changed_.empty()) shared.save();  // what was set belongs to the old file
  shared.path_ = pathOverride().value_or(standardPath());
  shared.load();
}

void UserDefaults::load() {
  values_.clear();
  changed_.clear();
  std::error_code error;
  if (!fs::exists(path_, error) && error != std::errc::permission_denied) return;
  const FileLock lock(path_);
  if (lock.held()) removeStaleTemporaries(path_);
  Contents contents = readFile(path_);
  if (usable(path_, contents)) values_ = std::move(contents.values);  // else start empty
}

bool UserDefaults::save() {
  if (changed_.empty()) {  // nothing to write; take up what other processes saved
    Contents current = readFile(path_);
    if (current.state == Contents::good) values_ = std::move(current.values);
    return true;
  }
  std::error_code error;
  if (path_.has_parent_path()) fs::create_directories(path_.parent_path(), error);
  const FileLock lock(path_);
  if (!lock.held()) {
    TQLog("user defaults: %s", lock.problem().c_str());
    return false;
  }
  removeStaleTemporaries(path_);
  // Another process may have saved since: only the keys changed here replace its values.
  Contents current = readFile(path_);
  if (!usable(path_, current)) return false;  // never overwrite a file that could not be read
  std::map<std::string, Value> merged = std::move(current.values);
  for (const auto& key : changed_) {
    if (const auto it = values_.find(key); it != values_.end()) {
      merged[key] = it->second;
    } else {
      merged.erase(key);
    }
  }
  json root = json::object();
  for (const auto& [key, value] : merged) root[key] = toJson(value);
  // Texts that are not valid UTF-8 are written with replacement characters rather than
  // failing the whole write.
  if (!replaceFile(path_, root.dump(2, ' ', false, json::error_handler_t::replace) + "\n"))
    return false;
  values_ = std::move(merged);
  changed_.clear();
  return true;
}

void UserDefaults::saveWhenDue() {
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    int timeout = -1;  // milliseconds; -1 waits for a wake-up
    if (due_) {
      const auto left =
          std::chrono::ceil<std::chrono::milliseconds>(*due_ - std::chrono::steady_clock::now());
      if (left.count() <= 0) {
        due_.reset();
        save();
        continue;
      }
      timeout = static_cast<int>(left.count());
    }
    pollfd wake = {wakeFd_, POLLIN, 0};
    lock.unlock();
    ::poll(&wake, 1, timeout);
    std::uint64_t count = 0;
    if (::read(wake.fd, &count, sizeof count) < 0) count = 0;  // nothing to drain
    lock.lock();
  }
}

bool UserDefaults::saverRunsHere() {
  // A child forked while the saver ran has its handle but not the thread, and shares the
  // parent's eventfd: it forgets both and starts afresh.
  if (saverProcess_ != 0 && saverProcess_ != ::getpid()) {
    saverProcess_ = 0;
    ::close(wakeFd_);
    wakeFd_ = -1;
  }
  return saverProcess_ != 0;
}

void UserDefaults::wakeSaver() {
  const std::uint64_t one = 1;
  if (::write(wakeFd_, &one, sizeof one) < 0) return;  // already due to wake
}

Value UserDefaults::objectForKey(const std::string& key) const {
  std::lock_guard lock(mutex_);
  const auto it = values_.find(key);
  return it == values_.end() ? Value{} : it->second;
}

void UserDefaults::setObject(const Value& value, const std::string& key) {
  std::lock_guard lock(mutex_);
  if (std::holds_alternative<std::monostate>(value)) {
    values_.erase(key);
  } else {
    values_[key] = value;
  }
  changed_.insert(key);
  if (due_) return;  // a save is already on its way
  due_ = std::chrono::steady_clock::now() + kSaveDelay;
  if (saverRunsHere()) {
    wakeSaver();  // it may be waiting with nothing due
    return;
  }
  if (wakeFd_ < 0) wakeFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  const auto run = [](void* self) -> void* {
    static_cast<UserDefaults*>(self)->saveWhenDue();
    return nullptr;
  };
  if (const int error = wakeFd_ < 0 ? errno : ::pthread_create(&saver_, nullptr, run, this)) {
    TQLog("user defaults: cannot start saving on a timer: %s", std::strerror(error));
  } else {
    saverProcess_ = ::getpid();
  }
}

void UserDefaults::removeObjectForKey(const std::string& key) {
  setObject(std::monostate{}, key);
}

bool UserDefaults::synchronize() {
  std::lock_guard lock(mutex_);
  due_.reset();
  return save();
}

fs::path UserDefaults::path() const {
  std::lock_guard lock(mutex_);
  return path_;
}

}  // namespace tqble
