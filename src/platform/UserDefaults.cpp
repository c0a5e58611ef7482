#include "tqble/platform/UserDefaults.h"

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <system_error>

#include "tqble/ZDataCoverTool.h"
#include "tqble/platform/Log.h"

namespace tqble {
namespace {

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
          return json{{kBytesTag, ZDataCoverTool::coverFromDataToHexStr(v)}};
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
        const auto& hex = j[kBytesTag].get_ref<const std::string&>();
        if (hex.size() % 2 || hex.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
          throw std::invalid_argument("bad byte text");
        }
        return ZDataCoverTool::hexToBytes(hex);
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

}  // namespace

UserDefaults::UserDefaults(fs::path file) : path_(std::move(file)) { load(); }

fs::path UserDefaults::standardPath() {
  if (const char* config = std::getenv("XDG_CONFIG_HOME"); config && *config) {
    return fs::path(config) / "tqble" / "defaults.json";
  }
  const char* home = std::getenv("HOME");
  return fs::path(home && *home ? home : ".") / ".config" / "tqble" / "defaults.json";
}

UserDefaults& UserDefaults::standardUserDefaults() {
  static UserDefaults shared(pathOverride().value_or(standardPath()));
  return shared;
}

void UserDefaults::setStandardUserDefaultsPath(std::optional<fs::path> file) {
  pathOverride() = std::move(file);
  UserDefaults& shared = standardUserDefaults();
  std::lock_guard lock(shared.mutex_);
  shared.path_ = pathOverride().value_or(standardPath());
  shared.load();
}

void UserDefaults::load() {
  values_.clear();
  std::error_code error;
  if (!fs::exists(path_, error)) return;
  std::string problem;
  try {
    std::ifstream in(path_, std::ios::binary);
    if (!in) {
      TQLog("user defaults: cannot read %s", path_.c_str());
      return;
    }
    const json root = json::parse(in);
    if (!root.is_object()) throw std::invalid_argument("the top level is not an object");
    std::map<std::string, Value> values;
    for (const auto& [key, value] : root.items()) values[key] = fromJson(value);
    values_ = std::move(values);
    return;
  } catch (const std::exception& e) {
    problem = e.what();
  }
  // Keep the damaged file for inspection and start empty.
  const fs::path aside = asidePath(path_);
  fs::rename(path_, aside, error);
  if (error) {
    TQLog("user defaults: %s is damaged (%s) and could not be moved aside: %s", path_.c_str(),
          problem.c_str(), error.message().c_str());
  } else {
    TQLog("user defaults: %s is damaged (%s); moved to %s", path_.c_str(), problem.c_str(),
          aside.c_str());
  }
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
}

void UserDefaults::removeObjectForKey(const std::string& key) {
  setObject(std::monostate{}, key);
}

bool UserDefaults::synchronize() {
  std::lock_guard lock(mutex_);
  json root = json::object();
  for (const auto& [key, value] : values_) root[key] = toJson(value);
  // Texts that are not valid UTF-8 are written with replacement characters rather than
  // failing the whole write.
  const std::string text = root.dump(2, ' ', false, json::error_handler_t::replace) + "\n";

  std::error_code error;
  if (path_.has_parent_path()) fs::create_directories(path_.parent_path(), error);
  fs::path temporary = path_;
  temporary += ".tmp." + std::to_string(::getpid());
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    out << text;
    out.flush();
    if (!out) {
      TQLog("user defaults: cannot write %s", temporary.c_str());
      fs::remove(temporary, error);
      return false;
    }
  }
  fs::rename(temporary, path_, error);
  if (error) {
    TQLog("user defaults: cannot replace %s: %s", path_.c_str(), error.message().c_str());
    fs::remove(temporary, error);
    return false;
  }
  return true;
}

fs::path UserDefaults::path() const {
  std::lock_guard lock(mutex_);
  return path_;
}

}  // namespace tqble
