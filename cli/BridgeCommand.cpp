// `tqble bridge CONFIG`: the posts of a configuration file on an MQTT broker.
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <string>

#include "Subcommands.h"
#include "bridge/Config.h"
#include "bridge/Gateway.h"
#include "bridge/Worker.h"

namespace tqble::cli {

const char kBridgeUsage[] =
    "usage: tqble bridge CONFIG [--backend NAME]\n"
    "       tqble bridge --check CONFIG\n"
    "  Serves the posts of CONFIG (TOML) on an MQTT broker: their values, availability and\n"
    "  commands under <root>/<post id>/, and Home Assistant's discovery. One worker process\n"
    "  per post; a worker that ends or hangs is started again. SIGTERM or Ctrl-C stops it.\n"
    "  --check          reads CONFIG, says what it would serve and exits (1 on a mistake)\n"
    "  --backend NAME   the radio: bluez (the default where built) or sim (one simulated\n"
    "                   post per worker)\n";

namespace {

#ifdef TQBLE_HAVE_BLUEZ
constexpr char kDefaultBackend[] = "bluez";
#else
constexpr char kDefaultBackend[] = "sim";
#endif

std::string executable() {
  char path[PATH_MAX];
  const ssize_t n = ::readlink("/proc/self/exe", path, sizeof path - 1);
  if (n <= 0) throw std::runtime_error("cannot find this program's path");
  return std::string(path, static_cast<std::size_t>(n));
}

}  // namespace

int runBridge(const std::vector<std::string>& args) {
  std::string config, worker, backend = kDefaultBackend;
  bool check = false;
  int heartbeat = -1;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    const bool valued = arg == "--backend" || arg == "--worker" || arg == "--heartbeat-fd";
    if (valued && i + 1 == args.size()) {
      std::fprintf(stderr, "tqble bridge: %s needs a value (see 'tqble help bridge')\n", arg.c_str());
      return 2;
    }
    if (arg == "--help") {
      std::fputs(kBridgeUsage, stdout);
      return 0;
    } else if (arg == "--check") {
      check = true;
    } else if (arg == "--backend") {
      backend = args[++i];
    } else if (arg == "--worker") {
      worker = args[++i];
    } else if (arg == "--heartbeat-fd") {
      heartbeat = std::stoi(args[++i]);
    } else if (arg.starts_with("--") || !config.empty()) {
      std::fprintf(stderr, "tqble bridge: unexpected argument '%s' (see 'tqble help bridge')\n",
                   arg.c_str());
      return 2;
    } else {
      config = arg;
    }
  }
  if (config.empty()) {
    std::fprintf(stderr, "tqble bridge: missing CONFIG (see 'tqble help bridge')\n");
    return 2;
  }
  bridge::BridgeConfig c;
  try {
    c = bridge::loadConfig(config);
  } catch (const bridge::ConfigError& e) {
    std::fprintf(stderr, "tqble bridge: %s\n", e.what());
    return 1;
  }
  if (check) {
    std::printf("%s: gateway %s, broker %s:%d%s%s%s, %zu posts:", config.c_str(),
                c.gateway.c_str(), c.mqtt.host.c_str(), c.mqtt.port,
                c.mqtt.caFile.empty() ? "" : " (TLS)", c.mqtt.username.empty() ? "" : " as ",
                c.mqtt.username.c_str(), c.posts.size());
    for (const auto& p : c.posts) std::printf(" %s/%s (%s)", c.root.c_str(), p.id.c_str(), p.post.c_str());
    std::printf("\n");
    return 0;
  }
  if (!worker.empty()) return bridge::runWorker(c, worker, backend, heartbeat);
  return bridge::runGateway(c, backend, executable());
}

}  // namespace tqble::cli
