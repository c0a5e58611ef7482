#pragma once

// A client linked to one virtual post on virtual time, with what the client suites read
// back: the link's changes, the codes the post was written, whether an answer reached
// the request it belongs to.

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "support/Commands.h"
#include "tqble/client/ChargerClient.h"
#include "tqble/platform/MainQueue.h"
#include "tqble/sim/SimRadio.h"

namespace tqble::test {

struct ClientSession {
  using Clock = MainQueue::Clock;

  explicit ClientSession(ClientOptions options = {}, sim::PostSetup setup = {}) {
    MainQueue::main().useVirtualClock();
    TQBleManager::useBackend("sim");
    post = sim::SimRadio::shared().addPost(std::move(setup));
    post->model().setClock(1'700'000'000);
    client = std::make_unique<ChargerClient>(options);
    watcher->didConnectPeripheral = [this](auto&, const auto&) { connected = now(); };
    client->setDelegate(watcher);
    client->setLinkObserver([this](const LinkChange& c) {
      links.push_back(text(c));
      linkTimes.push_back(now());
    });
  }

  /// Connects to the first post heard (or the one named).
  Outcome<ChargerClient::PeripheralPtr> connect(const std::string& name = "") {
    return client->wait(client->connect(name));
  }
  /// Connects, then lets the manager's own query after connecting end.
  void connectAndSettle() {
    const auto link = connect();
    ASSERT_TRUE(link.ok()) << link.error().message;
    runFor(std::chrono::seconds(4));
  }
  void runFor(std::chrono::milliseconds span) { client->runUntil([] { return false; }, span); }
  void runUntil(Clock::time_point at) {
    runFor(std::chrono::duration_cast<std::chrono::milliseconds>(at - now()));
  }
  static Clock::time_point now() { return MainQueue::main().now(); }

  ClientEnd ask(const CommandRow& row) { return askRow(*client, row); }
  /// Whether `end` holds, unchanged, an answer the post sent to a request like `row`'s.
  bool delivered(const CommandRow& row, const ClientEnd& end) const {
    const auto& sent = post->sentAnswers();
    return !end.error && end.frame.size() > 1 && end.frame[1] == row.code &&
           std::find(sent.begin(), sent.end(), end.frame) != sent.end();
  }
  bool nothingPending() {
    return client->manager().cmdType() == 0 && client->manager().systemInfoData().empty();
  }
  std::vector<std::uint8_t> codesWritten() const {
    std::vector<std::uint8_t> codes;
    for (const Bytes& write : post->receivedWrites()) codes.push_back(write.at(1));
    return codes;
  }

  /// A link change as "reconnecting 2" or "lost (the link went down)".
  static std::string text(const LinkChange& c) {
    static const char* const names[] = {"connecting", "ready", "lost", "reconnecting", "closed"};
    std::string out = names[static_cast<int>(c.event)];
    if (c.attempt) out += " " + std::to_string(c.attempt);
    if (c.reason) out += " (" + c.reason->message + ")";
    return out;
  }

  std::shared_ptr<sim::VirtualPost> post;
  std::unique_ptr<ChargerClient> client;
  std::shared_ptr<TQBleManagerDelegate> watcher = std::make_shared<TQBleManagerDelegate>();
  Clock::time_point connected;  // of the latest link
  std::vector<std::string> links;
  std::vector<Clock::time_point> linkTimes;
};

}  // namespace tqble::test
