// Costs of "KXMemory": storing and reading a value through a local proxy's typed calls,
// the latency from raising a micro event to its subscriber's callback running, and the
// time until 100 subscribers of one micro event have all been called.
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/latency_counters.h"
#include "broker/kxbroker.h"
#include "memory/kxmemory.h"
#include "module/kxmodulecore.h"
#include "module/kxproxy.h"
#include "value/kxvalue.h"

namespace {

using Clock = std::chrono::steady_clock;
using KX::KXBroker;
using KX::KXProxy;
using KX::KXValue;

// What the probes share: when the last callback ran and how many have run.
struct Hits {
  std::atomic<long long> lastNanos{0};
  std::atomic<long long> count{0};
};

long long nowNanos() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
      .count();
}

// A subscriber whose callback notes the time and counts.
class Probe : public KX::KXModule {
 public:
  Probe(const std::shared_ptr<KXBroker>& broker, const std::string& name,
        std::shared_ptr<Hits> hits)
      : KXModule(broker, name), hits_(std::move(hits)) {
    functionName("hit", "Probe", "Notes the time of a notification");
    addParam("name", "the data name");
    addParam("value", "the value");
    addParam("message", "the message");
    bindMethod(&Probe::hit);
  }

  void hit(const std::string&, const KXValue&, const std::string&) {
    hits_->lastNanos.store(nowNanos());
    hits_->count.fetch_add(1);
  }

 private:
  std::shared_ptr<Hits> hits_;
};

constexpr int kFanOut = 100;

// One broker with the memory and the probes for the whole program.
struct Fixture {
  Fixture()
      : broker(KXBroker::createBroker("benchBroker", "127.0.0.1", 0, "", 0, KXBroker::kKeepAlive,
                                      "", false)),
        memory(KX::createModule<KX::KXMemory>(broker, "KXMemory")),
        proxy(std::make_shared<KXProxy>(broker, "KXMemory")),
        single(std::make_shared<Hits>()),
        fan(std::make_shared<Hits>()) {
    KX::createModule<Probe>(broker, "probe", single);
    memory->subscribeToMicroEvent("latency", "probe", "", "hit");
    for (int i = 0; i < kFanOut; ++i) {
      const std::string name = "fan" + std::to_string(i);
      KX::createModule<Probe>(broker, name, fan);
      memory->subscribeToMicroEvent("fanOut", name, "", "hit");
    }
  }
  ~Fixture() { broker->shutdown(); }

  std::shared_ptr<KXBroker> broker;
  std::shared_ptr<KX::KXMemory> memory;
  std::shared_ptr<KXProxy> proxy;
  std::shared_ptr<Hits> single;
  std::shared_ptr<Hits> fan;
};

Fixture& fixture() {
  static Fixture instance;
  return instance;
}

// Spins until `hits` has counted `target`; false after 5 s (the delivery is broken).
bool waitForCount(const Hits& hits, long long target) {
  const auto deadline = Clock::now() + std::chrono::seconds(5);
  while (hits.count.load() < target) {
    if (Clock::now() > deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

// One insertData and one getData per iteration, typed calls through the proxy; each
// thread uses its own name. items_per_second counts both calls.
void BM_InsertAndGetData(benchmark::State& state) {
  KXProxy& proxy = *fixture().proxy;
  const std::string name = "bench/" + std::to_string(state.thread_index());
  int i = 0;
  for (auto _ : state) {
    proxy.call<void>("insertData", name, KXValue(++i));
    KXValue value = proxy.call<KXValue>("getData", name);
    benchmark::DoNotOptimize(value);
  }
  state.SetItemsProcessed(state.iterations() * 2);
}
BENCHMARK(BM_InsertAndGetData)->Threads(1)->Threads(2)->UseRealTime();

// From the raise (typed call through the proxy) to the subscriber's callback running
// on the pool. Reports the median and 99th percentile in microseconds.
void BM_MicroEventLatency(benchmark::State& state) {
  Fixture& f = fixture();
  KXProxy& proxy = *f.proxy;
  std::vector<double> micros;
  micros.reserve(200000);
  for (auto _ : state) {
    const long long target = f.single->count.load() + 1;
    const long long raised = nowNanos();
    proxy.call<void>("raiseMicroEvent", "latency", KXValue(1));
    if (!waitForCount(*f.single, target)) {
      state.SkipWithError("notification never arrived");
      break;
    }
    micros.push_back(static_cast<double>(f.single->lastNanos.load() - raised) / 1000.0);
  }
  velmo_bench::reportLatency(state, micros);
}
BENCHMARK(BM_MicroEventLatency)->UseRealTime();

// One raise to 100 subscribers: the time until all 100 callbacks have run.
void BM_FanOut100(benchmark::State& state) {
  Fixture& f = fixture();
  KXProxy& proxy = *f.proxy;
  std::vector<double> micros;
  for (auto _ : state) {
    const long long target = f.fan->count.load() + kFanOut;
    const auto start = Clock::now();
    proxy.call<void>("raiseMicroEvent", "fanOut", KXValue(1));
    if (!waitForCount(*f.fan, target)) {
      state.SkipWithError("some notifications never arrived");
      break;
    }
    const std::chrono::duration<double> elapsed = Clock::now() - start;
    state.SetIterationTime(elapsed.count());
    micros.push_back(elapsed.count() * 1e6);
  }
  velmo_bench::reportLatency(state, micros);
}
BENCHMARK(BM_FanOut100)->UseManualTime();

}  // namespace
