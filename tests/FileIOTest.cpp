// The file core: capped reads that never block on a FIFO, and atomic
// replacement that keeps or sets modes, follows or replaces links, and
// leaves no temporary file behind on failure.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "FileIO.h"
#include "TestSupport.h"

namespace {

using namespace testing_support;
using FileIO::ReadStatus;

TEST(FileIORead, StatusByKindOfItem) {
  ScopedTempDir tmp;
  ASSERT_TRUE(WriteFile(tmp.Sub("ten"), "0123456789") && WriteFile(tmp.Sub("empty"), "") &&
              MakeDirs(tmp.Sub("dir")));
  ASSERT_EQ(0, ::mkfifo(tmp.Sub("fifo").c_str(), 0600));  // no writer: a blocking open hangs
  ASSERT_EQ(0, ::symlink(tmp.Sub("ten").c_str(), tmp.Sub("link").c_str()));
  const struct Case {
    const char* name;
    std::size_t cap;
    ReadStatus status;
    int error;
  } cases[] = {
      {"ten", 10, ReadStatus::kOk, 0},
      {"link", 10, ReadStatus::kOk, 0},
      {"empty", 0, ReadStatus::kOk, 0},
      {"ten", 9, ReadStatus::kTooLarge, 0},
      {"absent", 10, ReadStatus::kMissing, ENOENT},
      {"dir", 10, ReadStatus::kNotRegular, EISDIR},
      {"fifo", 10, ReadStatus::kNotRegular, EINVAL},
  };
  for (const Case& c : cases) {
    std::string text = "untouched";
    int error = -1;
    EXPECT_EQ(c.status, FileIO::ReadFile(tmp.Sub(c.name), c.cap, &text, &error)) << c.name;
    EXPECT_EQ(c.error, error) << c.name;
    if (c.status != ReadStatus::kOk) {
      EXPECT_EQ("untouched", text) << c.name;
    }
  }
  std::string text;
  ASSERT_EQ(ReadStatus::kOk, FileIO::ReadFile("/proc/self/status", 1 << 20, &text));
  EXPECT_NE(std::string::npos, text.find("Pid:"));  // reported size 0, read to the end
}

TEST(FileIOReplace, ModesLinksAndFailures) {
  ScopedTempDir tmp;
  const std::string data = "new contents";
  // A new file gets the given mode; an existing one keeps its own unless told.
  ASSERT_TRUE(FileIO::ReplaceFile(tmp.Sub("new"), data.data(), data.size()));
  EXPECT_EQ(0644, FileMode(tmp.Sub("new")));
  ASSERT_EQ(0, ::chmod(tmp.Sub("new").c_str(), 0640));
  ASSERT_TRUE(FileIO::ReplaceFile(tmp.Sub("new"), data.data(), data.size()));
  EXPECT_EQ(0640, FileMode(tmp.Sub("new")));
  FileIO::ReplaceOptions private_file;
  private_file.mode = 0600;
  private_file.keep_mode = false;
  private_file.follow_link = false;
  ASSERT_TRUE(FileIO::ReplaceFile(tmp.Sub("new"), data.data(), data.size(), private_file));
  EXPECT_EQ(0600, FileMode(tmp.Sub("new")));

  // Followed, the link stays and its target changes; not followed, the link
  // itself is replaced by a file and the old target is left alone.
  ASSERT_TRUE(WriteFile(tmp.Sub("target"), "old"));
  ASSERT_EQ(0, ::symlink(tmp.Sub("target").c_str(), tmp.Sub("link").c_str()));
  ASSERT_TRUE(FileIO::ReplaceFile(tmp.Sub("link"), "A", 1));
  std::string text;
  EXPECT_TRUE(ReadFile(tmp.Sub("target"), &text) && text == "A");
  ASSERT_TRUE(FileIO::ReplaceFile(tmp.Sub("link"), "B", 1, private_file));
  struct stat st;
  ASSERT_EQ(0, ::lstat(tmp.Sub("link").c_str(), &st));
  EXPECT_TRUE(S_ISREG(st.st_mode));
  EXPECT_TRUE(ReadFile(tmp.Sub("target"), &text) && text == "A");

  // A directory in the way, a missing parent: refused, nothing left behind.
  ASSERT_TRUE(MakeDirs(tmp.Sub("dir")));
  EXPECT_FALSE(FileIO::ReplaceFile(tmp.Sub("dir"), "x", 1));
  EXPECT_FALSE(FileIO::ReplaceFile(tmp.Sub("absent/file"), "x", 1));
  EXPECT_FALSE(FileIO::ReplaceFile(tmp.Sub("trailing/"), "x", 1));
  EXPECT_EQ((std::vector<std::string>{"dir", "link", "new", "target"}), ListNames(tmp.path()));
}

TEST(FileIOReplace, StaleTemporariesOfThatFileOnlyAreRemoved) {
  ScopedTempDir tmp;
  const std::string prefix = FileIO::TemporaryPrefix("domain.plist");
  ASSERT_TRUE(WriteFile(tmp.Sub(prefix + "AbC123"), "killed writer") &&
              WriteFile(tmp.Sub(prefix + "short"), "not ours") &&
              WriteFile(tmp.Sub(FileIO::TemporaryPrefix("other.plist") + "AbC123"), "other") &&
              WriteFile(tmp.Sub("domain.plist"), "kept"));
  FileIO::RemoveStaleTemporaries(tmp.Sub("domain.plist"));
  EXPECT_EQ((std::vector<std::string>{prefix + "short", ".other.plist.tmp-AbC123", "domain.plist"}),
            ListNames(tmp.path()));
}

TEST(FileIOMakeDirectoryPath, CreatesMissingPartsAndNeverReplacesAFile) {
  ScopedTempDir tmp;
  EXPECT_TRUE(FileIO::MakeDirectoryPath(tmp.Sub("a/b/c"), 0700));
  EXPECT_EQ(0700, FileMode(tmp.Sub("a/b")));
  EXPECT_TRUE(FileIO::MakeDirectoryPath(tmp.Sub("a/b/c"), 0700));  // already there
  ASSERT_TRUE(WriteFile(tmp.Sub("file"), "x"));
  EXPECT_FALSE(FileIO::MakeDirectoryPath(tmp.Sub("file/sub"), 0700));
  EXPECT_FALSE(FileIO::MakeDirectoryPath(tmp.Sub("file"), 0700));
  EXPECT_TRUE(PathExists(tmp.Sub("file")));
  EXPECT_FALSE(FileIO::MakeDirectoryPath("", 0700));
}

}  // namespace
