// The sanity check of a binary property list's trailer, made before the
// bytes reach the property-list library: the library computes positions from
// the untrusted trailer before it range-checks them, and it recurses without
// limit into nested containers, so a file written by another program must
// pass here first. Pure byte arithmetic, overflow-safe.
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

// Containers nested deeper than this are refused: the library parses,
// copies and frees trees recursively, and a deep file overflows its stack.
constexpr std::size_t kMaxDepth = 128;
// Objects visited while walking the tree from its top object; a file that
// shares objects (or loops) so much that the walk exceeds it is refused, as
// the library would copy every shared object at each use.
constexpr std::size_t kMaxVisits = 1 << 20;

// True when `data` passes IsSound and the object tree under the top object,
// walked through every array, set and dictionary reference, nests at most
// kMaxDepth deep within kMaxVisits visits, every container's header and
// references lying inside the object area and naming existing objects, and
// no dictionary key being a string that holds a NUL character.
bool IsWithinBounds(const char* data, std::size_t size);

}  // namespace PlistTrailer

#endif  // LUMETRY_UTILITY_PLISTTRAILER_H_
