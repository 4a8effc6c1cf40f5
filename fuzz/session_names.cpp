// Session-information file names through the whole crash run, in process.
// Input lines: the product name, the process id, then one file name per
// line, planted (empty) in the session directory. Checked without a model:
// the run ends with a known status, removes only planted files, and every
// crash log it writes carries its marker and a complete, valid UTF-8
// document.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "CrashRun.h"
#include "FuzzSupport.h"
#include "MiniSession.h"
#include "StringUtil.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string input = fuzz_support::Bytes(data, size);
  std::replace(input.begin(), input.end(), '\0', '0');  // arguments are C strings
  std::istringstream lines(input);
  std::string product;
  std::string pid;
  if (!std::getline(lines, product) || !std::getline(lines, pid)) return 0;

  const std::string library = fuzz_support::PrivateHome() + "/Library";
  const std::string session_dir = library + "/Logs/Quorvik/LumetryQX/SessionInfo";
  const std::string log_dir = library + "/Logs/Quorvik/LogCourier2QX";
  FUZZ_CHECK(fuzz_support::WriteBytes(session_dir + "/.keep", "") &&
             fuzz_support::WriteBytes(log_dir + "/.keep", ""));
  fuzz_support::EmptyDirectory(session_dir);
  fuzz_support::EmptyDirectory(log_dir);
  for (std::string name; std::getline(lines, name);) {
    if (name != "." && name != ".." && name.size() <= 255 && name.find('/') == std::string::npos)
      fuzz_support::WriteBytes(session_dir + "/" + name, "");
  }
  const std::vector<std::string> planted = fuzz_support::Names(session_dir);

  const char* argv[] = {"crash-processor", product.c_str(), pid.c_str()};
  const int status = CrashProcessor::Run(3, argv);
  FUZZ_CHECK(status == CrashProcessor::kRunOk || status == CrashProcessor::kRunNoSessionFiles);
  const std::vector<std::string> remaining = fuzz_support::Names(session_dir);
  FUZZ_CHECK(std::includes(planted.begin(), planted.end(), remaining.begin(), remaining.end()));
  if (status == CrashProcessor::kRunNoSessionFiles) FUZZ_CHECK(remaining == planted);

  for (const std::string& log : fuzz_support::Names(log_dir)) {
    std::string bytes;
    FUZZ_CHECK(fuzz_support::ReadBytes(log_dir + "/" + log, &bytes));
    FUZZ_CHECK(bytes.compare(0, 20, "K-Q$mw#$zRTd8pofupin") == 0);
    const std::string document = MiniSession::UnscrambleText(bytes.substr(20));
    FUZZ_CHECK(StringUtil::IsValidUTF8(document));
    FUZZ_CHECK(document.find("</UsageDoc>\n") != std::string::npos);
  }
  return 0;
}
