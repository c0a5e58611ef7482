#pragma once

// Real processes for the bridge's tests: Debian's mosquitto on a free loopback port with a
// configuration of its own, a mosquitto_sub that records every message (topic, payload,
// retained flag, user properties), and children to start, signal and read.

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

namespace tqble::test {

using Json = nlohmann::json;
using Clock = std::chrono::steady_clock;

/// A child process, its output read line by line (with its error output when `errFile` is
/// empty); killed when destroyed.
class Child {
 public:
  explicit Child(const std::vector<std::string>& argv, const std::string& errFile = "/dev/null") {
    int fds[2];
    if (::pipe(fds) != 0) throw std::runtime_error("pipe");
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(fds[1], 1);
      ::dup2(errFile.empty() ? fds[1] : ::open(errFile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600), 2);
      std::vector<char*> args;
      for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
      args.push_back(nullptr);
      ::execvp(args[0], args.data());
      ::_exit(127);
    }
    ::close(fds[1]);
    out_ = fds[0];
  }
  ~Child() {
    signal(SIGKILL);
    wait();
    ::close(out_);
  }
  pid_t pid() const { return pid_; }
  void signal(int number) {
    if (pid_ > 0) ::kill(pid_, number);
  }
  /// Waits for the exit; returns the status word.
  int wait() {
    int status = 0;
    if (pid_ > 0) ::waitpid(pid_, &status, 0);
    pid_ = -1;
    return status;
  }
  /// The next line of output, or false at end of output or `deadline`.
  bool line(std::string& text, Clock::time_point deadline) {
    for (;;) {
      if (const auto end = buffer_.find('\n'); end != std::string::npos) {
        text = buffer_.substr(0, end);
        buffer_.erase(0, end + 1);
        return true;
      }
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
      pollfd fd{out_, POLLIN, 0};
      if (left.count() <= 0 || ::poll(&fd, 1, static_cast<int>(left.count())) <= 0) return false;
      char chunk[4096];
      const auto n = ::read(out_, chunk, sizeof chunk);
      if (n <= 0) return false;
      buffer_.append(chunk, static_cast<std::size_t>(n));
    }
  }

 private:
  pid_t pid_ = -1;
  int out_ = -1;
  std::string buffer_;
};

/// mosquitto on 127.0.0.1, ready once constructed; `extra` lines go into its configuration.
class Broker {
 public:
  explicit Broker(const std::string& extra = "allow_anonymous true\n") : extra_(extra) {
    for (int attempt = 0; attempt < 5 && !process_; ++attempt) {
      port = freePort();
      if (!start()) process_.reset();  // the port was taken meanwhile
    }
    if (!process_) throw std::runtime_error("mosquitto did not start");
  }
  /// Stops and starts it again on the same port (it keeps no retained message).
  void restart() {
    stop();
    if (!start()) throw std::runtime_error("mosquitto did not start again");
  }
  void stop() { process_.reset(); }
  int port = 0;

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
  bool start() {
    const std::string conf = ::testing::TempDir() + "mosquitto_" + std::to_string(::getpid()) + ".conf";
    std::ofstream(conf) << "listener " << port << " 127.0.0.1\nlog_dest stderr\npersistence false\n"
                        << extra_;
    process_ = std::make_unique<Child>(std::vector<std::string>{"mosquitto", "-c", conf}, "");
    std::string text;
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    while (process_->line(text, deadline))
      if (text.find(" running") != std::string::npos) return true;
    return false;
  }
  std::string extra_;
  std::unique_ptr<Child> process_;
};

/// Every message on the broker, as mosquitto_sub sees it.
class Subscriber {
 public:
  explicit Subscriber(int port, const std::string& filter = "#", std::vector<std::string> login = {})
      : port_(port), login_(login) {
    std::vector<std::string> argv{"mosquitto_sub", "-p", std::to_string(port), "-V", "5", "-F", "%j",
                                  "-t", filter, "-t", "barrier/#"};
    argv.insert(argv.end(), login.begin(), login.end());
    process_ = std::make_unique<Child>(argv);
    barrier();
  }
  /// Returns once every message published before the call has been seen.
  void barrier() {
    const std::string topic = "barrier/" + std::to_string(++barriers_);
    publish(port_, topic, "b", true, login_);  // retained: seen even if the subscription is not yet on
    if (!waitFor([&](const Json& m) { return m["topic"] == topic; }, std::chrono::seconds(10)))
      throw std::runtime_error("mosquitto_sub did not subscribe");
  }
  /// The first message since `from` (an index into messages) that `match` accepts, read as it
  /// arrives; null when none within `limit`.
  std::optional<Json> waitFor(const std::function<bool(const Json&)>& match,
                             std::chrono::milliseconds limit, std::size_t from = 0) {
    const auto deadline = Clock::now() + limit;
    for (std::size_t i = from;; ++i) {
      std::string text;
      while (i >= messages.size()) {
        if (!process_->line(text, deadline)) return std::nullopt;
        messages.push_back(Json::parse(text));
      }
      if (match(messages[i])) return messages[i];
    }
  }
  /// The first message on `topic` since `from`.
  std::optional<Json> waitOn(const std::string& topic, std::chrono::milliseconds limit, std::size_t from = 0,
                     const std::string& payload = "") {
    return waitFor(
        [&](const Json& m) { return m["topic"] == topic && (payload.empty() || m["payload"] == payload); },
        limit, from);
  }
  /// The latest payload on `topic` seen so far; empty when none.
  std::string latest(const std::string& topic) const {
    for (auto m = messages.rbegin(); m != messages.rend(); ++m)
      if ((*m)["topic"] == topic) return (*m)["payload"];
    return "";
  }
  static void publish(int port, const std::string& topic, const std::string& payload,
                      bool retain = false, const std::vector<std::string>& login = {}) {
    std::string command = "mosquitto_pub -V 5 -q 1 -p " + std::to_string(port) +
                                (retain ? " -r" : "") + " -t '" + topic +
                                "' -m '" + payload + "'";
    for (const auto& word : login) command += " " + word;
    if (std::system(command.c_str()) != 0) throw std::runtime_error("mosquitto_pub failed: " + command);
  }
  std::vector<Json> messages;

 private:
  int port_;
  std::vector<std::string> login_;
  unsigned barriers_ = 0;
  std::unique_ptr<Child> process_;
};

}  // namespace tqble::test
