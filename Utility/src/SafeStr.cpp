// Bounded string, memory and formatting functions. Every function checks its
// arguments before touching memory and reports through the shared statuses.
#include "SafeStr.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <cwchar>

namespace SafeStr {
namespace {

constexpr int kOk = 0;
constexpr int kInvalid = -1;
constexpr int kTooSmall = -2;

// Leaves a usable destination as the empty string after a refusal.
void Clear(void* dst, std::size_t size) {
  if (dst != nullptr && size > 0) static_cast<char*>(dst)[0] = '\0';
}

int Invalid(void* dst, std::size_t size) {
  Clear(dst, size);
  return kInvalid;
}

// The conversion core shared by all number-to-text functions. Digits come
// from the remainder of the low 32 bits of the running value while the value
// itself is divided as a 64-bit number; for radices that are not powers of two
// and values of 2^32 or more this differs from the true representation, which
// existing readers of these texts expect.
int ConvertNumber(std::uint64_t magnitude, bool negative, char* dst, std::size_t size, int radix) {
  if (dst == nullptr || radix < 2 || radix > 36) return Invalid(dst, size);
  const auto base = static_cast<std::uint64_t>(radix);

  std::size_t digits = 0;
  std::uint64_t rest = magnitude;
  do {
    ++digits;
    rest /= base;
  } while (rest != 0);
  // One byte for a sign and one for the terminator, sign or not.
  const std::size_t needed = digits + 2;
  if (needed > size) {
    Clear(dst, size);
    return kTooSmall;
  }

  std::size_t pos = 0;
  rest = magnitude;
  do {
    const auto digit =
        static_cast<std::uint32_t>(rest & 0xFFFFFFFFu) % static_cast<std::uint32_t>(radix);
    dst[pos++] = static_cast<char>(digit < 10 ? '0' + digit : 'a' + (digit - 10));
    rest /= base;
  } while (rest != 0);
  if (negative) dst[pos++] = '-';
  dst[pos] = '\0';
  Reverse(dst, size);
  return kOk;
}

}  // namespace

int MemCpy(void* dst, std::size_t size, const void* src, std::size_t count) {
  if (dst == nullptr || src == nullptr) return Invalid(dst, size);
  if (size < count) return kTooSmall;
  if (count > 0) std::memcpy(dst, src, count);
  return kOk;
}

int MemMove(void* dst, std::size_t size, const void* src, std::size_t count) {
  if (dst == nullptr || src == nullptr) return Invalid(dst, size);
  if (size < count) return kTooSmall;
  if (count > 0) std::memmove(dst, src, count);
  return kOk;
}

int MemSet(void* dst, std::size_t size, int byte, std::size_t count) {
  if (dst == nullptr) return kInvalid;
  if (size < count) return kTooSmall;
  if (count > 0) std::memset(dst, byte, count);
  return kOk;
}

std::size_t StrNLen(const char* s, std::size_t max) {
  if (s == nullptr || max == 0) return 0;
  const void* nul = std::memchr(s, '\0', max);
  return nul == nullptr ? max : static_cast<std::size_t>(static_cast<const char*>(nul) - s);
}

char* StrTok(char* s, std::size_t size, const char* delimiters, char** context) {
  if (size == 0) return nullptr;
  if (s != nullptr) s[size - 1] = '\0';  // the scan can never leave the buffer
  if (delimiters == nullptr || context == nullptr) return nullptr;
  if (s == nullptr && *context == nullptr) return nullptr;

  auto is_delimiter = [delimiters](char c) {
    return c != '\0' && std::strchr(delimiters, c) != nullptr;
  };
  char* p = s != nullptr ? s : *context;
  while (is_delimiter(*p)) ++p;
  if (*p == '\0') {
    *context = p;
    return nullptr;
  }
  char* token = p;
  for (;; ++p) {
    if (*p == '\0') {
      *context = p;
      return token;
    }
    if (is_delimiter(*p)) {
      *p = '\0';
      *context = p + 1;
      return token;
    }
  }
}

int StrCpy(char* dst, std::size_t size, const char* src) {
  if (dst == nullptr || size == 0) return kInvalid;
  if (src == nullptr) return Invalid(dst, size);
  const std::size_t length = StrNLen(src, size);
  if (length < size) {
    std::memmove(dst, src, length + 1);  // the terminator included
    return kOk;
  }
  std::memmove(dst, src, size - 1);
  dst[size - 1] = '\0';
  return kTooSmall;
}

int StrNCpy(char* dst, std::size_t size, const char* src, std::size_t count) {
  if (dst == nullptr && size == 0 && count == 0) return kOk;
  if (dst == nullptr || size == 0) return kInvalid;
  if (count == 0) {
    dst[0] = '\0';
    return kOk;
  }
  if (src == nullptr) return Invalid(dst, size);
  // Never scans src further than it could be copied.
  const std::size_t length = StrNLen(src, count < size ? count : size);
  if (length < size) {
    std::memmove(dst, src, length);
    dst[length] = '\0';
    return kOk;
  }
  std::memmove(dst, src, size - 1);
  dst[size - 1] = '\0';
  return kTooSmall;
}

int StrNCat(char* dst, std::size_t size, const char* src, std::size_t count) {
  if (dst == nullptr && size == 0) return kOk;
  if (dst == nullptr || size == 0) return kInvalid;
  const std::size_t used = StrNLen(dst, size);
  if (used == size) return Invalid(dst, size);  // no terminator within size
  if (count == 0) return kOk;
  if (src == nullptr) return Invalid(dst, size);
  const std::size_t room = size - used;  // includes the terminator's byte
  const std::size_t length = StrNLen(src, count < room ? count : room);
  if (length < room) {
    std::memmove(dst + used, src, length);
    dst[used + length] = '\0';
    return kOk;
  }
  std::memmove(dst + used, src, room - 1);
  dst[size - 1] = '\0';
  return kTooSmall;
}

int StrCat(char* dst, std::size_t size, const char* src) {
  return StrNCat(dst, size, src, static_cast<std::size_t>(-1));
}

const char* StrNChr(const char* s, std::size_t max, int c) {
  if (s == nullptr || max == 0) return nullptr;
  const char wanted = static_cast<char>(c);
  for (std::size_t i = 0; i < max; ++i) {
    if (s[i] == wanted) return s + i;
    if (s[i] == '\0') break;
  }
  return nullptr;
}

int VPrintf(const char* format, va_list args) {
  if (format == nullptr) return kInvalid;
  // `args` is the caller's list, started by it (the analyser cannot see that).
  return std::vprintf(format, args);  // NOLINT(clang-analyzer-valist.Uninitialized)
}

int Printf(const char* format, ...) {
  if (format == nullptr) return kInvalid;
  va_list args;
  va_start(args, format);
  const int result = VPrintf(format, args);
  va_end(args);
  return result;
}

int VWPrintf(const wchar_t* format, va_list args) {
  if (format == nullptr) return kInvalid;
  return std::vwprintf(format, args);  // NOLINT(clang-analyzer-valist.Uninitialized)
}

int WPrintf(const wchar_t* format, ...) {
  if (format == nullptr) return kInvalid;
  va_list args;
  va_start(args, format);
  const int result = VWPrintf(format, args);
  va_end(args);
  return result;
}

int VSPrintf(char* dst, std::size_t size, const char* format, va_list args) {
  if (format == nullptr || dst == nullptr || size == 0) return Invalid(dst, size);
  const int n =
      std::vsnprintf(dst, size, format, args);  // NOLINT(clang-analyzer-valist.Uninitialized)
  if (n < 0) return Invalid(dst, size);         // an encoding error: nothing usable
  return static_cast<std::size_t>(n) < size ? n : kTooSmall;
}

int SPrintf(char* dst, std::size_t size, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int result = VSPrintf(dst, size, format, args);
  va_end(args);
  return result;
}

int VSNPrintf(char* dst, std::size_t size, std::size_t count, const char* format, va_list args) {
  if (count == 0 && dst == nullptr && size == 0) return kOk;
  if (format == nullptr || dst == nullptr || size == 0) return Invalid(dst, size);
  if (count == 0) {
    dst[0] = '\0';
    return kOk;
  }
  const std::size_t limit = count < size ? count + 1 : size;
  const int n =
      std::vsnprintf(dst, limit, format, args);  // NOLINT(clang-analyzer-valist.Uninitialized)
  dst[limit - 1] = '\0';
  if (n < 0) return Invalid(dst, size);
  return (static_cast<std::size_t>(n) < size || count < size) ? n : kTooSmall;
}

int SNPrintf(char* dst, std::size_t size, std::size_t count, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int result = VSNPrintf(dst, size, count, format, args);
  va_end(args);
  return result;
}

int IToA(std::int32_t value, char* dst, std::size_t size, int radix) {
  // Outside radix 10 a negative value is written as its 32-bit pattern.
  if (radix == 10) return I64ToA(value, dst, size, radix);
  return UI64ToA(static_cast<std::uint32_t>(value), dst, size, radix);
}

int I64ToA(std::int64_t value, char* dst, std::size_t size, int radix) {
  const auto bits = static_cast<std::uint64_t>(value);
  if (radix == 10 && value < 0) return ConvertNumber(0u - bits, true, dst, size, radix);
  return ConvertNumber(bits, false, dst, size, radix);
}

int UI64ToA(std::uint64_t value, char* dst, std::size_t size, int radix) {
  return ConvertNumber(value, false, dst, size, radix);
}

char* GetS(char* dst, std::size_t size) {
  if (dst == nullptr || size == 0) return nullptr;
  std::size_t stored = 0;
  for (;;) {
    const int c = std::getchar();
    // A 0xFF byte ends the line as the end of input does.
    if (c == EOF || c == '\n' || c == 0xFF) break;
    if (stored < size) dst[stored++] = static_cast<char>(c);
  }
  if (stored < size) {
    dst[stored] = '\0';
  } else {
    dst[0] = '\0';  // the line and its terminator did not fit
  }
  return dst;
}

void Reverse(char* s, std::size_t max) {
  if (s != nullptr) std::reverse(s, s + StrNLen(s, max));
}

}  // namespace SafeStr
