// The fuzz targets' shared helpers; see FuzzSupport.h.
#include "FuzzSupport.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace fuzz_support {

void Fail(const char* file, int line, const char* condition) {
  std::fprintf(stderr, "invariant broken at %s:%d: %s\n", file, line, condition);
  std::abort();
}

const std::string& PrivateHome() {
  static const std::string home = [] {
    char pattern[] = "/tmp/lumetry-fuzz-XXXXXX";
    const char* made = ::mkdtemp(pattern);
    if (made == nullptr) Fail(__FILE__, __LINE__, "mkdtemp");
    std::string path = made;
    ::setenv("HOME", path.c_str(), 1);
    static const std::string removed_at_exit = path;
    std::atexit([] {
      std::error_code ignored;
      std::filesystem::remove_all(removed_at_exit, ignored);
    });
    return path;
  }();
  return home;
}

bool WriteBytes(const std::string& path, const std::string& bytes) {
  std::error_code error;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), error);
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  out.close();
  return static_cast<bool>(out);
}

bool ReadBytes(const std::string& path, std::string* bytes) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  bytes->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return true;
}

void EmptyDirectory(const std::string& dir) {
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(dir, error)) {
    std::error_code ignored;
    std::filesystem::remove_all(entry.path(), ignored);
  }
}

std::vector<std::string> Names(const std::string& dir) {
  std::vector<std::string> names;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(dir, error)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

void SplitOnce(const std::string& input, char separator, std::string* first, std::string* second) {
  const std::string::size_type at = input.find(separator);
  *first = input.substr(0, at);
  *second = at == std::string::npos ? std::string() : input.substr(at + 1);
}

}  // namespace fuzz_support
