// Bounded C-string, memory and formatting functions with uniform statuses:
//   0  success
//  -1  invalid argument (null pointer, zero size where one is needed, a
//      destination without a terminator within its size, a radix out of range);
//      a non-null destination is then left as the empty string
//  -2  the result does not fit (truncated or refused)
// Buffers are caller-owned and given as pointer and size in bytes, the size
// counting the terminating NUL. Nothing here allocates or throws.
#ifndef LUMETRY_UTILITY_SAFESTR_H_
#define LUMETRY_UTILITY_SAFESTR_H_

#include <cstdarg>
#include <cstddef>
#include <cstdint>

namespace SafeStr {

int MemCpy(void* dst, std::size_t size, const void* src, std::size_t count);
int MemMove(void* dst, std::size_t size, const void* src, std::size_t count);
int MemSet(void* dst, std::size_t size, int byte, std::size_t count);

// Bytes before the first NUL, at most `max`; 0 for a null string or max 0.
std::size_t StrNLen(const char* s, std::size_t max);

// Re-entrant tokenizer. The first call passes the buffer and its size (its
// last byte is overwritten with NUL so the scan cannot leave the buffer);
// later calls pass null and keep `context`. Returns null when done.
char* StrTok(char* s, std::size_t size, const char* delimiters, char** context);

int StrCpy(char* dst, std::size_t size, const char* src);
int StrNCpy(char* dst, std::size_t size, const char* src, std::size_t count);
int StrCat(char* dst, std::size_t size, const char* src);
int StrNCat(char* dst, std::size_t size, const char* src, std::size_t count);

// First position within `max` bytes holding `c` (the terminator matches 0).
const char* StrNChr(const char* s, std::size_t max, int c);

// Console output: -1 for a null format, else what vprintf/vwprintf return.
int VPrintf(const char* format, va_list args);
int Printf(const char* format, ...) __attribute__((format(printf, 1, 2)));
int VWPrintf(const wchar_t* format, va_list args);
int WPrintf(const wchar_t* format, ...);

// Formatting into a buffer: the character count on success, -1 or -2.
int VSPrintf(char* dst, std::size_t size, const char* format, va_list args);
int SPrintf(char* dst, std::size_t size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
int VSNPrintf(char* dst, std::size_t size, std::size_t count, const char* format, va_list args);
int SNPrintf(char* dst, std::size_t size, std::size_t count, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// Number to text in radix 2..36 (lower-case digits). Only radix 10 writes a
// sign; other radices write the value's bit pattern as unsigned.
int IToA(std::int32_t value, char* dst, std::size_t size, int radix);
int I64ToA(std::int64_t value, char* dst, std::size_t size, int radix);
int UI64ToA(std::uint64_t value, char* dst, std::size_t size, int radix);

// Reads one line from standard input (line feed not stored). Returns dst, or
// null for a null dst or size 0.
char* GetS(char* dst, std::size_t size);

// Reverses in place the bytes before the terminator, at most `max`.
void Reverse(char* s, std::size_t max);

}  // namespace SafeStr

#endif  // LUMETRY_UTILITY_SAFESTR_H_
