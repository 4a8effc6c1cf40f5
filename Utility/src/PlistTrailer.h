// The sanity check of a binary property list's trailer, made before the
// bytes reach the property-list library: the library computes positions from
// the untrusted trailer before it range-checks them, so a file written by
// another program must pass here first. Pure byte arithmetic, overflow-safe.
#ifndef LUMETRY_UTILITY_PLISTTRAILER_H_
#define LUMETRY_UTILITY_PLISTTRAILER_H_

#include <cstddef>
#include <cstdint>

namespace PlistTrailer {

// The fields of the 32-byte trailer at the end of a binary property list.
struct Fields {
  unsigned offset_size = 0;        // bytes per entry of the offset table
  unsigned ref_size = 0;           // bytes per object reference
  std::uint64_t object_count = 0;  // entries of the offset table
  std::uint64_t top_object = 0;    // index of the root object
  std::uint64_t table_offset = 0;  // file position of the offset table
};

// True when the bytes begin with the binary property-list magic "bplist00".
bool IsBinary(const char* data, std::size_t size);

// True when `data` is long enough to hold a header and a trailer, and the
// trailer is consistent with the file: sizes 1..8, at least one object, the
// top object among them, references wide enough to name every object, the
// offset table after the header and wholly before the trailer, and every
// offset in it pointing between the header and the table. `fields`, when
// given, receives the trailer on success. False for anything else.
bool IsSound(const char* data, std::size_t size, Fields* fields = nullptr);

}  // namespace PlistTrailer

#endif  // LUMETRY_UTILITY_PLISTTRAILER_H_
