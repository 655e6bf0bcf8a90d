// KXValue costs: building and copying arrays, the compact text form both ways, base64.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "value/kxvalue.h"

namespace {

using KX::KXValue;

constexpr int kElements = 1000;

// A mixed array as method results carry them: ints, floats, bools, short strings.
KXValue buildArray() {
  KXValue array;
  array.arrayReserve(kElements);
  for (int i = 0; i < kElements; ++i) {
    switch (i % 4) {
      case 0:
        array.arrayPush(KXValue(i * 7919));
        break;
      case 1:
        array.arrayPush(KXValue(static_cast<float>(i) * 0.25f));
        break;
      case 2:
        array.arrayPush(KXValue("element " + std::to_string(i)));
        break;
      default:
        array.arrayPush(KXValue(i % 3 == 0));
        break;
    }
  }
  return array;
}

void BM_BuildArray(benchmark::State& state) {
  for (auto _ : state) {
    KXValue array = buildArray();
    benchmark::DoNotOptimize(array);
  }
  state.SetItemsProcessed(state.iterations() * kElements);
}
BENCHMARK(BM_BuildArray);

void BM_CopyArray(benchmark::State& state) {
  const KXValue array = buildArray();
  for (auto _ : state) {
    KXValue copy(array);
    benchmark::DoNotOptimize(copy);
  }
  state.SetItemsProcessed(state.iterations() * kElements);
}
BENCHMARK(BM_CopyArray);

void BM_ToStringCompact(benchmark::State& state) {
  const KXValue array = buildArray();
  size_t bytes = 0;
  for (auto _ : state) {
    std::string text = array.toString(1);
    bytes = text.size();
    benchmark::DoNotOptimize(text);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
  state.SetItemsProcessed(state.iterations() * kElements);
}
BENCHMARK(BM_ToStringCompact);

void BM_UnSerializeFromText(benchmark::State& state) {
  const std::string text = buildArray().toString(1);
  KXValue value;
  for (auto _ : state) {
    value.unSerializeFromText(text);
    benchmark::DoNotOptimize(value);
  }
  if (value.getSize() != kElements) state.SkipWithError("parse lost elements");
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
  state.SetItemsProcessed(state.iterations() * kElements);
}
BENCHMARK(BM_UnSerializeFromText);

KXValue megabyteBlob() {
  std::vector<unsigned char> bytes(1 << 20);
  unsigned state = 12345;
  for (auto& byte : bytes) {
    state = state * 1103515245u + 12345u;
    byte = static_cast<unsigned char>(state >> 16);
  }
  KXValue blob;
  blob = bytes;
  return blob;
}

void BM_Base64Encode(benchmark::State& state) {
  const KXValue blob = megabyteBlob();
  for (auto _ : state) {
    std::string text = blob.encodeBase64();
    benchmark::DoNotOptimize(text);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * blob.getSize());
}
BENCHMARK(BM_Base64Encode);

void BM_Base64Decode(benchmark::State& state) {
  const KXValue blob = megabyteBlob();
  const std::string text = blob.encodeBase64();
  KXValue decoded;
  for (auto _ : state) {
    decoded.decodeBase64(text);
    benchmark::DoNotOptimize(decoded);
  }
  if (!(decoded == blob)) state.SkipWithError("round trip differs");
  // Counted in decoded bytes, the same unit as the encoder.
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * blob.getSize());
}
BENCHMARK(BM_Base64Decode);

}  // namespace
