// Box-to-box latency in one process: from stimulating a native box's output to the
// linked native box's input method being entered (through "KXMemory" and the receiving
// box's proxy to itself). Reports the median and 99th percentile in microseconds.
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "behavior/kxbehavior.h"
#include "behavior/kxbehaviormanager.h"
#include "bench/latency_counters.h"
#include "broker/kxbroker.h"
#include "memory/kxstandardmodules.h"
#include "value/kxvalue.h"

namespace {

using Clock = std::chrono::steady_clock;

// A box whose input "in" notes when it was entered.
class StampBox : public KX::KXBehavior {
 public:
  StampBox(const std::shared_ptr<KX::KXBroker>& broker, const std::string& name)
      : KX::KXBehavior(broker, name) {
    addInput("in");
    functionName("onInput_in__", "StampBox", "Notes the time.");
    addParam("value", "the value");
    bindMethod(&StampBox::onIn);
  }
  void onIn(const KX::KXValue&) {
    entered.store(Clock::now().time_since_epoch().count());
    count.fetch_add(1);
  }
  std::atomic<Clock::rep> entered{0};
  std::atomic<long long> count{0};
};

struct Fixture {
  Fixture()
      : broker(KX::KXBroker::createBroker("benchBoxes", "127.0.0.1", 0, "", 0,
                                          KX::KXBroker::kKeepAlive, "", false)) {
    KX::addStandardModules(broker);
    KX::addBehaviorManager(broker);
    sender = KX::createModule<KX::KXBehavior>(broker, "Sender");
    sender->addOutput("out", false);
    receiver = KX::createModule<StampBox>(broker, "Receiver");
    std::dynamic_pointer_cast<KX::KXBehaviorManager>(broker->getModuleCore("KXBehaviorManager"))
        ->linkBehaviors("Sender", "out", "Receiver", "in");
  }
  ~Fixture() { broker->shutdown(); }

  std::shared_ptr<KX::KXBroker> broker;
  std::shared_ptr<KX::KXBehavior> sender;
  std::shared_ptr<StampBox> receiver;
};

void BM_NativeBoxToBox(benchmark::State& state) {
  static Fixture f;
  std::vector<double> micros;
  for (auto _ : state) {
    const long long target = f.receiver->count.load() + 1;
    const Clock::time_point stimulated = Clock::now();
    f.sender->stimulateIO("out", KX::KXValue(1));
    const auto deadline = stimulated + std::chrono::seconds(5);
    while (f.receiver->count.load() < target) {
      if (Clock::now() > deadline) {
        state.SkipWithError("the input was never entered");
        return;
      }
      std::this_thread::yield();
    }
    const Clock::time_point entered{Clock::duration(f.receiver->entered.load())};
    micros.push_back(std::chrono::duration<double, std::micro>(entered - stimulated).count());
  }
  velmo_bench::reportLatency(state, micros);
}
BENCHMARK(BM_NativeBoxToBox)->UseRealTime();

}  // namespace
