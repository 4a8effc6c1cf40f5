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
  FileIO::ReplaceOptions under_lock;
  under_lock.stale_after_seconds = 0;
  ASSERT_TRUE(FileIO::ReplaceFile(tmp.Sub("domain.plist"), "kept", 4, under_lock));
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

namespace {

// The writers' stream never follows a planted link and never blocks on, or
// writes to, a FIFO, device or directory at its name.
TEST(FileIOOutputStream, RefusesLinksAndWhatIsNotARegularFile) {
  ScopedTempDir tmp;
  ASSERT_TRUE(WriteFile(tmp.Sub("target"), "precious") && MakeDirs(tmp.Sub("dir")));
  ASSERT_EQ(0, ::symlink(tmp.Sub("target").c_str(), tmp.Sub("link").c_str()));
  ASSERT_EQ(0, ::symlink(tmp.Sub("nowhere").c_str(), tmp.Sub("dangling").c_str()));
  ASSERT_EQ(0, ::mkfifo(tmp.Sub("fifo").c_str(), 0600));
  for (const char* name : {"link", "dangling", "fifo", "dir"}) {
    for (const bool append : {false, true}) {
      EXPECT_EQ(nullptr, FileIO::OpenOutputStream(tmp.Sub(name), append)) << name << append;
    }
  }
  std::string text;
  EXPECT_TRUE(ReadFile(tmp.Sub("target"), &text) && text == "precious");
  EXPECT_FALSE(PathExists(tmp.Sub("nowhere")));

  // A regular file is truncated or appended to, as asked.
  ASSERT_TRUE(WriteFile(tmp.Sub("log"), "old\n"));
  *FileIO::OpenOutputStream(tmp.Sub("log"), true) << "appended\n";
  EXPECT_TRUE(ReadFile(tmp.Sub("log"), &text) && text == "old\nappended\n");
  *FileIO::OpenOutputStream(tmp.Sub("log"), false) << "fresh\n";
  EXPECT_TRUE(ReadFile(tmp.Sub("log"), &text) && text == "fresh\n");
}

TEST(FileIORead, ReadWritableAndSizeProbesNeverBlock) {
  ScopedTempDir tmp;
  ASSERT_TRUE(WriteFile(tmp.Sub("file"), "12345"));
  ASSERT_EQ(0, ::mkfifo(tmp.Sub("fifo").c_str(), 0600));
  std::string text = "untouched";
  EXPECT_EQ(ReadStatus::kNotRegular, FileIO::ReadWritableFile(tmp.Sub("fifo"), 10, &text));
  EXPECT_EQ("untouched", text);
  EXPECT_EQ(ReadStatus::kOk, FileIO::ReadWritableFile(tmp.Sub("file"), 10, &text));
  EXPECT_EQ("12345", text);
  std::uint64_t size = 99;
  EXPECT_FALSE(FileIO::GetRegularFileSize(tmp.Sub("fifo"), &size));
  EXPECT_FALSE(FileIO::GetRegularFileSize(tmp.path(), &size));
  EXPECT_EQ(99u, size);
  EXPECT_TRUE(FileIO::GetRegularFileSize(tmp.Sub("file"), &size));
  EXPECT_EQ(5u, size);
}

// A killed writer's temporary file is removed by the next successful write
// once it is older than a live writer could be; a fresh one may belong to a
// writer at work and stays.
TEST(FileIOReplace, NextWriterRemovesOldTemporariesOnly) {
  ScopedTempDir tmp;
  const std::string prefix = FileIO::TemporaryPrefix("settings.cfg");
  ASSERT_TRUE(WriteFile(tmp.Sub(prefix + "Old123"), "killed") &&
              WriteFile(tmp.Sub(prefix + "New456"), "at work") &&
              WriteFile(tmp.Sub(FileIO::TemporaryPrefix("other.cfg") + "Old789"), "other"));
  ASSERT_TRUE(
      AgeFile(tmp.Sub(prefix + "Old123"), FileIO::ReplaceOptions().stale_after_seconds + 60));
  ASSERT_TRUE(AgeFile(tmp.Sub(FileIO::TemporaryPrefix("other.cfg") + "Old789"), 600));
  ASSERT_TRUE(FileIO::ReplaceFile(tmp.Sub("settings.cfg"), "x", 1));
  EXPECT_EQ((std::vector<std::string>{".other.cfg.tmp-Old789", prefix + "New456", "settings.cfg"}),
            ListNames(tmp.path()));
}

// A directory that refuses new files: atomic replacement is impossible; with
// the fallback the existing file is rewritten in place, without it nothing
// changes. A link at the name is never written through.
TEST(FileIOReplace, InPlaceFallbackWhenTheDirectoryRefusesNewFiles) {
  ScopedTempDir tmp;
  ASSERT_TRUE(MakeDirs(tmp.Sub("locked")) && WriteFile(tmp.Sub("locked/file"), "old contents") &&
              WriteFile(tmp.Sub("target"), "precious"));
  ASSERT_EQ(0, ::symlink(tmp.Sub("target").c_str(), tmp.Sub("locked/link").c_str()));
  ScopedNoNewFiles locked(tmp.Sub("locked"));
  if (!locked.active()) GTEST_SKIP() << "no way to make a directory refuse new files here";
  FileIO::ReplaceOptions fallback;
  fallback.in_place_fallback = true;
  fallback.follow_link = false;
  std::string text;
  EXPECT_FALSE(FileIO::ReplaceFile(tmp.Sub("locked/file"), "new", 3));
  EXPECT_TRUE(ReadFile(tmp.Sub("locked/file"), &text) && text == "old contents");
  EXPECT_TRUE(FileIO::ReplaceFile(tmp.Sub("locked/file"), "new", 3, fallback));
  EXPECT_TRUE(ReadFile(tmp.Sub("locked/file"), &text) && text == "new");
  EXPECT_FALSE(FileIO::ReplaceFile(tmp.Sub("locked/link"), "evil", 4, fallback));
  EXPECT_FALSE(FileIO::ReplaceFile(tmp.Sub("locked/absent"), "new", 3, fallback));
  EXPECT_TRUE(ReadFile(tmp.Sub("target"), &text) && text == "precious");
}

}  // namespace
