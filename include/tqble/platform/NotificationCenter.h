#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tqble/platform/Value.h"

namespace tqble {

/// One posted notification: a name, an optional sender and a user-info dictionary.
struct Notification {
  std::string name;
  std::shared_ptr<void> object;  ///< the sender; empty when none
  Dictionary userInfo;
};

/// Delivers named notifications to the observers registered for that name.
class NotificationCenter {
 public:
  using Observer = std::function<void(const Notification&)>;
  using Token = std::uint64_t;

  /// The process-wide centre.
  static NotificationCenter& defaultCenter();

  /// Registers an observer for `name` (an empty name observes every notification).
  Token addObserver(std::string name, Observer observer);
  /// Removes an observer; unknown tokens are ignored.
  void removeObserver(Token token);
  /// Calls, synchronously and in registration order, every observer of `name`.
  void post(const std::string& name, std::shared_ptr<void> object, Dictionary userInfo);

 private:
  struct Entry {
    Token token;
    std::string name;
    Observer observer;
  };
  std::vector<Entry> entries_;
  Token next_ = 1;
};

}  // namespace tqble
