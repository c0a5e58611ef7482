#include "Discovery.h"

namespace tqble::bridge {
namespace {

struct Sensor {
  const char* value;  // the per-value topic's leaf
  const char* name;
  const char* deviceClass;  // null: none
  const char* stateClass;   // null: none
  const char* unit;         // null: none
};

constexpr Sensor kSensors[] = {
    {"gun_state", "Gun state", "enum", nullptr, nullptr},
    {"fault", "Fault", nullptr, nullptr, nullptr},
    {"voltage_v", "Voltage", "voltage", "measurement", "V"},
    {"current_a", "Current", "current", "measurement", "A"},
    {"power_w", "Power", "power", "measurement", "W"},
    {"session_energy_kwh", "Session energy", "energy", "total_increasing", "kWh"},
    {"session_duration_s", "Session duration", "duration", "measurement", "s"},
    {"energy_total_kwh", "Energy total", "energy", "total_increasing", "kWh"},
};

}  // namespace

std::vector<std::pair<std::string, std::string>> discoveryMessages(const BridgeConfig& config,
                                                                   const PostSettings& post) {
  const PostTopics topic(config, post);
  const std::string node = "tqble_" + post.id;
  const Json device{{"identifiers", Json::array({node})},
                    {"name", post.id},
                    {"manufacturer", "TQBle"},
                    {"model", "charging post " + post.post},
                    {"via_device", "tqble_gateway_" + config.gateway}};
  const auto entity = [&](const char* component, const std::string& object, const std::string& name) {
    return std::pair{config.discoveryPrefix + "/" + component + "/" + node + "/" + object + "/config",
                     Json{{"name", name},
                          {"unique_id", node + "_" + object},
                          {"object_id", node + "_" + object},
                          {"availability_topic", topic("availability")},
                          {"device", device}}};
  };
  std::vector<std::pair<std::string, Json>> entities;
  for (const Sensor& s : kSensors) {
    auto e = entity("sensor", s.value, s.name);
    e.second["state_topic"] = topic(s.value);
    if (s.deviceClass) e.second["device_class"] = s.deviceClass;
    if (s.stateClass) e.second["state_class"] = s.stateClass;
    if (s.unit) e.second["unit_of_measurement"] = s.unit;
    if (std::string(s.value) == "gun_state") {
      Json options = Json::array();
      for (GunState g : gunStates()) options.push_back(name(g));
      e.second["options"] = options;
    }
    entities.push_back(std::move(e));
  }
  auto charging = entity("switch", "charging", "Charging");
  charging.second.update(Json{{"state_topic", topic("enabled")},
                              {"command_topic", topic.command("enable")},
                              {"payload_on", "true"},
                              {"payload_off", "false"},
                              {"state_on", "true"},
                              {"state_off", "false"}});
  entities.push_back(std::move(charging));
  auto sync = entity("button", "sync_time", "Set clock");
  sync.second.update(Json{{"command_topic", topic.command("sync_time")}, {"payload_press", "PRESS"}});
  entities.push_back(std::move(sync));
  auto volume = entity("number", "volume", "Volume");
  volume.second.update(Json{{"state_topic", topic("volume")},
                            {"command_topic", topic.command("volume")},
                            {"min", 0},
                            {"max", 100},
                            {"step", 1}});
  entities.push_back(std::move(volume));

  std::vector<std::pair<std::string, std::string>> messages;
  for (auto& [t, payload] : entities) messages.emplace_back(t, payload.dump());
  return messages;
}

}  // namespace tqble::bridge
