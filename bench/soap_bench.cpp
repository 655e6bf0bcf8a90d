// Costs of the SOAP form of KXValue, paid by every remote call: writing a value as XML and
// reading it back from a parsed element (and from text, parse included).
#include <benchmark/benchmark.h>
#include <tinyxml2.h>

#include <string>

#include "network/detail/kxvaluesoap.h"
#include "value/kxvalue.h"

namespace {

using KX::KXValue;

constexpr int kElements = 1000;

KXValue smallString() { return KXValue("getData"); }

// A mixed array as method results carry them: ints, floats, bools, short strings (some
// needing escapes) and small nested arrays.
KXValue mixedArray() {
  KXValue array;
  array.arrayReserve(kElements);
  for (int i = 0; i < kElements; ++i) {
    switch (i % 5) {
      case 0:
        array.arrayPush(KXValue(i * 7919));
        break;
      case 1:
        array.arrayPush(KXValue(static_cast<float>(i) * 0.25f));
        break;
      case 2:
        array.arrayPush(KXValue(i % 10 == 2 ? "a<b & c" : "element " + std::to_string(i)));
        break;
      case 3:
        array.arrayPush(KXValue(i % 3 == 0));
        break;
      default: {
        KXValue pair;
        pair.arrayPush(KXValue(i));
        pair.arrayPush(KXValue(-i));
        array.arrayPush(pair);
        break;
      }
    }
  }
  return array;
}

void benchWrite(benchmark::State& state, const KXValue& value) {
  std::string out;
  out.reserve(10000);  // as the message layer does
  for (auto _ : state) {
    out.clear();
    KX::writeKXValue(value, out, false);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * out.size()));
}

// Reading from an already parsed element: the cost that is ours.
void benchRead(benchmark::State& state, const KXValue& value) {
  std::string xml;
  KX::writeKXValue(value, xml, false);
  tinyxml2::XMLDocument document;
  document.Parse(xml.data(), xml.size());
  const tinyxml2::XMLElement* root = document.RootElement();
  for (auto _ : state) {
    KXValue read;
    KX::readKXValue(*root, read, 0);
    benchmark::DoNotOptimize(read);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * xml.size()));
}

// Parsing the text as well.
void benchReadFromXml(benchmark::State& state, const KXValue& value) {
  std::string xml;
  KX::writeKXValue(value, xml, false);
  for (auto _ : state) {
    KXValue read;
    KX::readKXValueFromXml(xml, read);
    benchmark::DoNotOptimize(read);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * xml.size()));
}

void BM_WriteSmallString(benchmark::State& state) { benchWrite(state, smallString()); }
void BM_ReadSmallString(benchmark::State& state) { benchRead(state, smallString()); }
void BM_ReadSmallStringFromXml(benchmark::State& state) { benchReadFromXml(state, smallString()); }
void BM_WriteMixedArray1000(benchmark::State& state) { benchWrite(state, mixedArray()); }
void BM_ReadMixedArray1000(benchmark::State& state) { benchRead(state, mixedArray()); }
void BM_ReadMixedArray1000FromXml(benchmark::State& state) {
  benchReadFromXml(state, mixedArray());
}

BENCHMARK(BM_WriteSmallString);
BENCHMARK(BM_ReadSmallString);
BENCHMARK(BM_ReadSmallStringFromXml);
BENCHMARK(BM_WriteMixedArray1000);
BENCHMARK(BM_ReadMixedArray1000);
BENCHMARK(BM_ReadMixedArray1000FromXml);

}  // namespace
