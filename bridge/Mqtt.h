#pragma once

// A connection to the broker through libmosquitto (MQTT 5): its own network thread that
// reconnects with backoff, a last will, and every retained message kept so that a
// reconnection (a restarted broker has forgotten them) publishes them again. Every
// message carries the user property "gateway".

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "Config.h"

struct mosquitto;

namespace tqble::bridge {

/// The broker connection of one process.
class Mqtt {
 public:
  /// Runs on the network thread for each message of a subscribed topic.
  using Receiver = std::function<void(const std::string& topic, const std::string& payload)>;
  /// Runs on the network thread after each (re)connection, once the retained messages are
  /// out again.
  using Connected = std::function<void()>;

  /// Sets up the client `clientId` with its last will (retained) and starts connecting in
  /// the background; it keeps retrying while the broker is absent.
  /// @throws std::runtime_error when libmosquitto refuses the settings (TLS files).
  Mqtt(const MqttSettings& settings, const std::string& clientId, const std::string& gateway,
       const std::string& willTopic, const std::string& willPayload, Receiver receiver,
       Connected connected);
  /// Disconnects cleanly (no last will) and stops the network thread.
  ~Mqtt();
  Mqtt(const Mqtt&) = delete;
  Mqtt& operator=(const Mqtt&) = delete;

  /// Subscribes now and after every reconnection.
  void subscribe(const std::string& pattern);
  /// Publishes at QoS 1; a retained message is kept and published again after a
  /// reconnection, and not sent again while it is unchanged unless `evenIfUnchanged`.
  /// Safe from any thread.
  void publish(const std::string& topic, const std::string& payload, bool retain,
               bool evenIfUnchanged = false);
  /// Publishes every kept retained message again.
  void republish();
  /// Whether the broker session is up.
  bool connected() const;
  /// Waits until every message handed over so far has left the client (bounded).
  void flush();

 private:
  friend struct MqttCallbacks;
  void send(const std::string& topic, const std::string& payload, bool retain);

  mosquitto* mosq_ = nullptr;
  std::string gateway_;
  std::string endpoint_;  // host:port, for the log
  Receiver receiver_;
  Connected connected_;
  mutable std::mutex mutex_;
  std::map<std::string, std::string> retained_;
  std::vector<std::string> subscriptions_;
  bool up_ = false;
  std::condition_variable sent_;
  int unacknowledged_ = 0;  // QoS 1 messages not yet acknowledged by the broker
};

}  // namespace tqble::bridge
