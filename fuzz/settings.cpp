// Settings text: the input is a configuration text and a received text,
// separated by the first NUL byte. Whatever a load makes of the bytes, a save
// and a second load give back the same dictionary and a second save the same
// bytes; every stored path answers GetValue with its value; merging the
// received text succeeds and leaves a dictionary that round-trips too. The
// configuration read as VxLog.config gives a value without separators.
#include <cstddef>
#include <cstdint>

#include "FuzzSupport.h"
#include "Logger.h"
#include "SettingsFile.h"
#include "UploaderStatus.h"

namespace {

void CheckRoundTrip(const SettingsFile& loaded, const std::string& path) {
  for (const auto& entry : loaded.entries()) {
    const std::string::size_type slash = entry.first.find('/');
    FUZZ_CHECK(slash != std::string::npos);
    // A key holding "/" cannot be asked for through GetValue's trimming.
    const std::string key = entry.first.substr(slash + 1);
    if (key.find('/') == std::string::npos)
      FUZZ_CHECK(loaded.GetValue(entry.first.substr(0, slash), key) == entry.second);
  }
  FUZZ_CHECK(loaded.Save(path) == 0);
  SettingsFile reread;
  FUZZ_CHECK(reread.Load(path) == 0);
  FUZZ_CHECK(reread.entries() == loaded.entries());
  std::string first;
  std::string second;
  FUZZ_CHECK(fuzz_support::ReadBytes(path, &first));
  FUZZ_CHECK(reread.Save(path) == 0);
  FUZZ_CHECK(fuzz_support::ReadBytes(path, &second) && first == second);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string path = fuzz_support::PrivateHome() + "/settings.cfg";
  std::string configuration;
  std::string received;
  fuzz_support::SplitOnce(fuzz_support::Bytes(data, size), '\0', &configuration, &received);
  SettingsFile target;
  target.LoadText(configuration);
  CheckRoundTrip(target, path);
  FUZZ_CHECK(Uploader::MergeSettings(target, received) == 0);
  CheckRoundTrip(target, path);

  const std::string vxlog = fuzz_support::PrivateHome() + "/VxLog.config";
  FUZZ_CHECK(fuzz_support::WriteBytes(vxlog, configuration));
  FUZZ_CHECK(ReadConfigValue(vxlog, "append").find_first_of(" =;,\n") == std::string::npos);
  return 0;
}
