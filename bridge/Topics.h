#pragma once

// Where a post's messages go: every topic of a post is <root>/<post id>/<leaf>.

#include <string>
#include <string_view>

#include "Config.h"

namespace tqble::bridge {

/// The topics of one post.
struct PostTopics {
  std::string base;  ///< <root>/<post id>

  PostTopics(const BridgeConfig& config, const PostSettings& post)
      : base(config.root + "/" + post.id) {}
  /// <base>/<leaf>: "state", "availability", "energy_total_kwh"...
  std::string operator()(std::string_view leaf) const { return base + "/" + std::string(leaf); }
  /// <base>/<command>/set
  std::string command(std::string_view name) const { return (*this)(name) + "/set"; }
  /// The command name of a <base>/<command>/set topic; empty for any other topic.
  std::string commandOf(const std::string& topic) const {
    const std::string prefix = base + "/", suffix = "/set";
    if (!topic.starts_with(prefix) || !topic.ends_with(suffix) ||
        topic.size() <= prefix.size() + suffix.size())
      return {};
    return topic.substr(prefix.size(), topic.size() - prefix.size() - suffix.size());
  }
};

}  // namespace tqble::bridge
