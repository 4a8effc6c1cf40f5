// Linux binding of FileIO::OpenOutputStream: a buffered std::ostream over a
// file descriptor that was opened with O_NOFOLLOW and O_NONBLOCK and checked
// to be a regular file, which std::ofstream cannot promise.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <streambuf>
#include <utility>

#include "FileIO.h"
#include "Posix/FdWrite.h"
#include "Posix/ScopedFd.h"

namespace FileIO {
namespace {

// Collects bytes and hands them to the descriptor on overflow and on flush.
class FdOutputBuffer : public std::streambuf {
 public:
  explicit FdOutputBuffer(ScopedFd fd) : fd_(std::move(fd)) {
    setp(buffer_.data(), buffer_.data() + buffer_.size());
  }
  FdOutputBuffer(const FdOutputBuffer&) = delete;
  FdOutputBuffer& operator=(const FdOutputBuffer&) = delete;
  ~FdOutputBuffer() override { Flush(); }

 protected:
  int_type overflow(int_type ch) override {
    if (Flush() != 0) return traits_type::eof();
    if (traits_type::eq_int_type(ch, traits_type::eof())) return traits_type::not_eof(ch);
    *pptr() = traits_type::to_char_type(ch);
    pbump(1);
    return ch;
  }

  int sync() override { return Flush(); }

 private:
  // Not virtual, so the destructor can call it.
  int Flush() {
    const auto pending = static_cast<std::size_t>(pptr() - pbase());
    if (pending == 0) return 0;
    const bool written = posix_io::WriteAll(fd_.get(), pbase(), pending);
    setp(buffer_.data(), buffer_.data() + buffer_.size());
    return written ? 0 : -1;
  }

  ScopedFd fd_;
  std::array<char, 4096> buffer_{};
};

class FdOutputStream : public std::ostream {
 public:
  explicit FdOutputStream(ScopedFd fd) : std::ostream(nullptr), buffer_(std::move(fd)) {
    rdbuf(&buffer_);
  }

 private:
  FdOutputBuffer buffer_;
};

}  // namespace

std::unique_ptr<std::ostream> OpenOutputStream(const std::string& path, bool append) {
  if (path.empty()) return nullptr;
  // No O_TRUNC here: a FIFO or device must be refused before anything
  // happens to it, so the truncation waits for the check.
  const int flags =
      O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY | (append ? O_APPEND : 0);
  ScopedFd fd(::open(path.c_str(), flags, 0644));
  struct stat st;
  if (!fd.is_valid() || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return nullptr;
  if (!append && ::ftruncate(fd.get(), 0) != 0) return nullptr;
  // Regular files never block; later writes need no non-blocking mode.
  ::fcntl(fd.get(), F_SETFL, append ? O_APPEND : 0);
  return std::unique_ptr<std::ostream>(new FdOutputStream(std::move(fd)));
}

}  // namespace FileIO
