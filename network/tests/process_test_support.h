#ifndef VELMO_NETWORK_TESTS_PROCESS_TEST_SUPPORT_H_
#define VELMO_NETWORK_TESTS_PROCESS_TEST_SUPPORT_H_

// Child processes for the multi-process tests: started with their output in a file that
// the test reads, and killed when the test ends, whatever happened.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace KX {
namespace testing {

class ChildProcess {
 public:
  explicit ChildProcess(std::vector<std::string> arguments) {
    char pattern[] = "/tmp/velmo-process-XXXXXX";
    const int fd = mkstemp(pattern);
    if (fd < 0) {
      ADD_FAILURE() << "cannot make an output file";
      return;
    }
    outputPath_ = pattern;
    pid_ = fork();
    if (pid_ == 0) {
      dup2(fd, STDOUT_FILENO);
      dup2(fd, STDERR_FILENO);
      close(fd);
      std::vector<char*> argv;
      for (auto& argument : arguments) argv.push_back(argument.data());
      argv.push_back(nullptr);
      // Plain lines whatever the terminal: the tests read them.
      setenv("CLICOLOR", "0", 1);
      execv(argv[0], argv.data());
      _exit(127);
    }
    close(fd);
  }

  ~ChildProcess() {
    if (running()) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    if (!outputPath_.empty()) unlink(outputPath_.c_str());
  }

  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }

  std::string output() const {
    std::ifstream in(outputPath_);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
  }

  // Waits until the output holds `text`; false after `patience`.
  bool waitFor(const std::string& text,
               std::chrono::milliseconds patience = std::chrono::seconds(20)) const {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (output().find(text) == std::string::npos) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
  }

  // The text of the output between `before` and the end of that line, once it shows.
  std::optional<std::string> valueAfter(const std::string& before) const {
    if (!waitFor(before)) return std::nullopt;
    const std::string text = output();
    const std::size_t start = text.find(before) + before.size();
    return text.substr(start, text.find('\n', start) - start);
  }

  void signal(int number) const { kill(pid_, number); }

  // The exit status once the process ended, nullopt if it is still running after
  // `patience` (or ended by a signal).
  std::optional<int> waitExit(std::chrono::milliseconds patience = std::chrono::seconds(20)) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (std::chrono::steady_clock::now() < deadline) {
      int status = 0;
      const pid_t done = waitpid(pid_, &status, WNOHANG);
      if (done == pid_) {
        exited_ = true;
        if (WIFEXITED(status)) return WEXITSTATUS(status);
        return std::nullopt;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return std::nullopt;
  }

  bool running() const { return pid_ > 0 && !exited_; }

 private:
  pid_t pid_ = -1;
  bool exited_ = false;
  std::string outputPath_;
};

// The root broker program on a free port from 54010; its port once it listens.
inline int startRoot(ChildProcess& root) {
  const std::optional<std::string> address = root.valueAfter("Velmo is listening on 127.0.0.1:");
  if (!address) {
    ADD_FAILURE() << "the root broker did not start:\n" << root.output();
    return 0;
  }
  return std::stoi(*address);
}

inline int readyPort(ChildProcess& node) {
  const std::optional<std::string> port = node.valueAfter("READY ");
  if (!port) {
    ADD_FAILURE() << "the node did not start:\n" << node.output();
    return 0;
  }
  return std::stoi(*port);
}

}  // namespace testing
}  // namespace KX

#endif  // VELMO_NETWORK_TESTS_PROCESS_TEST_SUPPORT_H_
