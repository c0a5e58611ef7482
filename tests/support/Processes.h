#pragma once

// Real processes for the tests: a shell command's exit status and outputs, and a child to
// start, signal and read line by line.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace tqble::test {

using Clock = std::chrono::steady_clock;

inline std::string slurp(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

struct Outcome {
  int status;  ///< the exit status; -1 when killed
  std::string out, err;
};

/// Runs `command` in the shell. CTest runs tests side by side: each process has files of its own.
inline Outcome shell(const std::string& command) {
  const std::string path = ::testing::TempDir() + "tqble_shell_" + std::to_string(::getpid());
  const int wait = std::system(("(" + command + ") >" + path + ".out 2>" + path + ".err").c_str());
  return {WIFEXITED(wait) ? WEXITSTATUS(wait) : -1, slurp(path + ".out"), slurp(path + ".err")};
}

/// A child process, its output read line by line (with its error output when `errFile` is
/// empty); killed when destroyed, or when the thread that started it ends.
class Child {
 public:
  explicit Child(const std::vector<std::string>& argv, const std::string& errFile = "/dev/null") {
    int fds[2];
    if (::pipe(fds) != 0) throw std::runtime_error("pipe");
    pid_ = ::fork();
    if (pid_ == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      ::dup2(fds[1], 1);
      ::dup2(errFile.empty() ? fds[1] : ::open(errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
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
  void signal(int number) { if (pid_ > 0) ::kill(pid_, number); }
  /// Waits for the exit; returns the status word.
  int wait() {
    int status = 0;
    if (pid_ > 0) ::waitpid(pid_, &status, 0);
    pid_ = -1;
    return status;
  }
  /// The next line of output, or false at end of output or `deadline`.
  bool line(std::string& text, Clock::time_point deadline) {
    std::size_t end;
    while ((end = buffer_.find('\n')) == std::string::npos) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
      pollfd fd{out_, POLLIN, 0};
      char chunk[4096];
      if (left <= 0 || ::poll(&fd, 1, static_cast<int>(left)) <= 0) return false;
      const auto n = ::read(out_, chunk, sizeof chunk);
      if (n <= 0) return false;
      buffer_.append(chunk, static_cast<std::size_t>(n));
    }
    text = buffer_.substr(0, end);
    buffer_.erase(0, end + 1);
    return true;
  }

 private:
  pid_t pid_ = -1;
  int out_ = -1;
  std::string buffer_;
};

}  // namespace tqble::test
