// Micro-benchmarks of the usage-document text (escaping, fragments, a whole
// crash document) and of the string helpers it and the settings file rest on.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

#include "StringUtil.h"
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

static void BM_TenElementDocument(benchmark::State& state) {
  const std::string time = UsageDoc::CurrentTime();
  for (auto _ : state) {
    UsageDoc::Counters counters;
    std::string doc = UsageDoc::StartFragment("SESSIONKEY", time, counters.NextSeq());
    for (int g = 0; g < 2; ++g) {
      const std::int32_t group = counters.NextGroup();
      doc += UsageDoc::NewGroupFragment("AppExit", "Crash", "ExitInfo", time, group, "",
                                        counters.NextSeq());
      for (int r = 0; r < 3; ++r) {
        doc += UsageDoc::DataRecFragment(time, group, "CrashProductName", "Some Product",
                                         counters.NextSeq());
      }
    }
    doc += UsageDoc::EndFragment("SESSIONKEY", time, counters.NextSeq());
    benchmark::DoNotOptimize(doc);
  }
}
BENCHMARK(BM_TenElementDocument);

static void BM_SplitSessionInfoName(benchmark::State& state) {
  const std::string name = "SessionInfo_LumetryQX_AppCrash_12345_Some Product_1.2.3_ABCDEF_0";
  std::vector<std::string> tokens;
  for (auto _ : state) {
    StringUtil::Split(name, &tokens, "_");
    benchmark::DoNotOptimize(tokens.data());
  }
}
BENCHMARK(BM_SplitSessionInfoName);

static void BM_TrimSettingsLine(benchmark::State& state) {
  const std::string line = " \t  MaxUploadSize = 1048576 \r\n";
  for (auto _ : state) {
    benchmark::DoNotOptimize(StringUtil::Trim(line, StringUtil::kWhitespace));
  }
}
BENCHMARK(BM_TrimSettingsLine);

static void BM_ValidateUtf8(benchmark::State& state) {
  std::string text;
  for (int i = 0; i < 64; ++i) text += "plain ascii \xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80 ";
  for (auto _ : state) {
    benchmark::DoNotOptimize(StringUtil::IsValidUTF8(text));
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                          static_cast<std::int64_t>(text.size()));
}
BENCHMARK(BM_ValidateUtf8);
