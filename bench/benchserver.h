#ifndef VELMO_BENCH_BENCHSERVER_H_
#define VELMO_BENCH_BENCHSERVER_H_

// The network benchmarks' server: peer_bench_network_server run as a child process, and the
// clock and knobs they share.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace bench {

inline uint64_t nowNs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec);
}

inline long envLong(const char* name, long fallback) {
  const char* text = std::getenv(name);
  return (text != nullptr && *text != '\0') ? std::strtol(text, nullptr, 10) : fallback;
}

// The server program as a child process: started (and its port read) on construction,
// stopped on destruction by closing its stdin, then SIGTERM, then SIGKILL. It gets SIGKILL
// if this process dies first.
// A field of /proc/<pid>/status in KiB ("VmRSS": the resident memory, "VmHWM": its peak).
inline double statusKib(pid_t pid, const std::string& field) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.compare(0, field.size() + 1, field + ":") == 0) {
      return std::stod(line.substr(field.size() + 1));
    }
  }
  return 0;
}

class ServerProcess {
 public:
  // `argument`, when not empty, is passed to the server.
  explicit ServerProcess(const std::string& path, const std::string& argument = std::string()) {
    int toChild[2];
    int fromChild[2];
    if (pipe2(toChild, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    if (pipe2(fromChild, O_CLOEXEC) != 0) {
      close(toChild[0]);
      close(toChild[1]);
      throw std::runtime_error("pipe failed");
    }
    const pid_t parent = getpid();
    pid_t child = fork();
    if (child == 0) {
      // Only async-signal-safe calls until exec.
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() != parent) _exit(127);
      dup2(toChild[0], STDIN_FILENO);
      dup2(fromChild[1], STDOUT_FILENO);
      char* const argv[] = {const_cast<char*>(path.c_str()),
                            argument.empty() ? nullptr : const_cast<char*>(argument.c_str()),
                            nullptr};
      execv(path.c_str(), argv);
      _exit(127);
    }
    close(toChild[0]);
    close(fromChild[1]);
    if (child < 0) {
      close(toChild[1]);
      close(fromChild[0]);
      throw std::runtime_error("fork failed");
    }
    pid_ = child;
    toChild_ = toChild[1];
    const std::string line = readReadyLine(fromChild[0]);
    close(fromChild[0]);
    if (line.rfind("READY ", 0) != 0) {
      stop();
      throw std::runtime_error("server " + path + " did not become ready (last line '" + line +
                               "')");
    }
    port_ = std::atoi(line.c_str() + 6);
  }

  ~ServerProcess() { stop(); }
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;

  int port() const { return port_; }
  pid_t pid() const { return pid_; }

 private:
  // The first line that starts with "READY", or the last line read when the server
  // ends or stays silent for 60 s.
  static std::string readReadyLine(int fd) {
    std::string line;
    const uint64_t deadline = nowNs() + 60ull * 1000000000ull;
    while (nowNs() < deadline) {
      pollfd watched{fd, POLLIN, 0};
      const int ready = poll(&watched, 1, 500);
      if (ready < 0 && errno != EINTR) break;
      if (ready <= 0) continue;
      char c = 0;
      const ssize_t got = read(fd, &c, 1);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) break;
      if (c != '\n') {
        line += c;
        continue;
      }
      if (line.rfind("READY ", 0) == 0) return line;
      line.clear();
    }
    return line;
  }

  // Waits up to `ms` for the child to end; true when it has.
  bool reaped(int ms) {
    for (int waited = 0; waited <= ms; waited += 10) {
      int status = 0;
      const pid_t done = waitpid(pid_, &status, WNOHANG);
      if (done == pid_ || (done < 0 && errno == ECHILD)) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }

  void stop() {
    if (toChild_ >= 0) {
      close(toChild_);
      toChild_ = -1;
    }
    if (pid_ <= 0) return;
    if (!reaped(5000)) {
      kill(pid_, SIGTERM);
      if (!reaped(5000)) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
      }
    }
    pid_ = -1;
  }

  pid_t pid_ = -1;
  int toChild_ = -1;
  int port_ = 0;
};

// peer_bench_network_server in this program's own folder.
inline std::string serverPath() {
  std::vector<char> buffer(4096);
  const ssize_t length = readlink("/proc/self/exe", buffer.data(), buffer.size() - 1);
  if (length <= 0) throw std::runtime_error("cannot read /proc/self/exe");
  std::string self(buffer.data(), static_cast<std::size_t>(length));
  return self.substr(0, self.rfind('/') + 1) + "peer_bench_network_server";
}

// Connections to a server that never send anything, as careless clients leave them; closed
// with this.
class IdleConnections {
 public:
  IdleConnections(int port, int count) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (int i = 0; i < count; ++i) {
      const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
      if (fd < 0) throw std::runtime_error("idle connection: " + std::string(strerror(errno)));
      sockets_.push_back(fd);
      if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        throw std::runtime_error("idle connection: " + std::string(strerror(errno)));
      }
    }
  }
  ~IdleConnections() {
    for (const int fd : sockets_) ::close(fd);
  }
  IdleConnections(const IdleConnections&) = delete;
  IdleConnections& operator=(const IdleConnections&) = delete;

 private:
  std::vector<int> sockets_;
};

// Thousands of connections need more descriptors than the usual soft limit of 1024; a
// server started afterwards inherits the limit.
inline void raiseDescriptorLimit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
  }
}

}  // namespace bench

#endif  // VELMO_BENCH_BENCHSERVER_H_
