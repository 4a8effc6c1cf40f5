// The built crash-processor's form: a position-independent executable whose
// only shared objects are the C library and libplist, so that start-up maps
// and resolves no more than the run needs. The C++ runtime, libgcc, Expat
// and libuuid are linked in (the sanitizer build keeps the C++ runtime
// shared, as its own runtime expects).
#include <elf.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "TestSupport.h"

namespace {

// Copies a T from `offset` of `bytes`; false when it does not fit.
template <typename T>
bool ReadAt(const std::string& bytes, std::uint64_t offset, T* out) {
  if (offset > bytes.size() || bytes.size() - offset < sizeof(T)) return false;
  std::memcpy(out, bytes.data() + offset, sizeof(T));
  return true;
}

struct ElfFacts {
  std::uint16_t type = ET_NONE;
  bool has_interpreter = false;
  std::vector<std::string> needed;
};

// Reads the header, the program headers and the DT_NEEDED names of the
// dynamic section. False for anything that is not a well-formed ELF64 file.
bool ReadElf(const std::string& bytes, ElfFacts* facts) {
  Elf64_Ehdr header;
  if (!ReadAt(bytes, 0, &header) || std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 ||
      header.e_ident[EI_CLASS] != ELFCLASS64) {
    return false;
  }
  facts->type = header.e_type;
  for (std::uint16_t i = 0; i < header.e_phnum; ++i) {
    Elf64_Phdr program;
    if (!ReadAt(bytes, header.e_phoff + std::uint64_t{i} * sizeof program, &program)) return false;
    if (program.p_type == PT_INTERP) facts->has_interpreter = true;
  }
  for (std::uint16_t i = 0; i < header.e_shnum; ++i) {
    Elf64_Shdr section;
    Elf64_Shdr strings;
    if (!ReadAt(bytes, header.e_shoff + std::uint64_t{i} * sizeof section, &section)) return false;
    if (section.sh_type != SHT_DYNAMIC) continue;
    if (!ReadAt(bytes, header.e_shoff + std::uint64_t{section.sh_link} * sizeof strings,
                &strings)) {
      return false;
    }
    for (std::uint64_t at = 0; at + sizeof(Elf64_Dyn) <= section.sh_size; at += sizeof(Elf64_Dyn)) {
      Elf64_Dyn entry;
      if (!ReadAt(bytes, section.sh_offset + at, &entry)) return false;
      if (entry.d_tag == DT_NULL) break;
      if (entry.d_tag != DT_NEEDED) continue;
      const std::uint64_t name = strings.sh_offset + entry.d_un.d_val;
      if (name >= bytes.size()) return false;
      facts->needed.emplace_back(bytes.c_str() + name);
    }
  }
  return true;
}

bool NeedsLibrary(const ElfFacts& facts, const std::string& prefix) {
  for (const std::string& name : facts.needed) {
    if (name.compare(0, prefix.size(), prefix) == 0) return true;
  }
  return false;
}

TEST(CrashProcessorLink, PositionIndependentWithOnlyTheSharedLibrariesItMust) {
  std::string bytes;
  ASSERT_TRUE(testing_support::ReadFile(CRASH_PROCESSOR_PATH, &bytes));
  ElfFacts facts;
  ASSERT_TRUE(ReadElf(bytes, &facts));
  EXPECT_EQ(facts.type, ET_DYN);  // PIE: loaded at a random address
  EXPECT_TRUE(facts.has_interpreter);
  EXPECT_TRUE(NeedsLibrary(facts, "libc.so"));
  EXPECT_TRUE(NeedsLibrary(facts, "libplist"));
  EXPECT_FALSE(NeedsLibrary(facts, "libexpat.so"));
  EXPECT_FALSE(NeedsLibrary(facts, "libuuid.so"));
#if !defined(__SANITIZE_ADDRESS__)
  EXPECT_FALSE(NeedsLibrary(facts, "libstdc++.so"));
  EXPECT_FALSE(NeedsLibrary(facts, "libgcc_s.so"));
  for (const std::string& name : facts.needed) {
    EXPECT_TRUE(name.rfind("libc.so", 0) == 0 || name.rfind("libplist", 0) == 0 ||
                name.rfind("ld-linux", 0) == 0)
        << name;
  }
#endif
}

}  // namespace
