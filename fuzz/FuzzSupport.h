// Shared helpers of the fuzz targets: an invariant check that stops the run
// (libFuzzer then saves the input), a private HOME, and whole-file helpers
// that do not use the code under test.
#ifndef LUMETRY_FUZZ_FUZZSUPPORT_H_
#define LUMETRY_FUZZ_FUZZSUPPORT_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace fuzz_support {

[[noreturn]] void Fail(const char* file, int line, const char* condition);
// A directory of this process's own, removed at exit; HOME points at it.
const std::string& PrivateHome();
// Writes `bytes`, creating missing parent directories.
bool WriteBytes(const std::string& path, const std::string& bytes);
bool ReadBytes(const std::string& path, std::string* bytes);
void EmptyDirectory(const std::string& dir);             // its contents, not itself
std::vector<std::string> Names(const std::string& dir);  // sorted
inline std::string Bytes(const std::uint8_t* data, std::size_t size) {
  return std::string(reinterpret_cast<const char*>(data), size);
}
// `input` up to the first `separator` goes to `first`, the rest to `second`.
void SplitOnce(const std::string& input, char separator, std::string* first, std::string* second);

}  // namespace fuzz_support

#define FUZZ_CHECK(condition) \
  ((condition) ? (void)0 : ::fuzz_support::Fail(__FILE__, __LINE__, #condition))

#endif  // LUMETRY_FUZZ_FUZZSUPPORT_H_
