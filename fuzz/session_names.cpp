// Session-information file names through the whole crash run, in process.
// Input lines: the product name, the process id, then one file name per
// line, planted (empty) in the session directory. Checked against a model
// of the run: the exit status, which files are deleted and which remain, the
// exact set of crash logs written, and that every log carries its marker and
// decodes to valid UTF-8 that ends the document.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "CrashRun.h"
#include "FuzzSupport.h"
#include "StringUtil.h"

namespace {

const char kMarker[] = "K-Q$mw#$zRTd8pofupin";

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::string::size_type start = 0;
  while (start <= text.size()) {
    std::string::size_type end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

// The log name the model expects for a session file, or "" when the file is
// no valid session of `product`.
std::string ExpectedLog(const std::string& name, const std::string& product) {
  const std::string::size_type dot = name.rfind('.');
  const std::string stem = dot == std::string::npos ? name : name.substr(0, dot);
  std::vector<std::string> pieces;
  std::string piece;
  for (char c : stem + "_") {
    if (c != '_') {
      piece += c;
    } else if (!piece.empty()) {
      pieces.push_back(piece);
      piece.clear();
    }
  }
  if (pieces.size() != 8 || pieces[7] != product) return "";
  return "ulog_LumetryQX_AppCrash_" + pieces[4] + "_" + pieces[3] + "_0.rdy";
}

std::string Rot47(std::string text) {
  for (char& c : text) {
    const int b = static_cast<unsigned char>(c);
    if (b >= 33 && b <= 126) c = static_cast<char>(33 + (b - 33 + 47) % 94);
  }
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string input = fuzz_support::Bytes(data, size);
  std::replace(input.begin(), input.end(), '\0', '0');  // arguments are C strings
  std::vector<std::string> lines = Lines(input);
  if (lines.size() < 2) return 0;
  const std::string product = lines[0];
  const std::string pid = lines[1];

  const std::string library = fuzz_support::PrivateHome() + "/Library";
  const std::string session_dir = library + "/Logs/Quorvik/LumetryQX/SessionInfo";
  const std::string log_dir = library + "/Logs/Quorvik/LogCourier2QX";
  FUZZ_CHECK(fuzz_support::WriteBytes(session_dir + "/.keep", "") &&
             fuzz_support::WriteBytes(log_dir + "/.keep", ""));
  fuzz_support::EmptyDirectory(session_dir);
  fuzz_support::EmptyDirectory(log_dir);

  std::set<std::string> planted;
  for (std::size_t i = 2; i < lines.size(); ++i) {
    const std::string& name = lines[i];
    if (name.empty() || name == "." || name == ".." || name.size() > 255 ||
        name.find('/') != std::string::npos) {
      continue;
    }
    if (fuzz_support::WriteBytes(session_dir + "/" + name, "")) planted.insert(name);
  }

  const char* argv[] = {"crash-processor", product.c_str(), pid.c_str()};
  const int status = CrashProcessor::Run(3, argv);

  std::set<std::string> matched;
  std::set<std::string> logs;
  for (const std::string& name : planted) {
    if (product.empty() || pid.empty()) break;
    if (name.find(product) == std::string::npos || name.find(pid) == std::string::npos) continue;
    matched.insert(name);
    const std::string log = ExpectedLog(name, product);
    if (!log.empty() && log.size() <= 255) logs.insert(log);
  }
  FUZZ_CHECK(status ==
             (matched.empty() ? CrashProcessor::kRunNoSessionFiles : CrashProcessor::kRunOk));

  std::vector<std::string> remaining;
  std::set_difference(planted.begin(), planted.end(), matched.begin(), matched.end(),
                      std::back_inserter(remaining));
  FUZZ_CHECK(fuzz_support::Names(session_dir) == remaining);
  FUZZ_CHECK(fuzz_support::Names(log_dir) == std::vector<std::string>(logs.begin(), logs.end()));
  for (const std::string& log : logs) {
    std::string bytes;
    FUZZ_CHECK(fuzz_support::ReadBytes(log_dir + "/" + log, &bytes));
    FUZZ_CHECK(bytes.compare(0, 20, kMarker) == 0);
    const std::string document = Rot47(bytes.substr(20));
    FUZZ_CHECK(StringUtil::IsValidUTF8(document));
    FUZZ_CHECK(document.find("</UsageDoc>\n") != std::string::npos);
  }
  return 0;
}
