// The built crash-processor's form: a position-independent executable whose
// only shared objects are the C library and libplist, so that start-up maps
// and resolves no more than the run needs. The C++ runtime, libgcc, Expat
// and libuuid are linked in (the sanitizer build keeps the C++ runtime
// shared, as its own runtime expects).
#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "TestSupport.h"

namespace {

TEST(CrashProcessorLink, PositionIndependentWithOnlyTheSharedLibrariesItMust) {
  const testing_support::RunResult r =
      testing_support::RunProgram({"/usr/bin/readelf", "-hld", CRASH_PROCESSOR_PATH}, {"LC_ALL=C"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("Type:                              DYN "), std::string::npos);
  EXPECT_NE(r.out.find("[Requesting program interpreter: "), std::string::npos);
  std::string needed;
  const std::regex library(R"(\(NEEDED\)\s+Shared library: \[([^\]]+)\])");
  for (std::sregex_iterator it(r.out.begin(), r.out.end(), library), end; it != end; ++it)
    needed += (*it)[1].str() + " ";
  EXPECT_NE(needed.find("libc.so"), std::string::npos) << needed;
  EXPECT_NE(needed.find("libplist"), std::string::npos) << needed;
#if !defined(__SANITIZE_ADDRESS__)
  EXPECT_TRUE(std::regex_match(needed, std::regex(R"(((libc\.so|libplist|ld-linux)\S* )*)")))
      << needed;
#else
  EXPECT_EQ(needed.find("libexpat"), std::string::npos) << needed;
  EXPECT_EQ(needed.find("libuuid"), std::string::npos) << needed;
#endif
}

}  // namespace
