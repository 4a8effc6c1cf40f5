// The path seam: host identifier, home directory fallback, main bundle
// detection (also from a copy of this program inside a fake application).
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>

#include "PlatformPaths.h"
#include "Posix/PlatformPathsInternal.h"
#include "TestSupport.h"

namespace {

using namespace testing_support;

std::string HostName() {
  char name[256] = {};
  return ::gethostname(name, sizeof name - 1) == 0 ? name : "";
}

// Writes <bundle>/Contents/Info.plist, in XML or binary form.
bool WriteInfoPlist(const std::string& bundle, const std::string& identifier, bool binary) {
  return WritePlist(bundle + "/Contents/Info.plist",
                    R"({"CFBundleIdentifier": ")" + identifier + "\"}", binary);
}

TEST(PlatformPaths, HostIdFromMachineIdFiles) {
  const std::string id = "0123456789abcdefABCDEF0123456789";
  const std::string formatted = "01234567-89AB-CDEF-ABCD-EF0123456789";
  const std::pair<std::string, std::string> cases[] = {
      {id, formatted}, {id + "\n", formatted}, {id + "\n\n", "-"},        {id + " ", "-"},
      {id + "0", "-"}, {id.substr(1), "-"},    {"g" + id.substr(1), "-"}, {"", "-"}};
  for (const auto& [contents, expected] : cases) {
    std::string out = "-";  // untouched on failure
    EXPECT_EQ(expected != "-", Platform::internal::FormatMachineId(contents, &out)) << contents;
    EXPECT_EQ(expected, out);
  }
  ScopedTempDir tmp;
  ASSERT_TRUE(WriteFile(tmp.Sub("bad"), "not-an-id\n") && WriteFile(tmp.Sub("good"), id + "\n"));
  EXPECT_EQ(formatted, Platform::internal::HostIdFromFiles({tmp.Sub("bad"), tmp.Sub("good")}));
  EXPECT_EQ(HostName(), Platform::internal::HostIdFromFiles({tmp.Sub("bad"), tmp.Sub("none")}));
}

TEST(PlatformPaths, HomeFromEnvironmentElsePasswordDatabase) {
  struct passwd* entry = ::getpwuid(::getuid());
  ASSERT_NE(nullptr, entry);
  for (const char* value : {"/some/home//", "", static_cast<const char*>(nullptr)}) {
    ScopedEnv env("HOME", value != nullptr ? value : "");
    if (value == nullptr) ::unsetenv("HOME");
    std::string home;
    EXPECT_TRUE(Platform::GetHomeDirectory(&home));
    EXPECT_EQ(value != nullptr && *value ? "/some/home" : entry->pw_dir, home) << value;
  }
}

TEST(PlatformPaths, BundleOfExecutableDirectory) {
  for (std::string dir : {"/A/T.app/Contents/MacOS", "/A/T.app/Contents/MacOS/"})
    EXPECT_EQ("/A/T.app", Platform::internal::BundlePathForExecutableDirectory(dir));
  // Anything else is a bare executable's directory and is its own bundle.
  for (std::string dir :
       {"/usr/bin", "/A/.app/Contents/MacOS", "/A/T/Contents/MacOS", "/A/T.app/Contents/Resources"})
    EXPECT_EQ(dir, Platform::internal::BundlePathForExecutableDirectory(dir));
}

// Started as the probe copy of the next test (LUMETRY_BUNDLE_PROBE set), the
// program reports what it sees of itself and stops before any test runs.
const bool kRunAsBundleProbe = [] {
  if (std::getenv("LUMETRY_BUNDLE_PROBE") == nullptr) return false;
  std::string exe, bundle, id;
  const bool ok = Platform::GetExecutablePath(&exe) && Platform::GetMainBundlePath(&bundle) &&
                  Platform::GetMainBundleIdentifier(&id);
  std::printf("EXE=%s\nBUNDLE=%s\nID=%s\n", exe.c_str(), bundle.c_str(), id.c_str());
  std::fflush(stdout);
  std::_Exit(ok ? 0 : 1);
}();

TEST(PlatformPaths, RealBundleAndBinaryIdentifierOfAProgramInsideAnApp) {
  ScopedTempDir tmp;
  // The program sees its own path resolved, so compare with the resolved tree.
  std::string bundle = std::filesystem::canonical(tmp.path()).string() + "/Probe.app";
  std::string copy = bundle + "/Contents/MacOS/probe";
  ASSERT_TRUE(MakeDirs(bundle + "/Contents/MacOS"));
  std::filesystem::copy_file("/proc/self/exe", copy);
  ASSERT_TRUE(WriteInfoPlist(bundle, "com.example.probe", true));

  auto result = RunProgram({copy}, {"LUMETRY_BUNDLE_PROBE=1"});
  ASSERT_EQ(0, result.status) << result.err;
  EXPECT_EQ("EXE=" + copy + "\nBUNDLE=" + bundle + "\nID=com.example.probe\n", result.out);

  // An XML Info.plist is read too; a damaged one or none gives no identifier.
  ASSERT_TRUE(WriteInfoPlist(tmp.Sub("Xml.app"), "com.example.xml", false) &&
              WriteFile(tmp.Sub("Broken.app/Contents/Info.plist"), "<plist><dict><key>"));
  const ScopedOverride main_bundle(&Platform::SetMainBundlePathForTesting, "");
  for (const std::string app : {"Xml.app", "Broken.app", "Bare"}) {
    main_bundle.Set(tmp.Sub(app));
    std::string id = "none";
    Platform::GetMainBundleIdentifier(&id);
    EXPECT_EQ(app == "Xml.app" ? "com.example.xml" : "none", id);
  }
}

}  // namespace
