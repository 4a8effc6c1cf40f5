// The guards in front of the property-list library: the binary trailer and
// object-tree bounds, and the write guard that refuses bytes which do not
// read back as the tree they were made from.
#include <gtest/gtest.h>
#include <plist/plist.h>

#include <cstdint>
#include <string>
#include <utility>

#include "PlistTrailer.h"
#include "Posix/PlistGuards.h"
#include "Posix/ScopedPlist.h"
#include "TestSupport.h"

namespace {

using testing_support::NestedBinaryArrays;

// The trailer check on a minimal binary list (an empty dictionary), one
// field spoiled at a time, with values chosen to overflow naive arithmetic.
TEST(PlistTrailerTest, EveryFieldIsCheckedAgainstTheFile) {
  const auto make = [](unsigned offset_size, unsigned ref_size, std::uint64_t count,
                       std::uint64_t top, std::uint64_t table, unsigned char entry) {
    std::string bytes = "bplist00";
    bytes += '\xD0';                    // the object: an empty dictionary, at 8
    bytes += static_cast<char>(entry);  // the offset table, at 9
    bytes.append(6, '\0');
    bytes += static_cast<char>(offset_size);
    bytes += static_cast<char>(ref_size);
    for (std::uint64_t value : {count, top, table}) {
      for (int shift = 56; shift >= 0; shift -= 8) bytes += static_cast<char>(value >> shift);
    }
    return bytes;
  };
  const std::uint64_t kMax = ~std::uint64_t{0};
  PlistTrailer::Fields fields;
  const std::string sound = make(1, 1, 1, 0, 9, 8);
  EXPECT_TRUE(PlistTrailer::IsSound(sound.data(), sound.size(), &fields));
  for (const std::string& b :
       {make(0, 1, 1, 0, 9, 8), make(9, 1, 1, 0, 9, 8), make(1, 0, 1, 0, 9, 8),
        make(1, 9, 1, 0, 9, 8), make(1, 1, 0, 0, 9, 8), make(1, 1, 1, 1, 9, 8),
        make(1, 1, kMax, 0, 9, 8), make(8, 8, kMax / 4, 0, 9, 8), make(1, 1, 1, 0, kMax - 7, 8),
        make(1, 1, 1, 0, 3, 8), make(1, 1, 1, 0, 10, 8), make(1, 1, 1, 0, 9, 9),
        make(1, 1, 1, 0, 9, 2), make(1, 1, 1, 0, 9, 8).substr(0, 39),
        "bplist01" + make(1, 1, 1, 0, 9, 8).substr(8)})
    EXPECT_FALSE(PlistTrailer::IsSound(b.data(), b.size(), &fields)) << b.size();
}

// Nesting is bounded before the library (which recurses) sees a file, and
// so are loops and counts that run past the objects.
TEST(PlistTrailerTest, NestingLoopsAndCountsAreBounded) {
  const std::uint32_t limit = PlistTrailer::kMaxDepth;
  std::string overrun = NestedBinaryArrays(2);
  overrun[8] = '\xA5';  // five references where the object area holds one
  const std::pair<std::string, bool> cases[] = {{NestedBinaryArrays(1), true},
                                                {NestedBinaryArrays(limit), true},
                                                {NestedBinaryArrays(limit + 1), false},
                                                {NestedBinaryArrays(3, true), false},
                                                {overrun, false}};
  for (const auto& [bytes, sound] : cases)
    EXPECT_EQ(sound, PlistTrailer::IsWithinBounds(bytes.data(), bytes.size())) << bytes.size();
}

// The write guard: a tree that the library would write as bytes its own
// reader does not give back (a string that is not UTF-8) is refused; the
// same tree once repaired is written, and reads back the same.
TEST(PlistGuardTest, OnlyBytesThatReadBackTheSameAreWritten) {
  const ScopedPlist owner = AdoptPlist(plist_new_dict());
  const auto tree = static_cast<plist_t>(owner.get());
  plist_dict_set_item(tree, "MachineID", plist_new_string("ID-1"));
  plist_dict_set_item(tree, "city", plist_new_string("\xE9t\xE9"));
  std::string bytes = "untouched";
  EXPECT_FALSE(plist_guard::SerialiseVerified(tree, &bytes));
  EXPECT_EQ("untouched", bytes);
  plist_guard::RepairStrings(tree);
  ASSERT_TRUE(plist_guard::SerialiseVerified(tree, &bytes));
  const ScopedPlist reread = AdoptPlist(plist_guard::Parse(bytes));
  EXPECT_TRUE(plist_guard::SameTree(tree, static_cast<plist_t>(reread.get())));
  plist_dict_set_item(static_cast<plist_t>(reread.get()), "city", plist_new_string("ete"));
  EXPECT_FALSE(plist_guard::SameTree(tree, static_cast<plist_t>(reread.get())));
}

}  // namespace
