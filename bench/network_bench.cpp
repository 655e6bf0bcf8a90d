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
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
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

#include "bench/benchserver.h"
#include "broker/kxbroker.h"
#include "broker/kxbrokermanager.h"
#include "module/kxproxy.h"
#include "value/kxerror.h"
#include "value/kxvalue.h"

namespace {

using bench::envLong;
using bench::nowNs;
using bench::serverPath;
using bench::ServerProcess;
using KX::KXProxy;
using KX::KXValue;

constexpr const char* kPeer = "velmo-cpp";
constexpr const char* kKey = "key42";
constexpr std::size_t kBlobSize = 1024 * 1024;
constexpr const char* kServerIp = "127.0.0.1";
// Bounds the latency record of one C client (a few seconds of calls stay far below).
constexpr std::size_t kMaxCallsPerClient = 4000000;

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

}  // namespace

int main() {
  signal(SIGPIPE, SIG_IGN);
  bench::raiseDescriptorLimit();
  bool allPassed = true;
  try {
    // Started before this process has any broker (and its threads), so the fork is plain.
    ServerProcess server(serverPath());
    const int port = server.port();
    const bench::IdleConnections idle(port, static_cast<int>(envLong("BENCH_IDLE_CONNECTIONS", 0)));
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
