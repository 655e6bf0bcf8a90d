// How remote calls grow: with the payload (1 KiB to 64 MiB echoed back, Arrays of 1,000 to
// 100,000 elements), with the modules of the serving broker (1 to 10,000), beside idle
// connections (0 to 1,000), what a connect/call/close cycle leaves in the server (its
// descriptors and threads, counted from /proc before and after 10,000 cycles), and the
// resident memory of both sides over 1,000,000 calls. The server is
// peer_bench_network_server, in a process of its own.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench/benchserver.h"
#include "broker/kxbroker.h"
#include "broker/kxbrokermanager.h"
#include "module/kxproxy.h"
#include "value/kxvalue.h"

namespace {

using KX::KXProxy;
using KX::KXValue;

constexpr const char* kServerIp = "127.0.0.1";

// One server per module count, started on first use and kept for the run.
const bench::ServerProcess& serverWith(int modules) {
  static std::map<int, std::unique_ptr<bench::ServerProcess>> servers;
  std::unique_ptr<bench::ServerProcess>& server = servers[modules];
  if (!server) {
    server = std::make_unique<bench::ServerProcess>(bench::serverPath(), std::to_string(modules));
  }
  return *server;
}

std::unique_ptr<KXProxy> echoProxy(int port) {
  return std::make_unique<KXProxy>(KX::KXBrokerManager::getInstance()->getEmptyBroker(), "Echo",
                                   kServerIp, port);
}

KXValue argumentsOf(const KXValue& value) {
  KXValue arguments;
  arguments.arraySetSize(0);
  arguments.arrayPush(value);
  return arguments;
}

// How many entries /proc/<server>/<what> lists ("fd": descriptors, "task": threads).
double countOf(const bench::ServerProcess& server, const char* what) {
  const std::string folder = "/proc/" + std::to_string(server.pid()) + "/" + what;
  std::size_t count = 0;
  if (DIR* listing = ::opendir(folder.c_str())) {
    while (const dirent* entry = ::readdir(listing)) count += entry->d_name[0] != '.';
    ::closedir(listing);
  }
  return static_cast<double>(count);
}

void BM_EchoPayload(benchmark::State& state) {
  const auto size = static_cast<std::size_t>(state.range(0));
  const std::unique_ptr<KXProxy> proxy = echoProxy(serverWith(1).port());
  KXValue blob;
  blob.setBinary(std::vector<unsigned char>(size, 0x5a).data(), size);
  const KXValue arguments = argumentsOf(blob);
  KXValue result;
  for (auto _ : state) result = proxy->genericCall("echo", arguments);
  if (result != blob) state.SkipWithError("the echo differs from what was sent");
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
}
BENCHMARK(BM_EchoPayload)
    ->RangeMultiplier(8)
    ->Range(1 << 10, 64 << 20)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();

// Small values (Int, Float, String, a nested one-element Array, in turn) echoed back.
void BM_EchoArray(benchmark::State& state) {
  const auto size = static_cast<int>(state.range(0));
  const std::unique_ptr<KXProxy> proxy = echoProxy(serverWith(1).port());
  KXValue array;
  array.arraySetSize(size);
  for (int i = 0; i < size; ++i) {
    const KXValue kinds[] = {KXValue(i), KXValue(i * 0.5f), KXValue("s" + std::to_string(i)),
                             argumentsOf(KXValue(i % 2 == 0))};
    array[i] = kinds[i % 4];
  }
  const KXValue arguments = argumentsOf(array);
  KXValue result;
  for (auto _ : state) result = proxy->genericCall("echo", arguments);
  if (result != array) state.SkipWithError("the echo differs from what was sent");
  state.SetItemsProcessed(state.iterations() * size);
}
BENCHMARK(BM_EchoArray)
    ->RangeMultiplier(10)
    ->Range(1000, 100000)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// Times small echo calls to the server on `port`.
void timeSmallCalls(benchmark::State& state, int port) {
  const std::unique_ptr<KXProxy> proxy = echoProxy(port);
  const KXValue arguments = argumentsOf(KXValue("key42"));
  for (auto _ : state) benchmark::DoNotOptimize(proxy->genericCall("echo", arguments));
}

void BM_SmallCallAmongModules(benchmark::State& state) {
  timeSmallCalls(state, serverWith(static_cast<int>(state.range(0))).port());
}
BENCHMARK(BM_SmallCallAmongModules)
    ->Arg(1)
    ->Arg(100)
    ->Arg(10000)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();

// The counter is the server's threads once the idle connections are open.
void BM_SmallCallBesideIdleConnections(benchmark::State& state) {
  const bench::ServerProcess& server = serverWith(1);
  const bench::IdleConnections idle(server.port(), static_cast<int>(state.range(0)));
  timeSmallCalls(state, server.port());
  state.counters["threads"] = countOf(server, "task");
}
BENCHMARK(BM_SmallCallBesideIdleConnections)
    ->Arg(0)
    ->Arg(1000)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();

// A new proxy (its own connection) per call; the counters are the server's descriptors and
// threads before and after.
void BM_ConnectCallClose(benchmark::State& state) {
  const bench::ServerProcess& server = serverWith(1);
  const KXValue arguments = argumentsOf(KXValue("key42"));
  echoProxy(server.port())->genericCall("echo", arguments);  // the server's pool has started
  const double descriptors = countOf(server, "fd");
  const double threads = countOf(server, "task");
  for (auto _ : state) echoProxy(server.port())->genericCall("echo", arguments);
  // Closed connections are let go as their serving rounds end.
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  state.counters["fds_before"] = descriptors;
  state.counters["fds_after"] = countOf(server, "fd");
  state.counters["threads_before"] = threads;
  state.counters["threads_after"] = countOf(server, "task");
}
BENCHMARK(BM_ConnectCallClose)->Iterations(10000)->Unit(benchmark::kMicrosecond)->UseRealTime();

// Small calls on one connection, as a long-running proxy makes them; the counters are the
// resident memory (KiB) of this process and of the server after a warm-up of 10,000 calls
// and at the end: what the calls leave behind.
void BM_ResidentMemoryOverCalls(benchmark::State& state) {
  const bench::ServerProcess& server = serverWith(1);
  const std::unique_ptr<KXProxy> proxy = echoProxy(server.port());
  const KXValue arguments = argumentsOf(KXValue("key42"));
  for (int i = 0; i < 10000; ++i) proxy->genericCall("echo", arguments);
  const double clientWarm = bench::statusKib(::getpid(), "VmRSS");
  const double serverWarm = bench::statusKib(server.pid(), "VmRSS");
  for (auto _ : state) benchmark::DoNotOptimize(proxy->genericCall("echo", arguments));
  state.counters["client_rss_warm"] = clientWarm;
  state.counters["client_rss_end"] = bench::statusKib(::getpid(), "VmRSS");
  state.counters["server_rss_warm"] = serverWarm;
  state.counters["server_rss_end"] = bench::statusKib(server.pid(), "VmRSS");
}
BENCHMARK(BM_ResidentMemoryOverCalls)
    ->Iterations(1000000)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  bench::raiseDescriptorLimit();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  // Every proxy is gone: the fallback broker goes before the servers.
  const auto manager = KX::KXBrokerManager::getInstance();
  for (const auto& broker : manager->getBrokers()) manager->removeBroker(broker);
  return 0;
}
