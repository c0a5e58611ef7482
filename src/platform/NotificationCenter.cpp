#include "tqble/platform/NotificationCenter.h"

#include <algorithm>

namespace tqble {

NotificationCenter& NotificationCenter::defaultCenter() {
  static NotificationCenter center;
  return center;
}

NotificationCenter::Token NotificationCenter::addObserver(std::string name, Observer observer) {
  const Token token = next_++;
  entries_.push_back({token, std::move(name), std::move(observer)});
  return token;
}

void NotificationCenter::removeObserver(Token token) {
  std::erase_if(entries_, [token](const Entry& entry) { return entry.token == token; });
}

void NotificationCenter::post(const std::string& name, std::shared_ptr<void> object,
                              Dictionary userInfo) {
  const Notification notification{name, std::move(object), std::move(userInfo)};
  // Observers may add or remove observers while being called: walk a snapshot.
  const auto snapshot = entries_;
  for (const auto& entry : snapshot) {
    if (entry.name.empty() || entry.name == name) entry.observer(notification);
  }
}

}  // namespace tqble
