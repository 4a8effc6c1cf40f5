// The binary property-list trailer check; see PlistTrailer.h.
#include "PlistTrailer.h"

#include <cstring>
#include <utility>
#include <vector>

namespace PlistTrailer {
namespace {

constexpr char kMagic[] = "bplist00";
constexpr std::size_t kMagicSize = 8;
constexpr std::size_t kTrailerSize = 32;

std::uint64_t BigEndian(const unsigned char* bytes, unsigned count) {
  std::uint64_t value = 0;
  for (unsigned i = 0; i < count; ++i) value = (value << 8) | bytes[i];
  return value;
}

}  // namespace

bool IsBinary(const char* data, std::size_t size) {
  return data != nullptr && size >= kMagicSize && std::memcmp(data, kMagic, kMagicSize) == 0;
}

bool IsSound(const char* data, std::size_t size, Fields* fields) {
  if (!IsBinary(data, size) || size < kMagicSize + kTrailerSize) return false;
  const auto* bytes = reinterpret_cast<const unsigned char*>(data);
  const unsigned char* trailer = bytes + size - kTrailerSize;
  Fields f;
  f.offset_size = trailer[6];
  f.ref_size = trailer[7];
  f.object_count = BigEndian(trailer + 8, 8);
  f.top_object = BigEndian(trailer + 16, 8);
  f.table_offset = BigEndian(trailer + 24, 8);

  if (f.offset_size < 1 || f.offset_size > 8 || f.ref_size < 1 || f.ref_size > 8) return false;
  if (f.object_count == 0 || f.top_object >= f.object_count) return false;
  if (f.ref_size < 8 && f.object_count > (std::uint64_t{1} << (8 * f.ref_size))) return false;

  // The table lies in [table_offset, trailer); compared by subtraction only.
  const std::uint64_t trailer_start = size - kTrailerSize;
  if (f.table_offset < kMagicSize || f.table_offset >= trailer_start) return false;
  const std::uint64_t room = trailer_start - f.table_offset;
  if (f.object_count > room / f.offset_size) return false;

  const unsigned char* table = bytes + f.table_offset;
  for (std::uint64_t i = 0; i < f.object_count; ++i) {
    const std::uint64_t offset = BigEndian(table + i * f.offset_size, f.offset_size);
    if (offset < kMagicSize || offset >= f.table_offset) return false;
  }
  if (fields != nullptr) *fields = f;
  return true;
}

namespace {

// Reads the element count of the container whose marker is at `pos` (the
// low nibble, or an integer object after it when the nibble is 15) and
// leaves `pos` on the first reference. False when it leaves `end`.
bool ReadCount(const unsigned char* bytes, std::uint64_t end, std::uint64_t* pos,
               std::uint64_t* count) {
  const unsigned low = bytes[*pos] & 0x0F;
  ++*pos;
  if (low != 0x0F) {
    *count = low;
    return true;
  }
  if (*pos >= end || (bytes[*pos] & 0xF0) != 0x10) return false;
  const unsigned width = 1u << (bytes[*pos] & 0x0F);
  ++*pos;
  if (width > 8 || end - *pos < width) return false;
  *count = BigEndian(bytes + *pos, width);
  *pos += width;
  return true;
}

// True when the object at `pos` is an ASCII (0x5) or UTF-16 (0x6) string
// that holds a NUL character. The library aborts on a dictionary key like
// that when it is asked for the key's text.
bool IsStringWithNul(const unsigned char* bytes, std::uint64_t end, std::uint64_t pos) {
  const unsigned type = bytes[pos] >> 4;
  if (type != 0x5 && type != 0x6) return false;
  std::uint64_t count = 0;
  if (!ReadCount(bytes, end, &pos, &count)) return false;  // the library refuses it
  const unsigned width = type == 0x5 ? 1 : 2;
  if (count > (end - pos) / width) return false;
  for (std::uint64_t i = 0; i < count; ++i) {
    if (bytes[pos + i * width] == 0 && (width == 1 || bytes[pos + i * width + 1] == 0)) return true;
  }
  return false;
}

}  // namespace

bool IsWithinBounds(const char* data, std::size_t size) {
  Fields f;
  if (!IsSound(data, size, &f)) return false;
  const auto* bytes = reinterpret_cast<const unsigned char*>(data);
  const unsigned char* table = bytes + f.table_offset;
  std::vector<std::pair<std::uint64_t, std::size_t>> pending = {{f.top_object, 0}};
  std::size_t visits = 0;
  while (!pending.empty()) {
    const auto [index, depth] = pending.back();
    pending.pop_back();
    if (++visits > kMaxVisits) return false;
    std::uint64_t pos = BigEndian(table + index * f.offset_size, f.offset_size);
    const unsigned type = bytes[pos] >> 4;
    if (type != 0x0A && type != 0x0C && type != 0x0D) continue;  // not a container
    if (depth >= kMaxDepth) return false;
    std::uint64_t count = 0;
    if (!ReadCount(bytes, f.table_offset, &pos, &count)) return false;
    const std::uint64_t refs = type == 0x0D ? 2 : 1;  // a dictionary: keys, then values
    if (count > (f.table_offset - pos) / f.ref_size / refs) return false;
    for (std::uint64_t i = 0; i < count * refs; ++i) {
      const std::uint64_t child = BigEndian(bytes + pos + i * f.ref_size, f.ref_size);
      if (child >= f.object_count) return false;
      if (type == 0x0D && i < count &&
          IsStringWithNul(bytes, f.table_offset,
                          BigEndian(table + child * f.offset_size, f.offset_size))) {
        return false;
      }
      pending.emplace_back(child, depth + 1);
    }
  }
  return true;
}

}  // namespace PlistTrailer
