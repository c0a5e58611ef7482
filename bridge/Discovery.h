#pragma once

// Home Assistant's MQTT discovery for one post: a device with its sensors (device class,
// state class and unit), a charging switch, a clock button and a volume number, all
// reading the post's availability.

#include <string>
#include <utility>
#include <vector>

#include "PostValues.h"
#include "Topics.h"

namespace tqble::bridge {

/// The retained configuration messages, as (topic, payload) pairs.
std::vector<std::pair<std::string, std::string>> discoveryMessages(const BridgeConfig& config,
                                                                   const PostSettings& post);

}  // namespace tqble::bridge
