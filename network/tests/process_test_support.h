#ifndef VELMO_NETWORK_TESTS_PROCESS_TEST_SUPPORT_H_
#define VELMO_NETWORK_TESTS_PROCESS_TEST_SUPPORT_H_

// Child processes for the multi-process tests: started with their output in a file that the
// test reads, and killed when the test ends, whatever happened.

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
      setenv("CLICOLOR", "0", 1);  // plain lines whatever the terminal: the tests read them
      execv(argv[0], argv.data());
      _exit(127);
    }
    close(fd);
  }

  ~ChildProcess() {
    if (pid_ > 0 && !exited_) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    if (!outputPath_.empty()) unlink(outputPath_.c_str());
  }

  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  std::string output() const {
    std::ostringstream text;
    text << std::ifstream(outputPath_).rdbuf();
    return text.str();
  }

  // Waits until the output holds `text` (at `from` or later); false after `patience`.
  bool waitFor(const std::string& text,
               std::chrono::milliseconds patience = std::chrono::seconds(20),
               std::size_t from = 0) const {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (output().find(text, from) == std::string::npos) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
  }

  // The number that follows `before` once it shows; 0 (and a test failure) if it does not.
  int numberAfter(const std::string& before) const {
    if (!waitFor(before)) {
      ADD_FAILURE() << "no '" << before << "' in:\n" << output();
      return 0;
    }
    const std::string text = output();
    return std::atoi(text.c_str() + text.find(before) + before.size());
  }

  void signal(int number) const { kill(pid_, number); }

  // The exit status; nothing if still running after `patience`, or ended by a signal.
  std::optional<int> waitExit(std::chrono::milliseconds patience = std::chrono::seconds(20)) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (std::chrono::steady_clock::now() < deadline) {
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        exited_ = true;
        return WIFEXITED(status) ? std::optional<int>(WEXITSTATUS(status)) : std::nullopt;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return std::nullopt;
  }

 private:
  pid_t pid_ = -1;
  bool exited_ = false;
  std::string outputPath_;
};

// The port of the broker program once its modules serve: the earlier "Velmo is listening on"
// line comes before KXMemory exists.
inline int startRoot(ChildProcess& root, const std::string& ip = "127.0.0.1") {
  return root.numberAfter("Listening on " + ip + ":");
}

}  // namespace testing
}  // namespace KX

#endif  // VELMO_NETWORK_TESTS_PROCESS_TEST_SUPPORT_H_
