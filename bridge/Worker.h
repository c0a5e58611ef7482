#pragma once

// One post's worker process: a client on the post's link and a connection to the broker.
// It reads the post on its schedule, publishes what it reads, carries commands to the
// post and says through its availability (and its last will) whether the post is there.

#include <string>

#include "Config.h"

namespace tqble::bridge {

/// Serves the post `postId` until SIGTERM or SIGINT; writes a byte to `heartbeatFd` (when
/// not -1) every second while its loop runs. With the "sim" backend the post is the
/// simulator's, with the config's `simulate` faults; SIGUSR1 takes it out of range and
/// SIGUSR2 brings it back. Returns the exit status.
int runWorker(const BridgeConfig& config, const std::string& postId, const std::string& backend,
              int heartbeatFd);

}  // namespace tqble::bridge
