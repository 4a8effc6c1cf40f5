// Settings-file syntax, canonical saving, round trips and hostile input.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "SettingsFile.h"
#include "TestSupport.h"

namespace {

using testing_support::ReadFile;
using testing_support::ScopedTempDir;
using testing_support::WriteFile;

// The dictionary as "path=value" items joined by ";", in order.
std::string Dump(const SettingsFile& s) {
  std::string out;
  for (const auto& e : s.entries()) out += (out.empty() ? "" : ";") + e.first + "=" + e.second;
  return out;
}

std::string Parse(const std::string& text) {
  SettingsFile s;
  s.LoadText(text);
  return Dump(s);
}

TEST(SettingsFileTest, LineSyntax) {
  const std::pair<const char*, const char*> cases[] = {
      {"  [ Settings ]  \nk=v", "settings/k=v"},
      {"[Settings\nk=v", "settings/k=v"},
      {"[a]junk]\nk=v\n[]\nk=w", "/k=w;a/k=v"},
      {"[settings]\n MaxRetries = 5 \r\n", "settings/maxretries=5"},
      {"[ulog]\nActive", "ulog/active=Active"},
      {"#url=x\n;url=x\n\n  \t\nurl=a#b", "/url=a#b"},
      {"k=1\nK=2", "/k=2"},
      {"=v\nk=\nk2 = a = b", "/=v;/k=;/k2=a = b"},
      {"\xEF\xBB\xBFKey=v", "/key=v"},
      {"k=v\n\xEF\xBB\xBFKey=v", "/k=v;/\xEF\xBB\xBFkey=v"},
  };
  for (const auto& c : cases) EXPECT_EQ(Parse(c.first), c.second) << c.first;
}

TEST(SettingsFileTest, GetAndSetNormaliseNames) {
  SettingsFile s;
  s.LoadText("[settings]\nMaxRetries = 5 ");
  EXPECT_EQ(s.GetValue(" SETTINGS ", "maxretries"), "5");
  EXPECT_EQ(s.SetValue(" Settings", "URL ", " x "), " x ");
  EXPECT_EQ(s.SetValue("a/b", "c", "x") + s.SetValue("a", "b/c", "x") + s.SetValue(" ", "k", "x") +
                s.SetValue("s", "", "x") + s.SetValueAt("nokey", "x"),
            "");
  EXPECT_EQ(s.SetValueAt(" A/B/C ", "x"), "x");
  EXPECT_EQ(s.SetValue("settings", "maxretries", " \t "), "");
  EXPECT_EQ(Dump(s), "a/b/c=x;settings/url= x ");
}

TEST(SettingsFileTest, SectionEntriesAndRemoval) {
  SettingsFile s;
  s.LoadText("top=1\n[a]\nx=1\ny=2\n[ab]\nz=3");
  SettingsFile::EntryList list{{"keep", "me"}};
  s.GetSectionEntries("a", &list);
  s.GetSectionEntries("A", &list);  // compared exactly
  EXPECT_EQ(list, (SettingsFile::EntryList{{"keep", "me"}, {"x", "1"}, {"y", "2"}}));
  SettingsFile all = s;
  s.RemoveSection("a");
  EXPECT_EQ(Dump(s), "/top=1;ab/z=3");
  s.RemoveSection("*");
  all.RemoveSection("");
  EXPECT_EQ(Dump(s) + Dump(all), "");
}

TEST(SettingsFileTest, SavesCanonicalForm) {
  ScopedTempDir dir;
  const std::string path = dir.Sub("a.cfg");
  SettingsFile s;
  s.LoadText("# comment\n[Z]\nb = 2\na=1\n\n[]\nk=v\n[m]\nurl= x ");
  s.SetValue("m", "pad", " p ");
  ASSERT_EQ(s.Save(path), 0);
  std::string text;
  ASSERT_TRUE(ReadFile(path, &text));
  EXPECT_EQ(text, "[]\nk=v\n[m]\npad= p \nurl=x\n[z]\na=1\nb=2\n");
  EXPECT_EQ(testing_support::FileMode(path), 0644);
  s.SetValue("x", "stale", "1");
  ASSERT_EQ(s.Load(path), 0);
  EXPECT_EQ(Dump(s), "/k=v;m/pad=p;m/url=x;z/a=1;z/b=2");
  EXPECT_EQ(s.Load(dir.Sub("missing.cfg")), -1);
  EXPECT_EQ(Dump(s), "");
  EXPECT_EQ(s.Load(dir.path()), -1);
}

TEST(SettingsFileTest, FailedSaveKeepsOldFile) {
  ScopedTempDir dir;
  const std::string path = dir.Sub("keep.cfg");
  ASSERT_TRUE(WriteFile(path, "[a]\nb=old\n"));
  SettingsFile s;
  s.SetValue("a", "b", "new");
  EXPECT_EQ(s.Save(dir.path()) + s.Save(dir.Sub("no/x.cfg")) + s.Save(""), -3);
  ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
  ASSERT_EQ(s.Save(path), 0);
  EXPECT_EQ(testing_support::FileMode(path), 0600);  // the old mode is kept

  // Root ignores modes, so an unprivileged child tries the read-only file and directory.
  ASSERT_EQ(::chmod(path.c_str(), 0444) + ::chmod(dir.path().c_str(), 0555), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) ::_exit(3);
    SettingsFile other;
    other.SetValue("a", "b", "other");
    ::_exit(other.Save(path) == -1 && other.Save(dir.Sub("new.cfg")) == -1 ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ::chmod(dir.path().c_str(), 0700);
  EXPECT_EQ(status, 0);
  std::string text;
  ASSERT_TRUE(ReadFile(path, &text));
  EXPECT_EQ(text, "[a]\nb=new\n");
  EXPECT_EQ(testing_support::ListNames(dir.path()), std::vector<std::string>{"keep.cfg"});
}

// Any dictionary of trimmed, single-line values under names that cannot be
// mistaken for syntax survives a save and a load unchanged.
TEST(SettingsFileTest, RoundTripProperty) {
  ScopedTempDir dir;
  std::mt19937 rng(20240611);
  auto one = [&rng](const char* set) { return std::string(1, set[rng() % std::strlen(set)]); };
  auto some = [&](const char* set, unsigned max_len) {
    std::string out;
    for (unsigned n = rng() % (max_len + 1); n > 0; --n) out += one(set);
    return out;
  };
  for (int round = 0; round < 200; ++round) {
    SettingsFile original;
    for (unsigned i = rng() % 12; i > 0; --i) {
      original.SetValueAt(
          some("abcXYZ019_.-#;[", 5) + "/" + one("aBz09_.") + some("aXz0 .#;[/|", 7),
          one("aB=[#/\x01\xC3") + some("aB \t\r=[]#;/|\"'\x01\xC3\xA9", 10) + one("zZ9=]|"));
    }
    ASSERT_EQ(original.Save(dir.Sub("round.cfg")), 0);
    SettingsFile loaded;
    ASSERT_EQ(loaded.Load(dir.Sub("round.cfg")), 0);
    ASSERT_EQ(Dump(loaded), Dump(original)) << "round " << round;
  }
}

TEST(SettingsFileTest, HostileInputLoads) {
  ScopedTempDir dir;
  std::mt19937 rng(7);
  std::string noise(200000, '\0');
  for (char& c : noise) c = static_cast<char>(rng());
  for (const std::string& input : {noise, std::string(1 << 20, 'k'),
                                   std::string("a\0b=c\0d\n[\0]", 12), std::string("\xEF\xBB")}) {
    ASSERT_TRUE(WriteFile(dir.Sub("bad.cfg"), input));
    SettingsFile s;
    EXPECT_EQ(s.Load(dir.Sub("bad.cfg")), 0);
    EXPECT_EQ(s.Save(dir.Sub("out.cfg")), 0);
  }
  SettingsFile nul;
  nul.LoadText(std::string("a\0B=c\0d", 7));
  EXPECT_EQ(nul.GetValue("", std::string("a\0b", 3)), std::string("c\0d", 3));
}

}  // namespace
