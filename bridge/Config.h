#pragma once

// The gateway's configuration: a TOML file people edit by hand. Every mistake is
// reported with the file and line it is on.

#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

namespace tqble::bridge {

/// A mistake in the configuration, as "FILE:LINE: what is wrong".
struct ConfigError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// How the gateway reaches the broker.
struct MqttSettings {
  std::string host = "localhost";
  int port = 1883;
  std::string username;  ///< empty: anonymous
  std::string password;  ///< never logged
  std::string caFile;    ///< set: TLS, checking the broker against this CA
  std::string certFile;  ///< client certificate (with keyFile)
  std::string keyFile;
  int keepAlive = 30;  ///< seconds; the broker publishes the last will after 1.5 of them
};

/// How often each kind of value is read.
struct PollSettings {
  std::chrono::seconds state{5};     ///< gun state, voltage, current, session
  std::chrono::seconds energy{60};   ///< lifetime energy
  std::chrono::seconds history{300}; ///< sessions and error log
};

/// One post the gateway serves.
struct PostSettings {
  std::string id;    ///< topic name, unique across every gateway on the broker
  std::string post;  ///< advertised name or identifier (address)
  /// Misbehaviour of the simulated post (--backend sim only): "mute", "garbage", "fault".
  std::vector<std::string> simulate;
};

/// The whole file.
struct BridgeConfig {
  std::string path;  ///< where it was read from
  std::string gateway;         ///< this gateway's id, in every message
  std::string root = "tqble";  ///< first topic level
  MqttSettings mqtt;
  bool homeAssistant = true;
  std::string discoveryPrefix = "homeassistant";
  PollSettings poll;
  std::vector<PostSettings> posts;

  /// The post with this id.  @throws ConfigError when there is none.
  const PostSettings& post(const std::string& id) const;
};

/// Reads and checks a configuration file.  @throws ConfigError naming the line at fault.
BridgeConfig loadConfig(const std::string& path);

}  // namespace tqble::bridge
