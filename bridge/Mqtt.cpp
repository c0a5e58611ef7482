#include "Mqtt.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <chrono>
#include <cstring>
#include <stdexcept>

#include "Log.h"

namespace tqble::bridge {

struct MqttCallbacks {
  static void connected(mosquitto*, void* obj, int rc, int, const mosquitto_property*) {
    auto& self = *static_cast<Mqtt*>(obj);
    if (rc != 0) {
      log("broker %s refused the connection: %s", self.endpoint_.c_str(),
          mosquitto_reason_string(rc));
      return;
    }
    std::vector<std::string> subscriptions;
    {
      std::lock_guard lock(self.mutex_);
      self.up_ = true;
      subscriptions = self.subscriptions_;
    }
    log("connected to broker %s", self.endpoint_.c_str());
    for (const auto& pattern : subscriptions)
      mosquitto_subscribe_v5(self.mosq_, nullptr, pattern.c_str(), 1, 0, nullptr);
    self.republish();
    if (self.connected_) self.connected_();
  }

  static void disconnected(mosquitto*, void* obj, int rc, const mosquitto_property*) {
    auto& self = *static_cast<Mqtt*>(obj);
    {
      std::lock_guard lock(self.mutex_);
      if (!self.up_) return;
      self.up_ = false;
    }
    if (rc != 0) log("lost broker %s; reconnecting", self.endpoint_.c_str());
  }

  static void published(mosquitto*, void* obj, int, int, const mosquitto_property*) {
    auto& self = *static_cast<Mqtt*>(obj);
    std::lock_guard lock(self.mutex_);
    if (self.unacknowledged_ > 0) --self.unacknowledged_;
    self.sent_.notify_all();
  }

  static void message(mosquitto*, void* obj, const mosquitto_message* m,
                      const mosquitto_property*) {
    auto& self = *static_cast<Mqtt*>(obj);
    self.receiver_(m->topic, std::string(static_cast<const char*>(m->payload),
                                         static_cast<std::size_t>(m->payloadlen)));
  }
};

namespace {

struct Library {
  Library() { mosquitto_lib_init(); }
  ~Library() { mosquitto_lib_cleanup(); }
};

// The "gateway" user property; the caller owns the list.
mosquitto_property* gatewayProperty(const std::string& gateway) {
  mosquitto_property* props = nullptr;
  mosquitto_property_add_string_pair(&props, MQTT_PROP_USER_PROPERTY, "gateway", gateway.c_str());
  return props;
}

void check(int rc, const char* what) {
  if (rc != MOSQ_ERR_SUCCESS)
    throw std::runtime_error(std::string(what) + ": " +
                             (rc == MOSQ_ERR_ERRNO ? std::strerror(errno) : mosquitto_strerror(rc)));
}

}  // namespace

Mqtt::Mqtt(const MqttSettings& s, const std::string& clientId, const std::string& gateway,
           const std::string& willTopic, const std::string& willPayload, Receiver receiver,
           Connected connected)
    : gateway_(gateway),
      endpoint_(s.host + ":" + std::to_string(s.port)),
      receiver_(std::move(receiver)),
      connected_(std::move(connected)) {
  static Library library;
  mosq_ = mosquitto_new(clientId.c_str(), true, this);
  if (!mosq_) throw std::runtime_error("cannot make an MQTT client");
  mosquitto_int_option(mosq_, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
  mosquitto_connect_v5_callback_set(mosq_, MqttCallbacks::connected);
  mosquitto_disconnect_v5_callback_set(mosq_, MqttCallbacks::disconnected);
  mosquitto_publish_v5_callback_set(mosq_, MqttCallbacks::published);
  mosquitto_message_v5_callback_set(mosq_, MqttCallbacks::message);
  check(mosquitto_will_set_v5(mosq_, willTopic.c_str(), static_cast<int>(willPayload.size()),
                              willPayload.data(), 1, true, gatewayProperty(gateway)),
        "last will");
  if (!s.username.empty())
    check(mosquitto_username_pw_set(mosq_, s.username.c_str(),
                                    s.password.empty() ? nullptr : s.password.c_str()),
          "credentials");
  if (!s.caFile.empty())
    check(mosquitto_tls_set(mosq_, s.caFile.c_str(), nullptr,
                            s.certFile.empty() ? nullptr : s.certFile.c_str(),
                            s.keyFile.empty() ? nullptr : s.keyFile.c_str(), nullptr),
          "TLS settings");
  // Retries back off to 4 s at most: a broker that comes back is reached, and everything
  // retained published again, well within 10 s.
  mosquitto_reconnect_delay_set(mosq_, 1, 4, true);
  log("connecting to broker %s%s%s%s", endpoint_.c_str(), s.caFile.empty() ? "" : " over TLS",
      s.username.empty() ? "" : " as ", s.username.c_str());
  // While the broker is absent the network thread keeps trying, with backoff. It starts
  // first: started after a refused first attempt, it would wait for that attempt forever.
  check(mosquitto_loop_start(mosq_), "network thread");
  const int rc = mosquitto_connect_async(mosq_, s.host.c_str(), s.port, s.keepAlive);
  if (rc != MOSQ_ERR_SUCCESS && rc != MOSQ_ERR_ERRNO) check(rc, "broker address");
}

Mqtt::~Mqtt() {
  mosquitto_disconnect_v5(mosq_, 0, nullptr);
  mosquitto_loop_stop(mosq_, false);
  mosquitto_destroy(mosq_);
}

void Mqtt::subscribe(const std::string& pattern) {
  bool up;
  {
    std::lock_guard lock(mutex_);
    subscriptions_.push_back(pattern);
    up = up_;
  }
  if (up) mosquitto_subscribe_v5(mosq_, nullptr, pattern.c_str(), 1, 0, nullptr);
}

void Mqtt::publish(const std::string& topic, const std::string& payload, bool retain,
                   bool evenIfUnchanged) {
  if (retain) {
    std::lock_guard lock(mutex_);
    auto [kept, fresh] = retained_.try_emplace(topic, payload);
    if (!fresh && kept->second == payload && up_ && !evenIfUnchanged) return;  // the broker holds it already
    kept->second = payload;
  }
  send(topic, payload, retain);
}

void Mqtt::republish() {
  std::map<std::string, std::string> retained;
  {
    std::lock_guard lock(mutex_);
    retained = retained_;
  }
  for (const auto& [topic, payload] : retained) send(topic, payload, true);
}

bool Mqtt::connected() const {
  std::lock_guard lock(mutex_);
  return up_;
}

void Mqtt::flush() {
  std::unique_lock lock(mutex_);
  sent_.wait_for(lock, std::chrono::seconds(2), [this] { return !up_ || unacknowledged_ == 0; });
}

void Mqtt::send(const std::string& topic, const std::string& payload, bool retain) {
  mosquitto_property* props = gatewayProperty(gateway_);
  {
    std::lock_guard lock(mutex_);
    if (!up_) {
      mosquitto_property_free_all(&props);
      return;  // a retained message goes out with the next connection
    }
    ++unacknowledged_;
  }
  const int rc = mosquitto_publish_v5(mosq_, nullptr, topic.c_str(),
                                      static_cast<int>(payload.size()), payload.data(), 1, retain,
                                      props);
  mosquitto_property_free_all(&props);
  if (rc != MOSQ_ERR_SUCCESS) {
    std::lock_guard lock(mutex_);
    --unacknowledged_;
  }
}

}  // namespace tqble::bridge
