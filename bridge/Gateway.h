#pragma once

// The gateway process: one worker process per post, each started again with backoff when
// it exits or stops beating, so that one post's trouble never reaches another's.

#include <string>

#include "Config.h"

namespace tqble::bridge {

/// Runs `self bridge CONFIG --worker ID --backend BACKEND --heartbeat-fd 3` for each post
/// until SIGTERM or SIGINT, then stops the workers. Workers die with the gateway.
/// Returns the exit status.
int runGateway(const BridgeConfig& config, const std::string& backend, const std::string& self);

}  // namespace tqble::bridge
