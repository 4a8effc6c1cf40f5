// FileUtil: path arithmetic tables and the file-system policies (what a
// missing item means, clearing destinations, inherited permissions, the
// matching rules of the listing and deleting walks), run in temporary trees.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>

#include "FileUtil.h"
#include "TestSupport.h"

namespace {

using testing_support::ListNames;
using testing_support::PathExists;
using testing_support::ReadFile;
using testing_support::ScopedTempDir;
using testing_support::WriteFile;
using Strings = std::vector<std::string>;

void SetModified(const std::string& path, time_t seconds, long nanoseconds = 0) {
  struct timespec times[2] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
  ASSERT_EQ(0, ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW)) << path;
}

using Table = std::vector<std::pair<std::string, std::string>>;

void ExpectTable(std::string (*fn)(const std::string&), const Table& table) {
  for (const auto& row : table) EXPECT_EQ(row.second, fn(row.first)) << "input '" << row.first;
}

TEST(FileUtilPaths, Tables) {
  ExpectTable(FileUtil::ParentDirectory,
              {{"/a/b/", "/a"}, {"/a", "/"}, {"a", ""}, {"///", ""}, {"", ""}, {"a/b", "a"}});
  ExpectTable(FileUtil::LastPathComponent, {{"/a/b/", "b"}, {"/", "/"}, {"", ""}, {"x", "x"}});
  ExpectTable(FileUtil::FileName, {{"/a/b/", ""}, {"/a/b", "b"}});
  ExpectTable(FileUtil::WithTrailingSeparator, {{"", "/"}, {"/x", "/x/"}, {"/x/", "/x/"}});
  ExpectTable(FileUtil::StripTrailingSeparators, {{"///", ""}, {"/a//", "/a"}});
  const Strings joins[] = {{"/a", "b", "/a/b"}, {"/a/", "b", "/a/b"},      {"/", "b", "/b"},
                           {"", "b/", "b"},     {"/a", "", "/a"},          {"/", "", "/"},
                           {"", "", ""},        {"a//b/", "/c//", "a/b/c"}};
  for (const Strings& j : joins)
    EXPECT_EQ(j[2], FileUtil::JoinPath(j[0], j[1])) << j[0] << "+" << j[1];
}

TEST(FileUtilCreate, DirectoriesReplaceFileInheritModeAndFailOnRoot) {
  ScopedTempDir tmp;
  ASSERT_EQ(0, ::chmod(tmp.path().c_str(), 0751));
  std::string deep = tmp.Sub("x/y/z");
  EXPECT_TRUE(FileUtil::CreateDirectories(deep));
  EXPECT_TRUE(FileUtil::IsDirectory(deep));
  for (const char* dir : {"x", "x/y", "x/y/z"})
    EXPECT_EQ(0751, testing_support::FileMode(tmp.Sub(dir)));

  EXPECT_TRUE(FileUtil::CreateDirectories(deep));  // already there
  ASSERT_TRUE(WriteFile(tmp.Sub("plain"), "data"));
  EXPECT_TRUE(FileUtil::CreateDirectories(tmp.Sub("plain")));
  EXPECT_TRUE(FileUtil::IsDirectory(tmp.Sub("plain")));

  EXPECT_FALSE(FileUtil::CreateDirectories("/"));
  EXPECT_FALSE(FileUtil::CreateDirectories("relative-single"));
  EXPECT_FALSE(FileUtil::CreateDirectories(""));
}

TEST(FileUtilRemove, MissingSucceedsAndLinksAreNotFollowed) {
  ScopedTempDir tmp;
  EXPECT_TRUE(FileUtil::Remove(tmp.Sub("missing")));
  EXPECT_TRUE(FileUtil::RemoveFile(tmp.Sub("missing")));
  EXPECT_TRUE(FileUtil::RemoveDirectory(tmp.Sub("missing"), false));

  ASSERT_TRUE(WriteFile(tmp.Sub("outside/keep"), "k"));
  ASSERT_TRUE(WriteFile(tmp.Sub("tree/sub/f"), "f"));
  ASSERT_EQ(0, ::symlink(tmp.Sub("outside").c_str(), tmp.Sub("tree/sub/link").c_str()));
  ASSERT_EQ(0, ::symlink("nowhere", tmp.Sub("dangling").c_str()));

  EXPECT_FALSE(FileUtil::RemoveDirectory(tmp.Sub("tree"), false));         // not empty
  EXPECT_FALSE(FileUtil::RemoveDirectory(tmp.Sub("outside/keep"), true));  // not a directory
  EXPECT_TRUE(FileUtil::Remove(tmp.Sub("tree")));
  EXPECT_FALSE(PathExists(tmp.Sub("tree")));
  EXPECT_TRUE(PathExists(tmp.Sub("outside/keep")));
  EXPECT_TRUE(FileUtil::RemoveFile(tmp.Sub("dangling")));
  EXPECT_FALSE(PathExists(tmp.Sub("dangling")));
}

TEST(FileUtilCopy, ReplacesDestinationKeepsModesAndRefusesMissingSource) {
  ScopedTempDir tmp;
  ASSERT_TRUE(WriteFile(tmp.Sub("src/a"), "new"));
  ASSERT_TRUE(WriteFile(tmp.Sub("src/sub/b"), "bee"));
  ASSERT_EQ(0, ::chmod(tmp.Sub("src/sub/b").c_str(), 0640));
  ASSERT_TRUE(WriteFile(tmp.Sub("dst/stale"), "old"));

  EXPECT_TRUE(FileUtil::Copy(tmp.Sub("src"), tmp.Sub("dst")));
  EXPECT_EQ((Strings{"a", "sub"}), ListNames(tmp.Sub("dst")));
  std::string text;
  EXPECT_TRUE(ReadFile(tmp.Sub("dst/sub/b"), &text));
  EXPECT_EQ("bee", text);
  EXPECT_EQ(0640, testing_support::FileMode(tmp.Sub("dst/sub/b")));

  ASSERT_TRUE(WriteFile(tmp.Sub("file"), "old"));
  EXPECT_TRUE(FileUtil::Copy(tmp.Sub("src/a"), tmp.Sub("file")));
  EXPECT_TRUE(ReadFile(tmp.Sub("file"), &text));
  EXPECT_EQ("new", text);

  EXPECT_FALSE(FileUtil::Copy(tmp.Sub("missing"), tmp.Sub("file")));
  EXPECT_FALSE(FileUtil::Copy("", tmp.Sub("file")));
  EXPECT_FALSE(FileUtil::Copy(tmp.Sub("file"), tmp.Sub("file")));  // would destroy the source
  EXPECT_FALSE(FileUtil::Copy(tmp.Sub("src"), tmp.Sub("src/sub/inside")));  // into itself
  EXPECT_TRUE(ReadFile(tmp.Sub("file"), &text));
  EXPECT_EQ("new", text);

  EXPECT_TRUE(FileUtil::Move(tmp.Sub("file"), tmp.Sub("dst/a")));
  EXPECT_FALSE(PathExists(tmp.Sub("file")));
  EXPECT_TRUE(ReadFile(tmp.Sub("dst/a"), &text));
  EXPECT_EQ("new", text);
}

TEST(FileUtilList, MatchingKeepsEveryEntryThatHoldsAllSubstringsAndAccumulates) {
  ScopedTempDir tmp;
  const std::string odd = "\xff\xfe_ab";  // not UTF-8
  for (const std::string& name :
       {std::string("ab.txt"), std::string("a.txt"), std::string(".hidden_ab"), odd}) {
    ASSERT_TRUE(WriteFile(tmp.Sub(name), ""));
  }
  ASSERT_TRUE(testing_support::MakeDirs(tmp.Sub("dir_ab")));

  Strings names;
  EXPECT_TRUE(FileUtil::ListDirectoryMatching(tmp.path(), {"a", "b"}, &names));
  std::sort(names.begin(), names.end());
  EXPECT_EQ((Strings{".hidden_ab", "ab.txt", "dir_ab", odd}), names);

  EXPECT_TRUE(FileUtil::ListDirectoryMatching(tmp.path(), {"a.t"}, &names));
  EXPECT_EQ(5u, names.size());
  EXPECT_EQ("a.txt", names.back());

  Strings none;
  EXPECT_FALSE(FileUtil::ListDirectoryMatching(tmp.path(), {"zz"}, &none));
  Strings kept = {"earlier"};
  EXPECT_TRUE(FileUtil::ListDirectoryMatching(tmp.Sub("missing"), {}, &kept));
  EXPECT_EQ(Strings{"earlier"}, kept);

  Strings files;
  EXPECT_TRUE(FileUtil::ListFiles(tmp.path(), &files, false));
  EXPECT_EQ(3u, files.size());  // hidden entries and directories are passed over
}

TEST(FileUtilDelete, NamedFilesConcatenateAndMatchingRules) {
  ScopedTempDir tmp;
  const std::string odd = "\xc3\x28-session";  // invalid UTF-8 sequence
  for (const char* name : {"d/x", "dx"}) ASSERT_TRUE(WriteFile(tmp.Sub(name), ""));
  ASSERT_TRUE(WriteFile(tmp.Sub(odd), ""));
  EXPECT_TRUE(FileUtil::DeleteNamedFiles(tmp.Sub("d"), {"x", "nothing"}));
  EXPECT_FALSE(PathExists(tmp.Sub("dx")));
  EXPECT_TRUE(PathExists(tmp.Sub("d/x")));
  EXPECT_TRUE(FileUtil::DeleteNamedFiles(tmp.path() + "/", {odd}));
  EXPECT_FALSE(PathExists(tmp.Sub(odd)));
  EXPECT_FALSE(FileUtil::DeleteNamedFiles("", {"x"}));

  struct Case {
    std::string pattern;
    Strings kept;
  } cases[] = {
      {"abc", {".xabc", "abc1", "xabc.d"}},
      {"*.log", {".xabc", "abc1", "xabc", "xabc.d"}},
      {"a?c1", {".xabc", "a.log", "a.log.old", "xabc", "xabc.d"}},
  };
  for (const Case& c : cases) {
    ScopedTempDir dir;
    for (const char* name : {"abc1", "xabc", "a.log", "a.log.old", ".xabc"}) {
      ASSERT_TRUE(WriteFile(dir.Sub(name), ""));
    }
    ASSERT_TRUE(testing_support::MakeDirs(dir.Sub("xabc.d")));
    FileUtil::DeleteMatching(dir.path(), c.pattern, false);
    EXPECT_EQ(c.kept, ListNames(dir.path())) << c.pattern;
  }

  ScopedTempDir nested;
  ASSERT_TRUE(WriteFile(nested.Sub("s/t/deep.log"), ""));
  ASSERT_TRUE(WriteFile(nested.Sub("s/keep.txt"), ""));
  FileUtil::DeleteMatching(nested.path(), "*.log", true);
  EXPECT_FALSE(PathExists(nested.Sub("s/t/deep.log")));
  EXPECT_TRUE(PathExists(nested.Sub("s/keep.txt")));
  FileUtil::DeleteContaining(nested.Sub("s"), "eep");
  EXPECT_FALSE(PathExists(nested.Sub("s/keep.txt")));
  EXPECT_TRUE(PathExists(nested.Sub("s/t")));
}

TEST(FileUtilProbes, IsNewerComparesFolderCreationAndModificationStrictly) {
  ScopedTempDir tmp;
  ASSERT_TRUE(WriteFile(tmp.Sub("ship/cfg"), ""));
  ASSERT_TRUE(WriteFile(tmp.Sub("user/cfg"), ""));
  const time_t future = std::time(nullptr) + 100000;  // after the folder's creation
  SetModified(tmp.Sub("ship/cfg"), future, 5);
  SetModified(tmp.Sub("user/cfg"), future, 5);
  EXPECT_FALSE(FileUtil::IsNewer(tmp.Sub("ship/cfg"), tmp.Sub("user/cfg")));  // equal dates
  SetModified(tmp.Sub("ship/cfg"), future, 6);
  EXPECT_TRUE(FileUtil::IsNewer(tmp.Sub("ship/cfg"), tmp.Sub("user/cfg")));
  SetModified(tmp.Sub("ship/cfg"), 1000);
  SetModified(tmp.Sub("user/cfg"), 2000);  // written before the folder was made
  EXPECT_TRUE(FileUtil::IsNewer(tmp.Sub("ship/cfg"), tmp.Sub("user/cfg")));
  EXPECT_FALSE(FileUtil::IsNewer(tmp.Sub("ship/cfg"), tmp.Sub("user/none")));

  std::uint64_t seconds = 0;
  ASSERT_EQ(0, ::symlink(tmp.Sub("ship/cfg").c_str(), tmp.Sub("link").c_str()));
  EXPECT_TRUE(FileUtil::GetModificationTime(tmp.Sub("link"), &seconds));
  EXPECT_EQ(1000u, seconds);
  EXPECT_FALSE(FileUtil::GetModificationTime(tmp.Sub("none"), &seconds));
}

TEST(FileUtilProbes, SizesLocksAndUserDirectories) {
  ScopedTempDir tmp;
  ASSERT_TRUE(WriteFile(tmp.Sub("t/a"), std::string(100, 'a')));
  ASSERT_TRUE(WriteFile(tmp.Sub("t/s/b"), std::string(20, 'b')));
  std::uint64_t logical = 0, physical = 0;
  EXPECT_TRUE(FileUtil::GetDirectorySize(tmp.Sub("t"), &logical, &physical));
  EXPECT_EQ(120u, logical);  // file contents only
  EXPECT_GT(physical, 0u);
  EXPECT_TRUE(FileUtil::IsFileSizeAtMost(tmp.Sub("t/a"), 100));
  EXPECT_FALSE(FileUtil::IsFileSizeAtMost(tmp.Sub("t/a"), 99));
  EXPECT_TRUE(FileUtil::IsFileSizeAtMost(tmp.Sub("none"), 0));

  EXPECT_FALSE(FileUtil::IsFileLocked(tmp.Sub("lock")));
  EXPECT_TRUE(PathExists(tmp.Sub("lock")));
  int fd = ::open(tmp.Sub("lock").c_str(), O_RDWR);
  ASSERT_EQ(0, ::flock(fd, LOCK_EX));
  EXPECT_TRUE(FileUtil::IsFileLocked(tmp.Sub("lock")));
  ::close(fd);

  testing_support::ScopedHome home;
  std::string library, support;
  EXPECT_TRUE(FileUtil::GetUserLibraryDirectory(&library));
  EXPECT_EQ(home.Library(), library);
  EXPECT_TRUE(FileUtil::GetApplicationSupportDirectory(&support));
  EXPECT_EQ(home.Library() + "/Application Support", support);
  EXPECT_TRUE(FileUtil::IsDirectory(support));
  std::string untouched = "x";
  EXPECT_FALSE(FileUtil::GetUserDirectory(FileUtil::kUserDomain, 9, &untouched));
  EXPECT_EQ("x", untouched);
}

TEST(FileUtilProbes, LibraryBlockedByPlainFileIsNotDeleted) {
  testing_support::ScopedHome home;
  ASSERT_TRUE(WriteFile(home.Library(), "precious"));
  std::string library = "unset";
  EXPECT_FALSE(FileUtil::GetUserLibraryDirectory(&library));
  EXPECT_EQ("unset", library);
  EXPECT_FALSE(FileUtil::IsDirectory(home.Library()));
}

}  // namespace
