#include "Config.h"

#include <algorithm>
#include <fstream>
#include <set>
#include <toml++/toml.h>

namespace tqble::bridge {
namespace {

// Names that travel in topics: no level separators or wildcards.
bool topicSafe(const std::string& name) {
  return !name.empty() && name.size() <= 64 &&
         std::all_of(name.begin(), name.end(), [](unsigned char c) {
           return std::isalnum(c) || c == '-' || c == '_';
         });
}

// One table of the file: typed reads that name the line, and a check that every key in it
// was expected.
class Table {
 public:
  Table(const std::string& path, const toml::table& table, std::string where)
      : path_(path), table_(table), where_(std::move(where)) {}

  [[noreturn]] void fail(const toml::source_region& at, const std::string& what) const {
    throw ConfigError(path_ + ":" + std::to_string(at.begin.line) + ": " + what);
  }
  [[noreturn]] void fail(const std::string& key, const std::string& what) const {
    const toml::node* node = table_.get(key);
    fail(node ? node->source() : table_.source(), what);
  }

  std::string text(const std::string& key, std::string fallback, bool required = false) {
    seen_.insert(key);
    const toml::node* node = table_.get(key);
    if (!node) {
      if (required) fail(table_.source(), "'" + key + "' is missing " + where_);
      return fallback;
    }
    if (!node->is_string()) fail(node->source(), "'" + key + "' must be a quoted text");
    return node->as_string()->get();
  }

  std::int64_t integer(const std::string& key, std::int64_t fallback, std::int64_t min,
                       std::int64_t max) {
    seen_.insert(key);
    const toml::node* node = table_.get(key);
    if (!node) return fallback;
    if (!node->is_integer()) fail(node->source(), "'" + key + "' must be a whole number");
    const std::int64_t value = node->as_integer()->get();
    if (value < min || value > max)
      fail(node->source(), "'" + key + "' must be between " + std::to_string(min) + " and " +
                               std::to_string(max));
    return value;
  }

  bool flag(const std::string& key, bool fallback) {
    seen_.insert(key);
    const toml::node* node = table_.get(key);
    if (!node) return fallback;
    if (!node->is_boolean()) fail(node->source(), "'" + key + "' must be true or false");
    return node->as_boolean()->get();
  }

  std::vector<std::string> texts(const std::string& key) {
    seen_.insert(key);
    std::vector<std::string> out;
    const toml::node* node = table_.get(key);
    if (!node) return out;
    if (!node->is_array()) fail(node->source(), "'" + key + "' must be a list of texts");
    for (const toml::node& item : *node->as_array()) {
      if (!item.is_string()) fail(item.source(), "'" + key + "' must be a list of texts");
      out.push_back(item.as_string()->get());
    }
    return out;
  }

  /// Marks a key read by other means.
  void expect(const std::string& key) { seen_.insert(key); }

  /// The sub-table `key`, or an empty one.
  const toml::table& table(const std::string& key) {
    seen_.insert(key);
    static const toml::table kEmpty;
    const toml::node* node = table_.get(key);
    if (!node) return kEmpty;
    if (!node->is_table()) fail(node->source(), "'" + key + "' must be a table ([" + key + "])");
    return *node->as_table();
  }

  /// Every key of the table was read: a misspelt one is an error, not a silent default.
  void noOthers() const {
    for (const auto& [key, node] : table_) {
      if (!seen_.contains(std::string(key.str())))
        fail(node.source(), "unknown key '" + std::string(key.str()) + "' " + where_);
    }
  }

 private:
  const std::string& path_;
  const toml::table& table_;
  std::string where_;
  std::set<std::string> seen_;
};

const std::set<std::string> kSimulations = {"mute", "garbage", "fault"};

}  // namespace

const PostSettings& BridgeConfig::post(const std::string& id) const {
  for (const auto& p : posts)
    if (p.id == id) return p;
  throw ConfigError(path + ": no post '" + id + "'");
}

BridgeConfig loadConfig(const std::string& path) {
  toml::table root;
  try {
    root = toml::parse_file(path);
  } catch (const toml::parse_error& e) {
    if (!std::ifstream(path)) throw ConfigError(path + ": cannot be read");
    throw ConfigError(path + ":" + std::to_string(e.source().begin.line) + ": " +
                      std::string(e.description()));
  }
  BridgeConfig c;
  c.path = path;
  Table top(path, root, "at the top level");
  c.gateway = top.text("gateway", "", true);
  if (!topicSafe(c.gateway))
    top.fail("gateway", "'gateway' must be 1-64 letters, digits, '-' or '_'");
  c.root = top.text("root", c.root);
  if (c.root.empty() || c.root.find_first_of("+#") != std::string::npos || c.root.back() == '/')
    top.fail("root", "'root' must be a topic without wildcards or a trailing '/'");

  Table mqtt(path, top.table("mqtt"), "in [mqtt]");
  c.mqtt.host = mqtt.text("host", c.mqtt.host);
  c.mqtt.port = static_cast<int>(mqtt.integer("port", c.mqtt.port, 1, 65535));
  c.mqtt.username = mqtt.text("username", "");
  c.mqtt.password = mqtt.text("password", "");
  if (!c.mqtt.password.empty() && c.mqtt.username.empty())
    mqtt.fail("password", "a 'password' needs a 'username'");
  c.mqtt.caFile = mqtt.text("ca_file", "");
  c.mqtt.certFile = mqtt.text("cert_file", "");
  c.mqtt.keyFile = mqtt.text("key_file", "");
  if (c.mqtt.certFile.empty() != c.mqtt.keyFile.empty())
    mqtt.fail(c.mqtt.certFile.empty() ? "key_file" : "cert_file",
              "'cert_file' and 'key_file' go together");
  if (!c.mqtt.certFile.empty() && c.mqtt.caFile.empty())
    mqtt.fail("cert_file", "a client certificate needs 'ca_file' (TLS)");
  for (const char* key : {"ca_file", "cert_file", "key_file"}) {
    const std::string file = mqtt.text(key, "");
    if (!file.empty() && !std::ifstream(file)) mqtt.fail(key, "cannot read '" + file + "'");
  }
  c.mqtt.keepAlive = static_cast<int>(mqtt.integer("keepalive", c.mqtt.keepAlive, 5, 3600));
  mqtt.noOthers();

  Table ha(path, top.table("homeassistant"), "in [homeassistant]");
  c.homeAssistant = ha.flag("enabled", c.homeAssistant);
  c.discoveryPrefix = ha.text("prefix", c.discoveryPrefix);
  if (!topicSafe(c.discoveryPrefix))
    ha.fail("prefix", "'prefix' must be letters, digits, '-' or '_'");
  ha.noOthers();

  Table poll(path, top.table("poll"), "in [poll]");
  c.poll.state = std::chrono::seconds(poll.integer("state", c.poll.state.count(), 1, 3600));
  c.poll.energy = std::chrono::seconds(poll.integer("energy", c.poll.energy.count(), 1, 86400));
  c.poll.history =
      std::chrono::seconds(poll.integer("history", c.poll.history.count(), 1, 86400));
  poll.noOthers();

  top.expect("post");  // read below
  const toml::node* posts = root.get("post");
  if (!posts || !posts->is_array_of_tables() || posts->as_array()->empty())
    top.fail(posts ? posts->source() : root.source(),
             "needs at least one [[post]] with 'id' and 'name'");
  std::set<std::string> ids;
  for (const toml::node& node : *posts->as_array()) {
    Table entry(path, *node.as_table(), "in [[post]]");
    PostSettings p;
    p.id = entry.text("id", "", true);
    if (!topicSafe(p.id)) entry.fail("id", "'id' must be 1-64 letters, digits, '-' or '_'");
    if (!ids.insert(p.id).second) entry.fail("id", "post id '" + p.id + "' is used twice");
    p.post = entry.text("name", "", true);
    p.simulate = entry.texts("simulate");
    for (const auto& s : p.simulate)
      if (!kSimulations.contains(s))
        entry.fail("simulate", "unknown simulation '" + s + "' (mute, garbage, fault)");
    entry.noOthers();
    c.posts.push_back(std::move(p));
  }
  top.noOthers();
  return c;
}

}  // namespace tqble::bridge
