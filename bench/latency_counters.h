#ifndef VELMO_BENCH_LATENCY_COUNTERS_H_
#define VELMO_BENCH_LATENCY_COUNTERS_H_

#include <benchmark/benchmark.h>

#include <algorithm>
#include <vector>

namespace velmo_bench {

// Reports the median and the 99th percentile of `micros` (sorted here) as the counters
// "median_us" and "p99_us".
inline void reportLatency(benchmark::State& state, std::vector<double>& micros) {
  if (micros.empty()) return;
  std::sort(micros.begin(), micros.end());
  state.counters["median_us"] = micros[micros.size() / 2];
  state.counters["p99_us"] = micros[std::min(micros.size() - 1, micros.size() * 99 / 100)];
}

}  // namespace velmo_bench

#endif  // VELMO_BENCH_LATENCY_COUNTERS_H_
