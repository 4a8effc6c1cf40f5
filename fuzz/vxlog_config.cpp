// VxLog.config: the value ReadConfigValue gives for the first key of the
// text and for "append" agrees with a character-by-character model of the
// line rules (lines of at most 511 characters, a longer one ends the
// reading; a NUL ends a line's text; tokens at runs of " =;,"; the first two
// tokens of a line set key and value; later lines win).
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "Logger.h"

namespace {

std::map<std::string, std::string> Model(const std::string& text) {
  std::map<std::string, std::string> values;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = start;
    while (end < text.size() && text[end] != '\n') ++end;
    if (end - start > 511) break;
    std::vector<std::string> tokens(1);
    for (std::size_t i = start; i < end && text[i] != '\0'; ++i) {
      const char c = text[i];
      if (c == ' ' || c == '=' || c == ';' || c == ',') {
        if (!tokens.back().empty()) tokens.emplace_back();
      } else {
        tokens.back() += c;
      }
    }
    if (tokens.back().empty()) tokens.pop_back();
    if (tokens.size() >= 2) values[tokens[0]] = tokens[1];
    start = end + 1;
  }
  return values;
}

std::string FirstToken(const std::string& text) {
  const std::size_t start = text.find_first_not_of(" =;,");
  if (start == std::string::npos) return "append";
  const std::size_t end = text.find_first_of(" =;,\n", start);
  return text.substr(start, end == std::string::npos ? std::string::npos : end - start);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = fuzz_support::Bytes(data, size);
  const std::string path = fuzz_support::PrivateHome() + "/VxLog.config";
  FUZZ_CHECK(fuzz_support::WriteBytes(path, text));
  const std::map<std::string, std::string> model = Model(text);
  for (const std::string& key : {std::string("append"), FirstToken(text)}) {
    const auto found = model.find(key);
    const std::string expected = found == model.end() ? std::string() : found->second;
    FUZZ_CHECK(ReadConfigValue(path, key) == expected);
  }
  return 0;
}
