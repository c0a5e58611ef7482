#pragma once

// Debian's mosquitto on a free loopback port with a configuration of its own, and a
// mosquitto_sub beside it that records every message (topic, payload, retained flag, user
// properties) as JSON.

#include <netinet/in.h>
#include <sys/socket.h>

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "support/Processes.h"

namespace tqble::test {

using Json = nlohmann::json;

class Broker {
 public:
  /// Running once constructed; `extra` lines go into its configuration, `login` into every
  /// client's command line.
  explicit Broker(std::string extra = "allow_anonymous true\n", std::vector<std::string> login = {})
      : extra_(std::move(extra)), login_(std::move(login)) {
    for (int attempt = 0; attempt < 5 && !start(); ++attempt) port = 0;  // taken meanwhile: another one
    if (!broker_) throw std::runtime_error("mosquitto did not start");
  }
  /// Stops mosquitto and the recording.
  void stop() { subscriber_.reset(), broker_.reset(); }
  /// Starts both afresh on the same port: no retained message, none recorded.
  void restart() {
    stop();
    if (!start()) throw std::runtime_error("mosquitto did not start again");
  }
  void publish(const std::string& topic, const std::string& payload, bool retain = false) const {
    std::string command = "mosquitto_pub -V 5 -q 1 -p " + std::to_string(port) + (retain ? " -r" : "") + " -t '" +
                          topic + "' -m '" + payload + "'";
    for (const auto& word : login_) command += " " + word;
    if (std::system(command.c_str()) != 0) throw std::runtime_error("mosquitto_pub failed: " + command);
  }
  /// Returns once every message published before the call has been recorded.
  void barrier() {
    const std::string topic = "barrier/" + std::to_string(++barriers_);
    publish(topic, "b", true);  // retained: seen even if the subscription is not yet on
    if (!waitOn(topic, std::chrono::seconds(10))) throw std::runtime_error("mosquitto_sub did not subscribe");
  }
  /// The first message since `from` (an index into messages) that `match` accepts, read as it
  /// arrives; null when none within `limit`.
  std::optional<Json> waitFor(const std::function<bool(const Json&)>& match, std::chrono::milliseconds limit,
                              std::size_t from = 0) {
    const auto deadline = Clock::now() + limit;
    for (std::size_t i = from;; ++i) {
      for (std::string text; i >= messages.size(); messages.push_back(Json::parse(text)))
        if (!subscriber_->line(text, deadline)) return std::nullopt;
      if (match(messages[i])) return messages[i];
    }
  }
  /// The first message on `topic` since `from`, with `payload` unless it is empty.
  std::optional<Json> waitOn(const std::string& topic, std::chrono::milliseconds limit, std::size_t from = 0,
                             const std::string& payload = "") {
    return waitFor([&](const Json& m) { return m["topic"] == topic && (payload.empty() || m["payload"] == payload); },
                   limit, from);
  }
  /// The latest payload on `topic` recorded so far; empty when none.
  std::string latest(const std::string& topic) const {
    for (auto m = messages.rbegin(); m != messages.rend(); ++m)
      if ((*m)["topic"] == topic) return (*m)["payload"];
    return "";
  }

  int port = 0;
  std::vector<Json> messages;

 private:
  static int freePort() {
    const int s = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof a;
    ::bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a);
    ::getsockname(s, reinterpret_cast<sockaddr*>(&a), &size);
    ::close(s);
    return ntohs(a.sin_port);
  }
  /// Starts mosquitto (on a free port while `port` is 0), then the recording.
  bool start() {
    if (!port) port = freePort();
    const std::string conf = ::testing::TempDir() + "mosquitto_" + std::to_string(::getpid()) + ".conf";
    std::ofstream(conf) << "listener " << port << " 127.0.0.1\nlog_dest stderr\npersistence false\n" << extra_;
    broker_ = std::make_unique<Child>(std::vector<std::string>{"mosquitto", "-c", conf}, "");
    std::string text;
    for (const auto deadline = Clock::now() + std::chrono::seconds(10); text.find(" running") == std::string::npos;)
      if (!broker_->line(text, deadline)) return broker_.reset(), false;
    std::vector<std::string> argv{"mosquitto_sub", "-p", std::to_string(port), "-V", "5", "-F", "%j", "-t", "#"};
    argv.insert(argv.end(), login_.begin(), login_.end());
    subscriber_ = std::make_unique<Child>(argv);
    messages.clear();
    barrier();
    return true;
  }

  std::string extra_;
  std::vector<std::string> login_;
  unsigned barriers_ = 0;
  std::unique_ptr<Child> broker_, subscriber_;
};

}  // namespace tqble::test
