// The file layer: paths, capped reads, atomic replacement and file-system policies.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <tuple>

#include "FileIO.h"
#include "FileUtil.h"
#include "FileUtilPlatform.h"
#include "Posix/ScopedFd.h"
#include "TestSupport.h"

namespace {

using namespace testing_support;
using Strings = std::vector<std::string>;

void Touch(const ScopedTempDir& dir, const Strings& names) {
  for (const std::string& name : names) ASSERT_TRUE(WriteFile(dir.Sub(name), name)) << name;
}

TEST(FileUtilPaths, TablesAndCreatedDirectories) {
  using Table = std::vector<std::pair<std::string, std::string>>;
  const auto expect = [](std::string (*fn)(const std::string&), const Table& table) {
    for (const auto& [in, out] : table) EXPECT_EQ(out, fn(in)) << "input '" << in;
  };
  expect(FileUtil::ParentDirectory,
         {{"/a/b/", "/a"}, {"/a", "/"}, {"a", ""}, {"///", ""}, {"", ""}, {"a/b", "a"}});
  expect(FileUtil::LastPathComponent, {{"/a/b/", "b"}, {"/", "/"}, {"", ""}, {"x", "x"}});
  expect(FileUtil::WithTrailingSeparator, {{"", "/"}, {"/x", "/x/"}, {"/x/", "/x/"}});
  const Strings joins[] = {{"/a", "b", "/a/b"}, {"/a/", "b", "/a/b"},      {"/", "b", "/b"},
                           {"", "b/", "b"},     {"/a", "", "/a"},          {"/", "", "/"},
                           {"", "", ""},        {"a//b/", "/c//", "a/b/c"}};
  for (const Strings& j : joins)
    EXPECT_EQ(j[2], FileUtil::JoinPath(j[0], j[1])) << j[0] << "+" << j[1];
  // Directories are made with the parent's mode, replace a file, and fail on the root.
  ScopedTempDir tmp;
  ASSERT_EQ(0, ::chmod(tmp.path().c_str(), 0751));
  EXPECT_TRUE(FileUtil::CreateDirectories(tmp.Sub("x/y/z")) &&
              FileUtil::CreateDirectories(tmp.Sub("x/y/z")));  // the second finds it there
  for (const char* dir : {"x", "x/y", "x/y/z"}) EXPECT_EQ(0751, FileMode(tmp.Sub(dir))) << dir;
  Touch(tmp, {"plain", "caf\xE9/entry"});
  EXPECT_TRUE(FileUtil::CreateDirectories(tmp.Sub("plain")) &&
              FileUtil::IsDirectory(tmp.Sub("plain")));
  // A path that is not UTF-8 (here a cut sequence, an encoded surrogate) is no path here.
  for (const std::string& bad : {std::string("/"), std::string("single"), std::string(),
                                 tmp.Sub("\xC3\x28"), tmp.Sub("ok/\xED\xA0\x80")})
    EXPECT_FALSE(FileUtil::CreateDirectories(bad)) << bad;
  Strings names;  // not listed even where it exists
  EXPECT_FALSE(FileUtil::ListDirectoryMatching(tmp.Sub("caf\xE9"), {}, &names) || !names.empty());
  // Entries may be bytes; a failed listing adds nothing, yet answers true on a non-empty list.
  EXPECT_TRUE(FileUtil::ListDirectoryMatching(tmp.path(), {}, &names) &&
              FileUtil::ListDirectoryMatching(tmp.Sub("missing"), {}, &names));
  std::sort(names.begin(), names.end());
  EXPECT_EQ((Strings{"caf\xE9", "plain", "x"}), names);
}

// A dangling link counts as a missing path: true, and the link stays.
TEST(FileUtilRemoveAndWrite, MissingSucceedsAndLinksOrFifosAreNeverFollowed) {
  ScopedTempDir tmp;
  EXPECT_TRUE(FileUtil::Remove(tmp.Sub("missing")) && FileUtil::RemoveFile(tmp.Sub("missing")) &&
              FileUtil::RemoveDirectory(tmp.Sub("missing"), false));
  Touch(tmp, {"outside/keep", "tree/sub/f"});
  ASSERT_EQ(0, ::symlink(tmp.Sub("outside").c_str(), tmp.Sub("tree/sub/link").c_str()));
  ASSERT_EQ(0, ::symlink("nowhere", tmp.Sub("dangling").c_str()));
  EXPECT_TRUE(FileUtil::Remove(tmp.Sub("tree")) && FileUtil::RemoveFile(tmp.Sub("dangling")) &&
              FileUtil::Remove(tmp.Sub("dangling")));
  EXPECT_EQ((Strings{"dangling", "outside"}), ListNames(tmp.path()));
  // Writers and probes never block on a FIFO nor write through a planted link.
  ASSERT_EQ(0, ::mkfifo(tmp.Sub("fifo").c_str(), 0600));
  ASSERT_EQ(0, ::symlink(tmp.Sub("outside/keep").c_str(), tmp.Sub("link").c_str()));
  EXPECT_TRUE(FileUtil::IsFileSizeAtMost(tmp.Sub("fifo"), 0));  // cannot be opened: size 0
  EXPECT_EQ(-2, FileUtil::WriteStringToFile("x", tmp.Sub("fifo")) +
                    FileUtil::WriteStringToFile("x", tmp.Sub("link")));
  EXPECT_EQ(0, FileUtil::WriteStringToFile("text", tmp.Sub("new")));
  EXPECT_EQ("outside/keep|text",
            Contents(tmp.Sub("outside/keep")) + "|" + Contents(tmp.Sub("new")));
}

TEST(FileUtilCopy, ReplacesDestinationKeepsModesAndRefusesMissingSource) {
  ScopedTempDir tmp;
  Touch(tmp, {"src/a", "src/sub/b", "dst/stale", "file"});
  ASSERT_EQ(0, ::chmod(tmp.Sub("src/sub/b").c_str(), 0640));
  EXPECT_TRUE(FileUtil::Copy(tmp.Sub("src"), tmp.Sub("dst")));
  EXPECT_EQ((Strings{"a", "sub"}), ListNames(tmp.Sub("dst")));
  EXPECT_TRUE(Contents(tmp.Sub("dst/sub/b")) == "src/sub/b" &&
              FileMode(tmp.Sub("dst/sub/b")) == 0640);
  EXPECT_TRUE(FileUtil::Copy(tmp.Sub("src/a"), tmp.Sub("file")));
  // Missing or empty source, onto itself, into itself: refused.
  for (const std::string& from : {tmp.Sub("missing"), std::string(), tmp.Sub("file")})
    EXPECT_FALSE(FileUtil::Copy(from, tmp.Sub("file"))) << from;
  EXPECT_FALSE(FileUtil::Copy(tmp.Sub("src"), tmp.Sub("src/sub/inside")));
  EXPECT_TRUE(FileUtil::Move(tmp.Sub("file"), tmp.Sub("dst/sub")));
  EXPECT_TRUE(ListNames(tmp.path()) == Strings({"dst", "src"}) &&
              Contents(tmp.Sub("dst/sub")) == "src/a");
}

TEST(FileUtilList, MatchingIsAByteSubstringTestOfEveryKey) {
  const struct Case {
    Strings names, keys, expected;  // expected sorted
  } cases[] = {
      {{"Prod_1", "1_Prod", "Pro_d"}, {"Prod"}, {"1_Prod", "Prod_1"}},
      {{"PPProd", "PrPrProd", "PPPro"}, {"Prod"}, {"PPProd", "PrPrProd"}},
      {{"prod_1234", "PROD_1234", "Prod_1234"}, {"Prod", "1234"}, {"Prod_1234"}},
      {{"1234_Prod", "Prod_1234", "Prod_123", "12_34"},
       {"Prod", "1234"},
       {"1234_Prod", "Prod_1234"}},
      {{"\xff\xfeProd\x80", "\xffPro\xfe"}, {"Prod"}, {"\xff\xfeProd\x80"}},
      {{"a\xc3\x28z", "a\xc3z"}, {"\xc3\x28"}, {"a\xc3\x28z"}},
      {{"ab", "a"}, {std::string("a\0b", 3)}, {}},  // a NUL byte is in no name
      {{"ab"}, {"a", std::string("\0", 1)}, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.names[0] + " " + (c.keys.empty() ? "" : c.keys[0]));
    ScopedTempDir tmp;
    Touch(tmp, c.names);
    Strings found;
    EXPECT_EQ(!c.expected.empty(), FileUtil::ListDirectoryMatching(tmp.path(), c.keys, &found));
    std::sort(found.begin(), found.end());
    EXPECT_EQ(c.expected, found);
  }
}

TEST(FileUtilDelete, NamedFilesConcatenateAndMatchingRules) {
  ScopedTempDir tmp;
  Touch(tmp, {"d/x", "dx", "s/t/deep.log", "s/t/keep.txt"});
  EXPECT_TRUE(FileUtil::DeleteNamedFiles(tmp.Sub("d"), {"x", "nothing"}));  // "/d" + "x"
  EXPECT_FALSE(FileUtil::DeleteNamedFiles("", {"x"}));
  EXPECT_TRUE(ListNames(tmp.path()) == Strings({"d", "s"}) &&
              ListNames(tmp.Sub("d")) == Strings{"x"});
  // Pattern, what stays: without wildcards, names holding the pattern go.
  const std::pair<std::string, Strings> cases[] = {
      {"abc", {".xabc", "abc1", "xabc.d"}},
      {"*.log", {".xabc", "abc1", "xabc", "xabc.d"}},
      {"a?c1", {".xabc", "a.log", "a.log.old", "xabc", "xabc.d"}}};
  for (const auto& [pattern, kept] : cases) {
    ScopedTempDir dir;
    Touch(dir, {"abc1", "xabc", "a.log", "a.log.old", ".xabc", "xabc.d/f"});
    FileUtil::DeleteMatching(dir.path(), pattern, false);
    EXPECT_EQ(kept, ListNames(dir.path())) << pattern;
  }
  FileUtil::DeleteMatching(tmp.Sub("s"), "*.log", true);
  EXPECT_EQ(Strings{"keep.txt"}, ListNames(tmp.Sub("s/t")));
}

TEST(FileUtilProbes, SizesLocksAndABlockedLibrary) {
  ScopedTempDir tmp;
  ASSERT_TRUE(WriteFile(tmp.Sub("t/a"), std::string(100, 'a')) && WriteFile(tmp.Sub("t/s/b"), "b"));
  std::uint64_t logical = 0, physical = 0;
  EXPECT_TRUE(FileUtil::GetDirectorySize(tmp.Sub("t"), &logical, &physical) && logical == 101u);
  EXPECT_FALSE(FileUtil::IsFileLocked(tmp.Sub("lock")));  // creates the file
  ScopedFd fd(::open(tmp.Sub("lock").c_str(), O_RDWR));
  ASSERT_EQ(0, ::flock(fd.get(), LOCK_EX));
  EXPECT_TRUE(FileUtil::IsFileLocked(tmp.Sub("lock")));

  // A plain file where Library belongs is never deleted.
  ScopedHome home;
  std::string untouched = "x";
  ASSERT_TRUE(WriteFile(home.Library(), "precious"));
  EXPECT_FALSE(FileUtil::GetUserLibraryDirectory(&untouched));
  EXPECT_EQ("x|precious", untouched + "|" + Contents(home.Library()));
}

// Helpers kept for hosts: the link rule of the time probe is the one worth pinning.
TEST(FileUtilSpare, NamesTimesListingsDeletionAndSpace) {
  EXPECT_EQ(FileUtil::FileName("/a/b") + FileUtil::FileName("/a/b/") + FileUtil::FileName(""), "b");
  ScopedTempDir tmp;
  Touch(tmp, {"a.log", ".h.log", "d/b.log", "d/.h"});
  ASSERT_TRUE(AgeFile(tmp.Sub("a.log"), 3600));
  ASSERT_EQ(0, ::symlink(tmp.Sub("a.log").c_str(), tmp.Sub("abs").c_str()));
  ASSERT_EQ(0, ::symlink("a.log", tmp.Sub("rel").c_str()));  // resolved against the cwd
  std::uint64_t direct = 0, linked = 0, space = 0;
  EXPECT_TRUE(FileUtil::GetModificationTime(tmp.Sub("a.log"), &direct) &&
              FileUtil::GetModificationTime(tmp.Sub("abs"), &linked) && direct == linked);
  EXPECT_NEAR(static_cast<double>(std::time(nullptr) - 3600), static_cast<double>(direct), 5);
  EXPECT_FALSE(FileUtil::GetModificationTime(tmp.Sub("rel"), &linked) ||
               FileUtil::GetModificationTime(tmp.Sub("none"), &linked) ||
               FileUtil::GetModificationTime(tmp.Sub("a.log"), nullptr));
  Strings flat, deep;
  EXPECT_TRUE(FileUtil::ListFiles(tmp.path(), &flat, false) &&
              FileUtil::ListFiles(tmp.path(), &deep, true));
  std::sort(flat.begin(), flat.end()), std::sort(deep.begin(), deep.end());
  EXPECT_EQ(flat, (Strings{tmp.Sub("a.log"), tmp.Sub("abs"), tmp.Sub("rel")}));
  EXPECT_EQ(deep, (Strings{tmp.Sub("a.log"), tmp.Sub("abs"), tmp.Sub("d/b.log"), tmp.Sub("rel")}));
  EXPECT_FALSE(FileUtil::ListFiles(tmp.Sub("a.log"), &flat, false));
  // A source folder made after the copy was written means a newer install, else the later file.
  using Row = std::tuple<long, long, bool>;  // ages of source and copy (s), source newer
  for (const auto& [source, copy, newer] :
       {Row{1000, 100, true}, Row{-2000, -1000, true}, Row{-1000, -2000, false}}) {
    ASSERT_TRUE(AgeFile(tmp.Sub("d/b.log"), source) && AgeFile(tmp.Sub("a.log"), copy));
    EXPECT_EQ(newer, FileUtil::IsNewer(tmp.Sub("d/b.log"), tmp.Sub("a.log"))) << source;
  }
  FileUtil::DeleteContaining(tmp.path(), ".log");  // not hidden ones, not into directories
  EXPECT_EQ(ListNames(tmp.path()), (Strings{".h.log", "abs", "d", "rel"}));
  EXPECT_TRUE(FileUtil::GetFreeSpace(tmp.path(), &space) && space > 0);
  EXPECT_FALSE(FileUtil::GetFreeSpace(tmp.Sub("none"), &space));
}

using FileIO::ReadStatus;

TEST(FileIORead, StatusByKindOfItem) {
  ScopedTempDir tmp;
  ASSERT_TRUE(WriteFile(tmp.Sub("ten"), "0123456789") && WriteFile(tmp.Sub("empty"), "") &&
              MakeDirs(tmp.Sub("dir")));
  ASSERT_EQ(0, ::mkfifo(tmp.Sub("fifo").c_str(), 0600));  // no writer: a blocking open hangs
  ASSERT_EQ(0, ::symlink(tmp.Sub("ten").c_str(), tmp.Sub("link").c_str()));
  ASSERT_EQ(0, ::symlink(tmp.Sub("nowhere").c_str(), tmp.Sub("dangling").c_str()));
  using R = ReadStatus;  // name, cap, status, error
  const std::tuple<const char*, std::size_t, R, int> cases[] = {
      {"ten", 10, R::kOk, 0},
      {"link", 10, R::kOk, 0},
      {"empty", 0, R::kOk, 0},
      {"ten", 9, R::kTooLarge, 0},
      {"absent", 10, R::kMissing, ENOENT},
      {"dir", 10, R::kNotRegular, EISDIR},
      {"fifo", 10, R::kNotRegular, EINVAL},
  };
  for (const auto& [name, cap, status, expected_error] : cases) {
    std::string text = "untouched";
    int error = -1;
    EXPECT_EQ(status, FileIO::ReadFile(tmp.Sub(name), cap, &text, &error)) << name;
    EXPECT_TRUE(error == expected_error && (status == R::kOk || text == "untouched")) << name;
  }
  std::string text;  // a reported size of 0 is read to the end
  EXPECT_TRUE(FileIO::ReadFile("/proc/self/status", 1 << 20, &text) == R::kOk &&
              text.find("Pid:") != std::string::npos);
  // The writable-file read and the size probe never block on a FIFO either.
  EXPECT_EQ(ReadStatus::kNotRegular, FileIO::ReadWritableFile(tmp.Sub("fifo"), 10, &text));
  EXPECT_TRUE(FileIO::ReadWritableFile(tmp.Sub("ten"), 10, &text) == R::kOk &&
              text == "0123456789");
  std::uint64_t size = 99;
  EXPECT_FALSE(FileIO::GetRegularFileSize(tmp.Sub("fifo"), &size) ||
               FileIO::GetRegularFileSize(tmp.path(), &size) || size != 99u);
  EXPECT_TRUE(FileIO::GetRegularFileSize(tmp.Sub("ten"), &size) && size == 10u);
  // The writers' stream never follows a link nor opens a FIFO or directory.
  for (const char* name : {"link", "dangling", "fifo", "dir"}) {
    EXPECT_TRUE(!FileIO::OpenOutputStream(tmp.Sub(name), false) &&
                !FileIO::OpenOutputStream(tmp.Sub(name), true))
        << name;
  }
  EXPECT_FALSE(PathExists(tmp.Sub("nowhere")));
  *FileIO::OpenOutputStream(tmp.Sub("ten"), true) << "+";
  EXPECT_EQ("0123456789+", Contents(tmp.Sub("ten")));
  *FileIO::OpenOutputStream(tmp.Sub("ten"), false) << "fresh";
  EXPECT_EQ("fresh", Contents(tmp.Sub("ten")));
}

TEST(FileIOReplace, ModesLinksAndFailures) {
  ScopedTempDir tmp;
  // A new file gets the given mode; an existing one keeps its own unless told.
  EXPECT_TRUE(FileIO::ReplaceFile(tmp.Sub("new"), "new", 3) && FileMode(tmp.Sub("new")) == 0644);
  ASSERT_EQ(0, ::chmod(tmp.Sub("new").c_str(), 0640));
  EXPECT_TRUE(FileIO::ReplaceFile(tmp.Sub("new"), "new", 3) && FileMode(tmp.Sub("new")) == 0640);
  const FileIO::ReplaceOptions private_file{0600, false, false};  // mode, keep_mode, follow_link
  EXPECT_TRUE(FileIO::ReplaceFile(tmp.Sub("new"), "new", 3, private_file) &&
              FileMode(tmp.Sub("new")) == 0600);

  // Followed, the link stays and its target changes; not followed, the link
  // itself is replaced by a file and the old target is left alone.
  ASSERT_TRUE(WriteFile(tmp.Sub("target"), "old"));
  ASSERT_EQ(0, ::symlink(tmp.Sub("target").c_str(), tmp.Sub("link").c_str()));
  EXPECT_TRUE(FileIO::ReplaceFile(tmp.Sub("link"), "A", 1) && Contents(tmp.Sub("target")) == "A");
  ASSERT_TRUE(FileIO::ReplaceFile(tmp.Sub("link"), "B", 1, private_file));
  struct stat st;
  EXPECT_TRUE(::lstat(tmp.Sub("link").c_str(), &st) == 0 && S_ISREG(st.st_mode));
  EXPECT_EQ("A", Contents(tmp.Sub("target")));

  // A directory in the way, a missing parent: refused, nothing left behind.
  ASSERT_TRUE(MakeDirs(tmp.Sub("dir")));
  for (const char* name : {"dir", "absent/file", "trailing/"})
    EXPECT_FALSE(FileIO::ReplaceFile(tmp.Sub(name), "x", 1)) << name;
  EXPECT_EQ((Strings{"dir", "link", "new", "target"}), ListNames(tmp.path()));

  // Directory paths: missing parts made, a file never replaced.
  EXPECT_TRUE(FileIO::MakeDirectoryPath(tmp.Sub("a/b/c"), 0700) &&
              FileIO::MakeDirectoryPath(tmp.Sub("a/b/c"), 0700));
  EXPECT_EQ(0700, FileMode(tmp.Sub("a/b")));
  for (const std::string& bad : {tmp.Sub("new/sub"), tmp.Sub("new"), std::string()})
    EXPECT_FALSE(FileIO::MakeDirectoryPath(bad, 0700)) << bad;
  EXPECT_EQ("new", Contents(tmp.Sub("new")));
}

// Only a writer's old temporaries of that file go; a fresh one may be a writer at work.
TEST(FileIOReplace, NextWriterRemovesOldTemporariesOnly) {
  ScopedTempDir tmp;
  const std::string prefix = FileIO::TemporaryPrefix("settings.cfg"),
                    other = FileIO::TemporaryPrefix("other.cfg") + "Old789";
  const long old = FileIO::ReplaceOptions().stale_after_seconds + 60;
  for (const std::string& name : {prefix + "Old123", prefix + "short", other})
    ASSERT_TRUE(WriteFile(tmp.Sub(name), "killed") && AgeFile(tmp.Sub(name), old));
  ASSERT_TRUE(WriteFile(tmp.Sub(prefix + "New456"), "at work"));
  ASSERT_TRUE(FileIO::ReplaceFile(tmp.Sub("settings.cfg"), "x", 1));
  EXPECT_EQ((Strings{other, prefix + "New456", prefix + "short", "settings.cfg"}),
            ListNames(tmp.path()));
  FileIO::ReplaceOptions under_lock;  // a writer under the lock knows no one else is at work
  under_lock.stale_after_seconds = 0;
  ASSERT_TRUE(FileIO::ReplaceFile(tmp.Sub("settings.cfg"), "x", 1, under_lock));
  EXPECT_EQ((Strings{other, prefix + "short", "settings.cfg"}), ListNames(tmp.path()));
}

}  // namespace
