// Settings-file syntax, canonical saving, round trips and hostile input.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>

#include "SettingsFile.h"
#include "TestSupport.h"

namespace {

namespace ts = testing_support;
using namespace std::string_literals;

TEST(SettingsFileTest, SyntaxAndNames) {
  const std::pair<std::string, std::string> cases[] = {
      {" [ Settings ] \nk=v\n[Oth\nk=v\n[a]b]\nk=v\n[]\nk=w", "/k=w;a/k=v;oth/k=v;settings/k=v"},
      {"[ulog]\n Active\r\n#url=x\n;url=x\n\n  \t\nurl=a#b", "ulog/active=Active;ulog/url=a#b"},
      {"k=1\nK=2\n=v\nk2=\nk3 = a = b", "/=v;/k=2;/k2=;/k3=a = b"},
      {"\xEF\xBB\xBFKey=v\n\xEF\xBB\xBFK", "/key=v;/\xEF\xBB\xBFk=\xEF\xBB\xBFK"},
      {"a\0B=c\0d\n[\0]\nk"s, "\0/k=k;/a\0b=c\0d"s}};
  for (const auto& c : cases) {
    SettingsFile s;
    EXPECT_EQ(s.LoadText(c.first), 0);
    EXPECT_EQ(ts::DumpSettings(s), c.second) << c.first;
  }
  SettingsFile s;
  s.LoadText("[settings]\nMaxRetries = 5 ");
  EXPECT_EQ(s.GetValue(" SETTINGS ", "maxretries") + s.GetValue("settings", "none"), "5");
  EXPECT_EQ(s.SetValueAt(" A/B/C ", "x"), "x");
  EXPECT_EQ(s.SetValue("a/b", "c", "x") + s.SetValue(" ", "k", "x") + s.SetValueAt("k", "x") +
                s.SetValue("settings", "maxretries", " \t "),
            "");
  EXPECT_EQ(ts::DumpSettings(s), "a/b/c=x");
}

TEST(SettingsFileTest, SaveIsCanonicalAndAtomic) {
  ts::ScopedTempDir dir;
  const std::string path = dir.Sub("a.cfg");
  SettingsFile s;
  s.LoadText("# comment\n[Z]\nb = 2\na=1\n\n[]\nk=v\n[m]\nurl= x ");
  s.SetValue("m", "pad", " p ");
  ASSERT_EQ(s.Save(path), 0);
  EXPECT_EQ(ts::Contents(path), "[]\nk=v\n[m]\npad= p \nurl=x\n[z]\na=1\nb=2\n");
  EXPECT_EQ(ts::FileMode(path), 0644);
  ASSERT_EQ(s.Load(path), 0);
  EXPECT_EQ(ts::DumpSettings(s), "/k=v;m/pad=p;m/url=x;z/a=1;z/b=2");
  EXPECT_EQ(s.Load(dir.Sub("missing.cfg")) + s.Load(dir.path()), -2);
  EXPECT_EQ(ts::DumpSettings(s), "");

  s.SetValue("a", "b", "new");
  EXPECT_EQ(s.Save(dir.path()) + s.Save(dir.Sub("no/x.cfg")) + s.Save(""), -3);
  ASSERT_TRUE(::chmod(path.c_str(), 0600) == 0 && s.Save(path) == 0);
  EXPECT_EQ(ts::FileMode(path), 0600);
  // Root ignores modes: an unprivileged child meets a read-only file and a read-only dir.
  ASSERT_TRUE(ts::MakeDirs(dir.Sub("ro")) && ::chmod(dir.Sub("ro").c_str(), 0555) == 0);
  ASSERT_EQ(::chmod(path.c_str(), 0444) + ::chmod(dir.path().c_str(), 0777), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) ::_exit(3);
    ::_exit(s.Save(path) == -1 && s.Save(dir.Sub("ro/new.cfg")) == -1 ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(ts::Contents(path), "[a]\nb=new\n");
  EXPECT_EQ(ts::ListNames(dir.path()), (std::vector<std::string>{"a.cfg", "ro"}));
}

// Section headers holding "/" (texts a server can send through a merge)
// read back under the same paths after a save; every entry is written
// verbatim, even one whose path would not read back the same.
TEST(SettingsFileTest, HeadersHoldingSlashAndOddNamesSurviveSave) {
  ts::ScopedTempDir dir;
  const std::string path = dir.Sub("slash.cfg");
  // The text, the section as written in its header, key, value.
  const std::array<const char*, 4> cases[] = {{"[a/b=c]\nk=v", "a/b=c", "k", "v"},
                                              {"[settings/#x]\nurl=y", "settings/#x", "url", "y"},
                                              {"[settings/;x]\nurl=y", "settings/;x", "url", "y"},
                                              {"[a/ b]\nk=v", "a/ b", "k", "v"},
                                              {"[/]\nk=v", "/", "k", "v"},
                                              {"[a/[b]\nk=v", "a/[b", "k", "v"},
                                              {"[a/b]\n=v", "a/b", "", "v"},
                                              {"[a/b]\nNoEquals", "a/b", "noequals", "NoEquals"}};
  for (const auto& [text, section, key, value] : cases) {
    SettingsFile original, reread;
    original.LoadText(std::string(text) + "\n[plain]\nkey=value");
    ASSERT_EQ(original.Save(path) + reread.Load(path), 0) << text;
    EXPECT_EQ(ts::DumpSettings(reread), ts::DumpSettings(original)) << text;
    EXPECT_EQ(reread.GetValue(section, key) + reread.GetValue("plain", "key"), value + "value"s);
  }
  SettingsFile odd;
  for (const char* name : {"x]y/k", "s/a=b", "s/#c", "s/ok"}) odd.SetValueAt(name, "1");
  ASSERT_EQ(odd.Save(path), 0);
  EXPECT_EQ(ts::Contents(path), "[s]\n#c=1\na=b=1\nok=1\n[x]y]\nk=1\n");
}

// A link at the name stays and the file it names is replaced, in that
// file's own directory; a killed writer's old temporary file is removed by
// the next save; a directory that refuses new files still lets the existing
// file be rewritten.
TEST(SettingsFileTest, SaveThroughLinksCleansUpAndFallsBackInPlace) {
  ts::ScopedTempDir dir, elsewhere;
  const std::string path = dir.Sub("LogCourier2.cfg"),
                    stale = dir.Sub(".LogCourier2.cfg.tmp-a1B2c3");
  ASSERT_TRUE(ts::WriteFile(path, "old") && ts::WriteFile(stale, "[s]\nurl=half") &&
              ts::AgeFile(stale, 3600));
  ASSERT_EQ(0, ::symlink(path.c_str(), elsewhere.Sub("link").c_str()));
  SettingsFile s;
  s.LoadText("[ulog]\nstatus=Active");
  ASSERT_EQ(s.Save(elsewhere.Sub("link")), 0);
  EXPECT_EQ(ts::Contents(path), "[ulog]\nstatus=Active\n");
  struct stat st;
  EXPECT_TRUE(::lstat(elsewhere.Sub("link").c_str(), &st) == 0 && S_ISLNK(st.st_mode));
  EXPECT_EQ(ts::ListNames(dir.path()), (std::vector<std::string>{"LogCourier2.cfg"}));
  EXPECT_EQ(ts::ListNames(elsewhere.path()), (std::vector<std::string>{"link"}));

  ts::ScopedNoNewFiles locked(dir.path());
  if (!locked.active()) GTEST_SKIP() << "no way to make a directory refuse new files here";
  s.SetValue("ulog", "status", "Kill");
  ASSERT_EQ(s.Save(path) + s.Load(path), 0);
  EXPECT_EQ(s.GetValue("ulog", "status"), "Kill");
}

}  // namespace
