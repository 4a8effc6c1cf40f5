// Settings text: whatever a load makes of the bytes, a save and a second load
// give back exactly the same dictionary, a second save writes the same bytes,
// and every stored path answers GetValue with its value.
#include <cstddef>
#include <cstdint>

#include "FuzzSupport.h"
#include "SettingsFile.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using fuzz_support::Bytes;
  const std::string path = fuzz_support::PrivateHome() + "/settings.cfg";

  SettingsFile loaded;
  loaded.LoadText(Bytes(data, size));
  for (const auto& entry : loaded.entries()) {
    const std::string::size_type slash = entry.first.find('/');
    FUZZ_CHECK(slash != std::string::npos);
    // A path whose parts hold surrounding blanks after the first "/" cannot
    // be asked for through GetValue's trimming; all others must answer.
    const std::string section = entry.first.substr(0, slash);
    const std::string key = entry.first.substr(slash + 1);
    if (key.find('/') == std::string::npos)
      FUZZ_CHECK(loaded.GetValue(section, key) == entry.second);
  }

  FUZZ_CHECK(loaded.Save(path) == 0);
  SettingsFile reread;
  FUZZ_CHECK(reread.Load(path) == 0);
  FUZZ_CHECK(reread.entries() == loaded.entries());

  std::string first;
  std::string second;
  FUZZ_CHECK(fuzz_support::ReadBytes(path, &first));
  FUZZ_CHECK(reread.Save(path) == 0);
  FUZZ_CHECK(fuzz_support::ReadBytes(path, &second));
  FUZZ_CHECK(first == second);
  return 0;
}
