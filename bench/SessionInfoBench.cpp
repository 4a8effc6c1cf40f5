// Micro-benchmarks of the crash run's look-up: decoding a session name and
// matching a large session-information directory.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "FileUtil.h"
#include "SessionInfo.h"

static void BM_ParseSessionInfoName(benchmark::State& state) {
  const std::string name =
      "4711_QuorvikCreative_PhotoStudio_SESS-20261123-01_K7F3_main_2_PhotoStudio.info";
  for (auto _ : state) {
    benchmark::DoNotOptimize(CrashProcessor::ParseSessionInfoName(name));
  }
}
BENCHMARK(BM_ParseSessionInfoName);

// A directory of `range(0)` unrelated entries and one match, as a busy
// machine's session directory may hold.
static void BM_FindSessionInfoFiles(benchmark::State& state) {
  char templ[] = "/tmp/lumetry-bench-XXXXXX";
  const std::string home = mkdtemp(templ);
  const std::string dir = home + "/Logs/Quorvik/LumetryQX/SessionInfo/";
  FileUtil::CreateDirectories(dir);
  for (int64_t i = 0; i < state.range(0); ++i) {
    const std::string path = dir + "9_F_N_S_K_x_y_Other." + std::to_string(i);
    close(open(path.c_str(), O_WRONLY | O_CREAT, 0600));
  }
  close(open((dir + "1234_Fam_Name_S1_K1_x_y_Prod.info").c_str(), O_WRONLY | O_CREAT, 0600));

  std::vector<std::string> names;
  for (auto _ : state) {
    CrashProcessor::FindSessionInfoFiles(home, "Prod", "1234", &names);
    benchmark::DoNotOptimize(names.data());
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
  FileUtil::Remove(home);
}
BENCHMARK(BM_FindSessionInfoFiles)->Arg(1000)->Arg(20000);
