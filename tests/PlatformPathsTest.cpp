// The path seam: home directory fallback, main bundle detection (also by
// running a copy of this test program inside a fake application tree), the
// Info.plist identifier in both plist forms, and the host identifier format.
#include <gtest/gtest.h>
#include <plist/plist.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <regex>

#include "FileUtil.h"
#include "PlatformPaths.h"
#include "Posix/PlatformPathsInternal.h"
#include "TestSupport.h"

namespace {

using testing_support::ScopedEnv;
using testing_support::ScopedTempDir;
using testing_support::WriteFile;

std::string HostName() {
  char name[256] = {};
  return ::gethostname(name, sizeof name - 1) == 0 ? name : "";
}

// Writes <bundle>/Contents/Info.plist with one identifier, in XML or binary.
void WriteInfoPlist(const std::string& bundle, const std::string& identifier, bool binary) {
  plist_t dict = plist_new_dict();
  plist_dict_set_item(dict, "CFBundleIdentifier", plist_new_string(identifier.c_str()));
  char* data = nullptr;
  uint32_t length = 0;
  binary ? plist_to_bin(dict, &data, &length) : plist_to_xml(dict, &data, &length);
  std::string text = data != nullptr ? std::string(data, length) : std::string();
  binary ? plist_to_bin_free(data) : plist_to_xml_free(data);
  plist_free(dict);
  ASSERT_TRUE(!text.empty() && WriteFile(bundle + "/Contents/Info.plist", text));
}

struct BundleOverride {
  explicit BundleOverride(const std::string& path) { Platform::SetMainBundlePathForTesting(path); }
  ~BundleOverride() { Platform::SetMainBundlePathForTesting(""); }
};

TEST(PlatformPaths, HostIdFromMachineIdFiles) {
  const std::string id = "0123456789abcdefABCDEF0123456789";
  const std::string formatted = "01234567-89AB-CDEF-ABCD-EF0123456789";
  struct Case {
    std::string contents;
    bool ok;
  } cases[] = {
      {id, true},        {id + "\n", true},     {id + "\n\n", false},        {id + " ", false},
      {id + "0", false}, {id.substr(1), false}, {"g" + id.substr(1), false}, {"", false}};
  for (const Case& c : cases) {
    std::string out = "unchanged";
    EXPECT_EQ(c.ok, Platform::internal::FormatMachineId(c.contents, &out)) << c.contents;
    EXPECT_EQ(c.ok ? formatted : "unchanged", out);
  }

  ScopedTempDir tmp;
  ASSERT_TRUE(WriteFile(tmp.Sub("bad"), "not-an-id\n"));
  ASSERT_TRUE(WriteFile(tmp.Sub("good"), id + "\n"));
  EXPECT_EQ(formatted, Platform::internal::HostIdFromFiles({tmp.Sub("bad"), tmp.Sub("good")}));
  EXPECT_EQ(HostName(), Platform::internal::HostIdFromFiles({tmp.Sub("bad"), tmp.Sub("none")}));

  std::string host = Platform::GetHostId();
  EXPECT_TRUE(std::regex_match(host, std::regex("[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}")) ||
              host == HostName())
      << host;
}

TEST(PlatformPaths, HomeFromEnvironmentElsePasswordDatabase) {
  std::string home;
  {
    ScopedEnv env("HOME", "/some/home//");
    EXPECT_TRUE(Platform::GetHomeDirectory(&home));
    EXPECT_EQ("/some/home", home);
  }
  struct passwd* entry = ::getpwuid(::getuid());
  ASSERT_NE(nullptr, entry);
  for (bool unset : {false, true}) {
    ScopedEnv env("HOME", "");
    if (unset) ::unsetenv("HOME");
    home.clear();
    EXPECT_TRUE(Platform::GetHomeDirectory(&home));
    EXPECT_EQ(entry->pw_dir, home) << (unset ? "unset" : "empty");
  }
}

TEST(PlatformPaths, BundleOfExecutableDirectory) {
  for (std::string dir : {"/A/T.app/Contents/MacOS", "/A/T.app/Contents/MacOS/"}) {
    EXPECT_EQ("/A/T.app", Platform::internal::BundlePathForExecutableDirectory(dir));
  }
  // Anything else is a bare executable's directory and is its own bundle.
  for (std::string dir : {"/usr/bin", "/A/.app/Contents/MacOS", "/A/T/Contents/MacOS",
                          "/A/T.app/Contents/Resources"}) {
    EXPECT_EQ(dir, Platform::internal::BundlePathForExecutableDirectory(dir));
  }
}

TEST(PlatformPaths, IdentifierFromXmlAndBinaryInfoPlist) {
  ScopedTempDir tmp;
  std::string id;
  for (bool binary : {false, true}) {
    std::string bundle = tmp.Sub(binary ? "Bin.app" : "Xml.app");
    WriteInfoPlist(bundle, binary ? "com.example.bin" : "com.example.xml", binary);
    BundleOverride hook(bundle);
    EXPECT_TRUE(Platform::GetMainBundleIdentifier(&id));
    EXPECT_EQ(binary ? "com.example.bin" : "com.example.xml", id);
  }
  ASSERT_TRUE(WriteFile(tmp.Sub("Broken.app/Contents/Info.plist"), "<plist><dict><key>"));
  for (const char* bundle : {"Broken.app", "Bare"}) {
    BundleOverride hook(tmp.Sub(bundle));
    id = "kept";
    EXPECT_FALSE(Platform::GetMainBundleIdentifier(&id)) << bundle;
    EXPECT_EQ("kept", id);
  }
}

// Runs only inside the copied program of the next test, and reports there.
TEST(PlatformPaths, ProbeForCopiedProgram) {
  if (std::getenv("LUMETRY_BUNDLE_PROBE") == nullptr) GTEST_SKIP();
  std::string exe, bundle, id;
  EXPECT_TRUE(Platform::GetExecutablePath(&exe));
  EXPECT_TRUE(Platform::GetMainBundlePath(&bundle));
  EXPECT_TRUE(Platform::GetMainBundleIdentifier(&id));
  std::cout << "EXE=" << exe << "\nBUNDLE=" << bundle << "\nID=" << id << "\n";
}

TEST(PlatformPaths, RealBundleDetectionOfAProgramInsideAnApp) {
  ScopedTempDir tmp;
  std::string self;
  ASSERT_TRUE(Platform::GetExecutablePath(&self));
  // The program sees its own path resolved, so compare with the resolved tree.
  std::string bundle = std::filesystem::canonical(tmp.path()).string() + "/Probe.app";
  std::string copy = bundle + "/Contents/MacOS/probe";
  ASSERT_TRUE(FileUtil::CreateDirectories(bundle + "/Contents/MacOS"));
  ASSERT_TRUE(FileUtil::Copy(self, copy));
  WriteInfoPlist(bundle, "com.example.probe", true);

  auto result = testing_support::RunProgram(
      {copy, "--gtest_filter=PlatformPaths.ProbeForCopiedProgram"}, {"LUMETRY_BUNDLE_PROBE=1"});
  ASSERT_EQ(0, result.status) << result.err;
  EXPECT_NE(std::string::npos, result.out.find("EXE=" + copy + "\n")) << result.out;
  EXPECT_NE(std::string::npos, result.out.find("BUNDLE=" + bundle + "\n")) << result.out;
  EXPECT_NE(std::string::npos, result.out.find("ID=com.example.probe\n")) << result.out;
}

}  // namespace
