// peer_bench_network: Velmo's remote calls measured the way the peer RPC benchmarks
// (bench-peers) measure theirs, printing RESULT lines of the same shape.
//
// Starts peer_bench_network_server (next to this program) on 127.0.0.1, then, through
// proxies built from the server's address (the process's fallback broker "emptyBroker"
// and its network):
//   A  echo("key42") -> "key42", timed one call at a time;
//   B  a 1 MiB Binary echoed back in full, checked byte for byte after the loop;
//   C  8 client threads, each with its own proxy (its own connection), doing A for a
//      few seconds after a barrier.
// Knobs (environment): BENCH_WARMUP (1000), BENCH_N (20000), BENCH_NB (200),
// BENCH_C_SECONDS (3), BENCH_C_CLIENTS (8), BENCH_A_CAP_S (60), BENCH_WORKLOADS ("ABC"),
// BENCH_TAG (suffix of the workload label), BENCH_IDLE_CONNECTIONS (0: connections opened
// to the server before the workloads and left idle, never sending, as careless clients leave
// them; compare A with and without, BENCH_TAG telling the runs apart).
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

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "broker/kxbroker.h"
#include "broker/kxbrokermanager.h"
#include "module/kxproxy.h"
#include "value/kxerror.h"
#include "value/kxvalue.h"

namespace {

using KX::KXProxy;
using KX::KXValue;

constexpr const char* kPeer = "velmo-cpp";
constexpr const char* kKey = "key42";
constexpr std::size_t kBlobSize = 1024 * 1024;
constexpr const char* kServerIp = "127.0.0.1";
// Bounds the latency record of one C client (a few seconds of calls stay far below).
constexpr std::size_t kMaxCallsPerClient = 4000000;

uint64_t nowNs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec);
}

long envLong(const char* name, long fallback) {
  const char* text = std::getenv(name);
  return (text != nullptr && *text != '\0') ? std::strtol(text, nullptr, 10) : fallback;
}

double envDouble(const char* name, double fallback) {
  const char* text = std::getenv(name);
  return (text != nullptr && *text != '\0') ? std::strtod(text, nullptr) : fallback;
}

bool wanted(char workload) {
  const char* text = std::getenv("BENCH_WORKLOADS");
  if (text == nullptr || *text == '\0') text = "ABC";
  return std::strchr(text, workload) != nullptr;
}

// Nearest-rank percentile of sorted values (the peers' definition).
uint64_t percentile(const std::vector<uint64_t>& sorted, double p) {
  if (sorted.empty()) return 0;
  auto rank = static_cast<std::size_t>(p / 100.0 * static_cast<double>(sorted.size()) + 0.999999);
  rank = std::clamp<std::size_t>(rank, 1, sorted.size());
  return sorted[rank - 1];
}

// Prints one RESULT line. `payloadMib` 0: the rate is calls/s; otherwise MiB/s of argument.
void emitResult(const char* workload, std::vector<uint64_t>& latencies, uint64_t elapsedNs,
                double payloadMib, const std::string& note) {
  std::sort(latencies.begin(), latencies.end());
  const double calls = static_cast<double>(latencies.size());
  const double seconds = static_cast<double>(elapsedNs) / 1e9;
  const double rate = payloadMib > 0 ? payloadMib * calls / seconds : calls / seconds;
  const char* tag = std::getenv("BENCH_TAG");
  std::string label = workload;
  if (tag != nullptr && *tag != '\0') label += std::string("/") + tag;
  std::printf(
      "RESULT {\"peer\": \"%s\", \"workload\": \"%s\", \"n\": %zu, \"median_us\": %.2f, "
      "\"p99_us\": %.2f, \"rate\": %.1f, \"unit\": \"%s\", \"note\": \"%s\"}\n",
      kPeer, label.c_str(), latencies.size(),
      static_cast<double>(percentile(latencies, 50)) / 1000.0,
      static_cast<double>(percentile(latencies, 99)) / 1000.0, rate,
      payloadMib > 0 ? "MiB/s" : "calls/s", note.c_str());
  std::fflush(stdout);
}

// The server program as a child process: started (and its port read) on construction,
// stopped on destruction by closing its stdin, then SIGTERM, then SIGKILL. It gets SIGKILL
// if this process dies first.
class ServerProcess {
 public:
  explicit ServerProcess(const std::string& path) {
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
      char* const argv[] = {const_cast<char*>(path.c_str()), nullptr};
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
std::string serverPath() {
  std::vector<char> buffer(4096);
  const ssize_t length = readlink("/proc/self/exe", buffer.data(), buffer.size() - 1);
  if (length <= 0) throw std::runtime_error("cannot read /proc/self/exe");
  std::string self(buffer.data(), static_cast<std::size_t>(length));
  return self.substr(0, self.rfind('/') + 1) + "peer_bench_network_server";
}

KXValue argumentsOf(const KXValue& value) {
  KXValue arguments;
  arguments.arraySetSize(0);
  arguments.arrayPush(value);
  return arguments;
}

void checkKey(const KXValue& result) {
  if (result.getType() != KXValue::TypeString ||
      static_cast<const std::string&>(result) != std::string(kKey)) {
    throw std::runtime_error("echo returned " + result.toString() + " instead of \"key42\"");
  }
}

// One small echo call, its result checked.
struct SmallCall {
  explicit SmallCall(int port)
      : proxy(std::make_unique<KXProxy>(KX::KXBrokerManager::getInstance()->getEmptyBroker(),
                                        "Echo", kServerIp, port)),
        arguments(argumentsOf(KXValue(kKey))) {}
  void operator()() { checkKey(proxy->genericCall("echo", arguments)); }

  std::unique_ptr<KXProxy> proxy;
  KXValue arguments;
};

void workloadA(int port) {
  const long warmup = envLong("BENCH_WARMUP", 1000);
  const long count = envLong("BENCH_N", 20000);
  const double capSeconds = envDouble("BENCH_A_CAP_S", 60);
  SmallCall call(port);
  for (long i = 0; i < warmup; ++i) call();
  std::vector<uint64_t> latencies;
  latencies.reserve(static_cast<std::size_t>(std::max(count, 0L)));
  const uint64_t start = nowNs();
  const uint64_t deadline = start + static_cast<uint64_t>(capSeconds * 1e9);
  for (long i = 0; i < count; ++i) {
    const uint64_t before = nowNs();
    call();
    const uint64_t after = nowNs();
    latencies.push_back(after - before);
    if (after > deadline) break;
  }
  emitResult("A", latencies, nowNs() - start, 0,
             "genericCall on a remote proxy (SOAP over kept-open HTTP)");
}

void workloadB(int port) {
  const long count = envLong("BENCH_NB", 200);
  KXProxy proxy(KX::KXBrokerManager::getInstance()->getEmptyBroker(), "Echo", kServerIp, port);
  std::vector<unsigned char> blob(kBlobSize);
  for (std::size_t i = 0; i < kBlobSize; ++i) blob[i] = static_cast<unsigned char>(i * 131u);
  KXValue value;
  value.setBinary(blob.data(), blob.size());
  const KXValue arguments = argumentsOf(value);
  KXValue result;
  for (int i = 0; i < 10; ++i) result = proxy.genericCall("echo", arguments);
  std::vector<uint64_t> latencies;
  latencies.reserve(static_cast<std::size_t>(std::max(count, 0L)));
  const uint64_t start = nowNs();
  for (long i = 0; i < count; ++i) {
    const uint64_t before = nowNs();
    result = proxy.genericCall("echo", arguments);
    latencies.push_back(nowNs() - before);
  }
  const uint64_t elapsed = nowNs() - start;
  if (result.getType() != KXValue::TypeBinary || result.getBinary() != blob) {
    throw std::runtime_error("the echoed 1 MiB Binary differs from the one sent");
  }
  emitResult("B", latencies, elapsed, 1.0, "1 MiB Binary echoed back in full");
}

// A barrier for the C clients. A client that fails still arrives (so the others are not
// left waiting) and reports its error afterwards.
class StartLine {
 public:
  explicit StartLine(int parties) : waiting_(parties) {}
  void arriveAndWait() {
    std::unique_lock<std::mutex> guard(mutex_);
    if (--waiting_ <= 0) {
      released_.notify_all();
      return;
    }
    released_.wait(guard, [this] { return waiting_ <= 0; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable released_;
  int waiting_;
};

struct ClientRecord {
  std::vector<uint64_t> latencies;
  uint64_t elapsedNs = 0;
  std::string error;
};

void runClient(int port, double seconds, StartLine& start, ClientRecord& record) {
  std::unique_ptr<SmallCall> call;
  try {
    call = std::make_unique<SmallCall>(port);
    for (int i = 0; i < 100; ++i) (*call)();
  } catch (const std::exception& error) {
    record.error = error.what();
  }
  start.arriveAndWait();
  if (!record.error.empty()) return;
  try {
    record.latencies.reserve(1 << 16);
    const uint64_t begin = nowNs();
    const uint64_t end = begin + static_cast<uint64_t>(seconds * 1e9);
    uint64_t after = begin;
    while (after < end && record.latencies.size() < kMaxCallsPerClient) {
      const uint64_t before = nowNs();
      (*call)();
      after = nowNs();
      record.latencies.push_back(after - before);
    }
    record.elapsedNs = after - begin;
  } catch (const std::exception& error) {
    record.error = error.what();
  }
}

void workloadC(int port) {
  const int clients = static_cast<int>(envLong("BENCH_C_CLIENTS", 8));
  const double seconds = envDouble("BENCH_C_SECONDS", 3);
  StartLine start(clients);
  std::vector<ClientRecord> records(static_cast<std::size_t>(clients));
  std::vector<std::thread> threads;
  threads.reserve(records.size());
  for (auto& record : records) {
    threads.emplace_back(runClient, port, seconds, std::ref(start), std::ref(record));
  }
  for (auto& thread : threads) thread.join();
  std::vector<uint64_t> latencies;
  uint64_t longest = 0;
  for (const auto& record : records) {
    if (!record.error.empty()) throw std::runtime_error("a C client failed: " + record.error);
    latencies.insert(latencies.end(), record.latencies.begin(), record.latencies.end());
    longest = std::max(longest, record.elapsedNs);
  }
  emitResult("C", latencies, longest, 0,
             std::to_string(clients) + " client threads, 1 proxy (conn) each; latency under load");
}

// Runs one workload; a failure prints a FAILED line (as the peers do) and is remembered.
bool runGuarded(const char* label, const std::function<void()>& workload) {
  try {
    workload();
    return true;
  } catch (const std::exception& error) {
    std::string text = error.what();
    std::replace(text.begin(), text.end(), '\n', ' ');
    std::printf("FAILED %s: %s\n", label, text.c_str());
    std::fflush(stdout);
    return false;
  }
}

// Connections to the server that never send anything, closed with this.
class IdleConnections {
 public:
  IdleConnections(int port, long count) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (long i = 0; i < count; ++i) {
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

// Thousands of connections need more descriptors than the usual soft limit of 1024.
void raiseDescriptorLimit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
  }
}

}  // namespace

int main() {
  signal(SIGPIPE, SIG_IGN);
  raiseDescriptorLimit();  // inherited by the server
  bool allPassed = true;
  try {
    // Started before this process has any broker (and its threads), so the fork is plain.
    ServerProcess server(serverPath());
    const int port = server.port();
    const IdleConnections idle(port, envLong("BENCH_IDLE_CONNECTIONS", 0));
    if (wanted('A')) allPassed &= runGuarded("velmo-cpp A", [port] { workloadA(port); });
    if (wanted('B')) allPassed &= runGuarded("velmo-cpp B", [port] { workloadB(port); });
    if (wanted('C')) allPassed &= runGuarded("velmo-cpp C", [port] { workloadC(port); });
    // Every proxy is gone by now: the fallback broker goes before the server.
    const auto manager = KX::KXBrokerManager::getInstance();
    for (const auto& broker : manager->getBrokers()) manager->removeBroker(broker);
  } catch (const std::exception& error) {
    std::printf("FAILED velmo-cpp: %s\n", error.what());
    std::fflush(stdout);
    return 1;
  }
  return allPassed ? 0 : 1;
}
