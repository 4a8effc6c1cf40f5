// The wake-date rule, status transitions, item pauses and settings merging.
#include <gtest/gtest.h>
#include <unistd.h>

#include <boost/date_time/gregorian/gregorian.hpp>
#include <string>

#include "SettingsFile.h"
#include "TestSupport.h"
#include "UploaderStatus.h"

namespace {

using boost::gregorian::date;
using boost::gregorian::days;
using Uploader::WakeDateState;
constexpr UploaderStatus kActive = UploaderStatus::Active;
constexpr UploaderStatus kKill = UploaderStatus::Kill;
constexpr UploaderStatus kHibernate = UploaderStatus::Hibernate;

std::string Dump(const SettingsFile& s) {
  std::string out;
  for (const auto& e : s.entries()) out += (out.empty() ? "" : ";") + e.first + "=" + e.second;
  return out;
}

std::string Iso(const date& d) { return boost::gregorian::to_iso_extended_string(d); }

TEST(UploaderStatusTest, WakeDateAgainstGivenDay) {
  const date today(2024, 2, 28);
  for (const char* paused : {"2024-02-29", "2999-Mar-31", "2999 March 31", "2999/3/31",
                             "2999.mAR.31,extra", "  2999-1-1"}) {
    EXPECT_EQ(WakeDateState(paused, today), 2) << paused;
  }
  for (const char* awake : {"2024-02-28", "2024-02-27", "", "soon", "2014-02-30", "2023-02-29",
                            "2999-13-01", "2999-Smarch-1", "99999-01-01", "1399-01-01", "2999-01",
                            "2999-01-01junk", "2999-\xC3-01"}) {
    EXPECT_EQ(WakeDateState(awake, today), 0) << awake;
  }
  EXPECT_EQ(WakeDateState("2999-01-01", date(boost::gregorian::not_a_date_time)), 0);
}

TEST(UploaderStatusTest, WakeDateAgainstLocalClock) {
  const date today = boost::gregorian::day_clock::local_day();
  const int states[] = {WakeDateState(Iso(today - days(1))), WakeDateState(Iso(today)),
                        WakeDateState(Iso(today + days(1)))};
  if (boost::gregorian::day_clock::local_day() != today) GTEST_SKIP() << "ran across midnight";
  EXPECT_EQ(states[0] + states[1], 0);
  EXPECT_EQ(states[2], 2);
}

TEST(UploaderStatusTest, ReadStatusTransitions) {
  const std::string tomorrow = Iso(boost::gregorian::day_clock::local_day() + days(1));
  const struct {
    std::string text;
    UploaderStatus expected;
    std::string after;
  } cases[] = {
      {"", kActive, "ulog/status=Active"},
      {"status=kill", kActive, "ulog/status=Active"},
      {"status=Kill\nwakeupdate=2000-1-1", kKill, "ulog/status=Kill;ulog/wakeupdate=2000-1-1"},
      {"status=Hibernate\nwakeupdate=" + tomorrow, kHibernate,
       "ulog/status=Hibernate;ulog/wakeupdate=" + tomorrow},
      {"status=Hibernate", kActive, "ulog/status=Active"},
      {"status=Hibernate\nwakeupdate=2014-02-30", kActive, "ulog/status=Active"}};
  for (const auto& c : cases) {
    SettingsFile s;
    s.LoadText("[ulog]\n" + c.text);
    UploaderStatus status = kKill;
    EXPECT_EQ(Uploader::ReadUploaderStatus(s, "ulog", &status), 0);
    EXPECT_EQ(status, c.expected) << c.text;
    EXPECT_EQ(Dump(s), c.after) << c.text;
  }
  SettingsFile s;
  s.LoadText("[ulog]\nstatus=odd");
  EXPECT_EQ(Uploader::ReadUploaderStatus(s, "ulog", nullptr), 1);
  EXPECT_EQ(Dump(s), "ulog/status=odd");
  EXPECT_EQ(Uploader::GetUploaderStatusName(s), "Active");
}

TEST(UploaderStatusTest, ItemHibernation) {
  // Kill marks "output left untouched".
  const std::pair<const char*, UploaderStatus> cases[] = {
      {"a_1.0=x|2999-01-01", kHibernate}, {"a_1.0=|2999-01-01|z", kActive}, {"a_1.0=x", kActive},
      {"a_1.0=x|2000-01-01", kActive},    {"b_1.0=x|2999-01-01", kKill},    {"a_1.0=", kKill}};
  for (const auto& c : cases) {
    SettingsFile s;
    s.LoadText(std::string("[hibernate]\n") + c.first);
    const std::string before = Dump(s);
    UploaderStatus status = kKill;
    EXPECT_EQ(Uploader::CheckItemHibernation("A", "1.0", s, "hibernate", &status), 0);
    EXPECT_EQ(status, c.second) << c.first;
    EXPECT_EQ(Dump(s), c.second == kActive ? "" : before) << c.first;
  }
}

TEST(UploaderStatusTest, EvaluateSavesTheFile) {
  testing_support::ScopedTempDir dir;
  const std::string path = dir.Sub("LogCourier2.cfg");
  const std::string items = "[hibernate]\napp_2=x|2999-01-01\nold_1=x|2001-01-01\n";
  const struct {
    std::string file;  // "-": no file
    UploaderStatus expected;
    std::string saved;
  } cases[] = {{"-", kActive, "[ulog]\nstatus=Active\n"},
               {items + "[ulog]\nstatus=Kill\n", kKill, items + "[ulog]\nstatus=Kill\n"},
               {items, kHibernate, items + "[ulog]\nstatus=Active\n"},
               {"[hibernate]\nApp_2=x|2001-1-1\n[ulog]\nstatus=Hibernate\nwakeupdate=2001-1-1",
                kActive, "[ulog]\nstatus=Active\n"}};
  for (const auto& c : cases) {
    ::unlink(path.c_str());
    ASSERT_TRUE(c.file == "-" || testing_support::WriteFile(path, c.file));
    UploaderStatus status = kKill;
    EXPECT_EQ(Uploader::EvaluateUploaderStatus("App", "2", path, "ulog", &status), 0);
    EXPECT_EQ(status, c.expected) << c.file;
    std::string saved;
    ASSERT_TRUE(testing_support::ReadFile(path, &saved));
    EXPECT_EQ(saved, c.saved);
  }
  UploaderStatus status = kKill;
  EXPECT_EQ(Uploader::EvaluateUploaderStatus("a", "b", dir.Sub("x.cfg"), "ulog", nullptr), 1);
  EXPECT_EQ(Uploader::EvaluateUploaderStatus("a", "b", "", "ulog", &status), 1);
  EXPECT_EQ(status, kKill);
  EXPECT_FALSE(testing_support::PathExists(dir.Sub("x.cfg")));
}

TEST(UploaderStatusTest, MergeRules) {
  const std::string rest = ";settings/maxretries=3;settings/url=u;ulog/status=Kill";
  const std::pair<const char*, std::string> cases[] = {
      {"", "/top=1;settings/maxdiskspace=10" + rest},
      {"[settings]\noperation=Merge\nmaxretries=4\nurl=",
       "/top=1;settings/maxdiskspace=10;settings/maxretries=4;settings/operation=Merge;"
       "ulog/status=Kill"},
      {"[Settings]\nurl=v\n[hibernate]\na_1=x",
       "/top=1;hibernate/a_1=x;settings/url=v;ulog/status=Kill"},
      {"[settings]\noperation=merge\nurl=w",
       "/top=1;settings/operation=merge;settings/url=w;ulog/status=Kill"},
      {"fresh=1\n[ulog]\noperation=Merge", "/fresh=1;ulog/operation=Merge"},
      {"[*]\nk=v\n[ulog]\noperation=Merge\nstatus=Active",
       "*/k=v;ulog/operation=Merge;ulog/status=Active"}};
  for (const auto& c : cases) {
    SettingsFile target;
    target.LoadText("top=1\n[settings]\nmaxdiskspace=10\nmaxretries=3\nurl=u\n[ulog]\nstatus=Kill");
    EXPECT_EQ(Uploader::MergeSettings(target, c.first), 0);
    EXPECT_EQ(Dump(target), c.second) << c.first;
  }
}

}  // namespace
