// Shared helpers of the fuzz targets: an invariant check that stops the run
// with a message (libFuzzer then saves the input), a private HOME made once
// per process, and small whole-file helpers that do not use the code under
// test.
#ifndef LUMETRY_FUZZ_FUZZSUPPORT_H_
#define LUMETRY_FUZZ_FUZZSUPPORT_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace fuzz_support {

[[noreturn]] void Fail(const char* file, int line, const char* condition);

// A directory of its own under /tmp for this process, made on first use and
// removed at exit; HOME points at it from then on.
const std::string& PrivateHome();

// Writes `bytes` to `path` (mode 0600), creating missing parent directories.
bool WriteBytes(const std::string& path, const std::string& bytes);
bool ReadBytes(const std::string& path, std::string* bytes);
// Removes everything inside `dir` (not `dir` itself).
void EmptyDirectory(const std::string& dir);
// The names in `dir`, sorted, without "." and "..".
std::vector<std::string> Names(const std::string& dir);

// The input's bytes as a string.
inline std::string Bytes(const std::uint8_t* data, std::size_t size) {
  return std::string(reinterpret_cast<const char*>(data), size);
}

// Splits `input` at the first `separator` byte: the part before it goes to
// `first`, the rest to `second` (empty when there is none).
void SplitOnce(const std::string& input, char separator, std::string* first, std::string* second);

}  // namespace fuzz_support

#define FUZZ_CHECK(condition) \
  ((condition) ? (void)0 : ::fuzz_support::Fail(__FILE__, __LINE__, #condition))

#endif  // LUMETRY_FUZZ_FUZZSUPPORT_H_
