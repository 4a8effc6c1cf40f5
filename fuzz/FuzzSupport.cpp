// The fuzz targets' shared helpers; see FuzzSupport.h.
#include "FuzzSupport.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace fuzz_support {
namespace fs = std::filesystem;

void Fail(const char* file, int line, const char* condition) {
  std::fprintf(stderr, "invariant broken at %s:%d: %s\n", file, line, condition);
  std::abort();
}

const std::string& PrivateHome() {
  static char pattern[] = "/tmp/lumetry-fuzz-XXXXXX";  // outlives the string, for atexit
  static const std::string home = [] {
    if (::mkdtemp(pattern) == nullptr) Fail(__FILE__, __LINE__, "mkdtemp");
    ::setenv("HOME", pattern, 1);
    std::atexit([] {
      std::error_code ignored;
      fs::remove_all(pattern, ignored);
    });
    return std::string(pattern);
  }();
  return home;
}

bool WriteBytes(const std::string& path, const std::string& bytes) {
  std::error_code error;
  fs::create_directories(fs::path(path).parent_path(), error);
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  out.close();
  return static_cast<bool>(out);
}

bool ReadBytes(const std::string& path, std::string* bytes) {
  std::ifstream in(path, std::ios::binary);
  bytes->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return static_cast<bool>(in);
}

void EmptyDirectory(const std::string& dir) {
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(dir, error)) fs::remove_all(entry.path(), error);
}

std::vector<std::string> Names(const std::string& dir) {
  std::vector<std::string> names;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(dir, error))
    names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

void SplitOnce(const std::string& input, char separator, std::string* first, std::string* second) {
  const std::string::size_type at = input.find(separator);
  *first = input.substr(0, at);
  *second = at == std::string::npos ? std::string() : input.substr(at + 1);
}

}  // namespace fuzz_support
