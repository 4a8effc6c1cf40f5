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
using Strings = std::vector<std::string>;

bool IsLink(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

TEST(FileIORead, StatusByKindOfItem) {
  ScopedTempDir tmp;
  ASSERT_TRUE(WriteFile(tmp.Sub("ten"), "0123456789") && WriteFile(tmp.Sub("empty"), "") &&
              MakeDirs(tmp.Sub("dir")));
  ASSERT_EQ(0, ::mkfifo(tmp.Sub("fifo").c_str(), 0600));  // no writer: a blocking open hangs
  ASSERT_EQ(0, ::symlink(tmp.Sub("ten").c_str(), tmp.Sub("link").c_str()));
  ASSERT_EQ(0, ::symlink(tmp.Sub("nowhere").c_str(), tmp.Sub("dangling").c_str()));
  const struct Case {
    const char* name;
    std::size_t cap;
    ReadStatus status;
    int error;
  } cases[] = {{"ten", 10, ReadStatus::kOk, 0},
               {"link", 10, ReadStatus::kOk, 0},
               {"empty", 0, ReadStatus::kOk, 0},
               {"ten", 9, ReadStatus::kTooLarge, 0},
               {"absent", 10, ReadStatus::kMissing, ENOENT},
               {"dir", 10, ReadStatus::kNotRegular, EISDIR},
               {"fifo", 10, ReadStatus::kNotRegular, EINVAL}};
  for (const Case& c : cases) {
    std::string text = "untouched";
    int error = -1;
    EXPECT_EQ(c.status, FileIO::ReadFile(tmp.Sub(c.name), c.cap, &text, &error)) << c.name;
    EXPECT_EQ(c.error, error) << c.name;
    EXPECT_TRUE(c.status == ReadStatus::kOk || text == "untouched") << c.name;
  }
  std::string text;
  ASSERT_EQ(ReadStatus::kOk, FileIO::ReadFile("/proc/self/status", 1 << 20, &text));
  EXPECT_NE(std::string::npos, text.find("Pid:"));  // reported size 0, read to the end
  // The writable-file read and the size probe never block on a FIFO either.
  EXPECT_EQ(ReadStatus::kNotRegular, FileIO::ReadWritableFile(tmp.Sub("fifo"), 10, &text));
  EXPECT_EQ(ReadStatus::kOk, FileIO::ReadWritableFile(tmp.Sub("ten"), 10, &text));
  EXPECT_EQ("0123456789", text);
  std::uint64_t size = 99;
  EXPECT_FALSE(FileIO::GetRegularFileSize(tmp.Sub("fifo"), &size) ||
               FileIO::GetRegularFileSize(tmp.path(), &size) || size != 99u);
  EXPECT_TRUE(FileIO::GetRegularFileSize(tmp.Sub("ten"), &size) && size == 10u);
  // The writers' stream never follows a planted link and never blocks on, or
  // writes to, a FIFO or directory at its name; a file is truncated or appended to.
  for (const char* name : {"link", "dangling", "fifo", "dir"}) {
    for (const bool append : {false, true})
      EXPECT_EQ(nullptr, FileIO::OpenOutputStream(tmp.Sub(name), append)) << name << append;
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
  ASSERT_TRUE(FileIO::ReplaceFile(tmp.Sub("new"), "new", 3));
  EXPECT_EQ(0644, FileMode(tmp.Sub("new")));
  ASSERT_EQ(0, ::chmod(tmp.Sub("new").c_str(), 0640));
  ASSERT_TRUE(FileIO::ReplaceFile(tmp.Sub("new"), "new", 3));
  EXPECT_EQ(0640, FileMode(tmp.Sub("new")));
  FileIO::ReplaceOptions private_file;
  private_file.mode = 0600;
  private_file.keep_mode = false;
  private_file.follow_link = false;
  ASSERT_TRUE(FileIO::ReplaceFile(tmp.Sub("new"), "new", 3, private_file));
  EXPECT_EQ(0600, FileMode(tmp.Sub("new")));

  // Followed, the link stays and its target changes; not followed, the link
  // itself is replaced by a file and the old target is left alone.
  ASSERT_TRUE(WriteFile(tmp.Sub("target"), "old"));
  ASSERT_EQ(0, ::symlink(tmp.Sub("target").c_str(), tmp.Sub("link").c_str()));
  ASSERT_TRUE(FileIO::ReplaceFile(tmp.Sub("link"), "A", 1));
  EXPECT_EQ("A", Contents(tmp.Sub("target")));
  ASSERT_TRUE(FileIO::ReplaceFile(tmp.Sub("link"), "B", 1, private_file));
  EXPECT_FALSE(IsLink(tmp.Sub("link")));
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

// A killed writer's temporary file is removed by the next successful write
// once it is older than a live writer could be; a fresh one may belong to a
// writer at work and stays, and so do names of other files or of another form.
TEST(FileIOReplace, NextWriterRemovesOldTemporariesOnly) {
  ScopedTempDir tmp;
  const std::string prefix = FileIO::TemporaryPrefix("settings.cfg");
  const std::string other = FileIO::TemporaryPrefix("other.cfg") + "Old789";
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
  EXPECT_FALSE(FileIO::ReplaceFile(tmp.Sub("locked/file"), "new", 3));
  EXPECT_EQ("old contents", Contents(tmp.Sub("locked/file")));
  EXPECT_TRUE(FileIO::ReplaceFile(tmp.Sub("locked/file"), "new", 3, fallback));
  EXPECT_EQ("new", Contents(tmp.Sub("locked/file")));
  EXPECT_FALSE(FileIO::ReplaceFile(tmp.Sub("locked/link"), "evil", 4, fallback) ||
               FileIO::ReplaceFile(tmp.Sub("locked/absent"), "new", 3, fallback));
  EXPECT_EQ("precious", Contents(tmp.Sub("target")));
}

}  // namespace
