// Micro-benchmarks of the usage-document text: escaping and fragment building.
#include <benchmark/benchmark.h>

#include <string>

#include "UsageDoc.h"

static void BM_EscapeAttributeValue(benchmark::State& state) {
  const std::string value = "a<b & \"c\" 'd' \\e and some plain text of a crashed product";
  for (auto _ : state) {
    benchmark::DoNotOptimize(UsageDoc::EscapeAttributeValue(value));
  }
}
BENCHMARK(BM_EscapeAttributeValue);

static void BM_DataRecFragment(benchmark::State& state) {
  const std::string time = UsageDoc::CurrentTime();
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        UsageDoc::DataRecFragment(time, 1, "CrashProductName", "Some Product", 7));
  }
}
BENCHMARK(BM_DataRecFragment);
