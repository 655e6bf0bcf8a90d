// Costs of calling a module method: directly in C++, through a local proxy's typed call
// (no KXValue on the way), through the generic call with a KXValue argument Array, and
// as a parallel call followed by its wait.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "broker/kxbroker.h"
#include "module/kxmodulecore.h"
#include "module/kxproxy.h"
#include "value/kxvalue.h"

namespace {

using KX::KXBroker;
using KX::KXProxy;
using KX::KXValue;

class Adder : public KX::KXModule {
 public:
  Adder(const std::shared_ptr<KXBroker>& broker, const std::string& name) : KXModule(broker, name) {
    functionName("add", "Adder", "Adds two integers");
    addParam("a", "first term");
    addParam("b", "second term");
    setReturn("sum", "a + b");
    bindMethod(&Adder::add);
  }

  int add(const int& a, const int& b) { return a + b; }
};

// One broker and module for the whole program; shut down when the program ends.
struct Fixture {
  Fixture()
      : broker(KXBroker::createBroker("benchBroker", "127.0.0.1", 0, "", 0, KXBroker::kKeepAlive,
                                      "", false)),
        adder(KX::createModule<Adder>(broker, "Adder")),
        proxy(std::make_shared<KXProxy>(broker, "Adder")) {}
  ~Fixture() { broker->shutdown(); }

  std::shared_ptr<KXBroker> broker;
  std::shared_ptr<Adder> adder;
  std::shared_ptr<KXProxy> proxy;
};

Fixture& fixture() {
  static Fixture instance;
  return instance;
}

void BM_DirectCall(benchmark::State& state) {
  Adder* adder = fixture().adder.get();
  int (Adder::*method)(const int&, const int&) = &Adder::add;
  int a = 1;
  int b = 2;
  for (auto _ : state) {
    // The compiler may assume neither the object nor the member pointer is known: the
    // call stays a real indirect call.
    benchmark::DoNotOptimize(adder);
    benchmark::DoNotOptimize(method);
    int sum = (adder->*method)(a, b);
    benchmark::DoNotOptimize(sum);
  }
}
BENCHMARK(BM_DirectCall);

void BM_TypedProxyCall(benchmark::State& state) {
  KXProxy& proxy = *fixture().proxy;
  for (auto _ : state) {
    int sum = proxy.call<int>("add", 1, 2);
    benchmark::DoNotOptimize(sum);
  }
}
BENCHMARK(BM_TypedProxyCall);

void BM_TypedProxyCallThreads(benchmark::State& state) {
  KXProxy& proxy = *fixture().proxy;
  for (auto _ : state) {
    int sum = proxy.call<int>("add", 1, 2);
    benchmark::DoNotOptimize(sum);
  }
}
BENCHMARK(BM_TypedProxyCallThreads)->Threads(4)->UseRealTime();

void BM_GenericProxyCall(benchmark::State& state) {
  KXProxy& proxy = *fixture().proxy;
  KXValue params;
  params.arraySetSize(2);
  params[0] = 1;
  params[1] = 2;
  const std::string method = "add";
  for (auto _ : state) {
    KXValue sum = proxy.genericCall(method, params);
    benchmark::DoNotOptimize(sum);
  }
}
BENCHMARK(BM_GenericProxyCall);

void BM_PCallAndWait(benchmark::State& state) {
  KXProxy& proxy = *fixture().proxy;
  for (auto _ : state) {
    const int id = proxy.pCall("add", 1, 2);
    bool timedOut = proxy.wait(id, 0);
    benchmark::DoNotOptimize(timedOut);
  }
}
BENCHMARK(BM_PCallAndWait)->UseRealTime();

}  // namespace
