// The wake-date rule, status transitions, item pauses and settings merging.
#include <gtest/gtest.h>
#include <unistd.h>

#include <boost/date_time/gregorian/gregorian.hpp>
#include <ctime>
#include <string>
#include <tuple>

#include "SettingsFile.h"
#include "TestSupport.h"
#include "UploaderStatus.h"

namespace {

using boost::gregorian::date;
using Uploader::WakeDateState;
using S = UploaderStatus;
using testing_support::DumpSettings;

std::string LocalDay(int offset) {
  const date day = boost::gregorian::day_clock::local_day() + boost::gregorian::days(offset);
  return boost::gregorian::to_iso_extended_string(day);
}

// Tokens longer than the date rules allow never reach the date library (its
// number conversion overflows on six or more characters); later tokens,
// which the rules ignore, are not bounded.
TEST(UploaderStatusTest, WakeDates) {
  const date today(2024, 2, 28);
  for (const char* paused : {"2024-02-29", "2999-Mar-31", "2999 march 1", "2999/3/31",
                             "2999.mAR.31,x", "2999-September-30", "02999-00001-00001",
                             "2999-01-01-!000000000", "2999/Jan/01 xxxxxxxxxx"})
    EXPECT_EQ(WakeDateState(paused, today), 2) << paused;
  for (const char* awake :
       {"2024-02-28", "2024-02-27", "", "soon", "2023-02-29", "2999-13-01", "2999-Smarch-1",
        "99999-01-01", "1399-01-01", "2999-01", "2999-\xC3-01", "!00000", "!00000-01-01",
        "2999-!00000-01", "2999-01-!00000", "000002999-01-01", "2999-0000001-01", "2999-01-0000001",
        "2999-Septembers-01"})
    EXPECT_EQ(WakeDateState(awake, today), 0) << awake;
}

// EvaluateUploaderStatus for item "App" "2"; every transition is saved back.
TEST(UploaderStatusTest, EvaluateSavesTransitions) {
  // A zone whose date differs from the UTC date right now: only the local date may count.
  testing_support::ScopedEnv zone("TZ", std::time(nullptr) / 3600 % 24 < 12 ? "LOC+12" : "LOC-12");
  ::tzset();
  testing_support::ScopedTempDir dir;
  const std::string path = dir.Sub("LogCourier2.cfg");
  const std::string items = "[hibernate]\napp_2=x|2999-01-01\nold_1=x|2001-01-01\n";
  const std::string active = "[ulog]\nstatus=Active\n";
  // The file before ("-": none), the status, the file after ("=": unchanged).
  const std::tuple<std::string, S, std::string> cases[] = {
      {"-", S::Active, active},
      {"[ulog]\nstatus=kill\n", S::Active, active},
      {items + "[ulog]\nstatus=Kill\nwakeupdate=2001-1-1\n", S::Kill, "="},
      {items + "[ulog]\nstatus=Hibernate\nwakeupdate=" + LocalDay(1) + "\n", S::Hibernate, "="},
      {"[ulog]\nstatus=Hibernate\n", S::Active, active},
      {"[ulog]\nstatus=Hibernate\nwakeupdate=2014-02-30\n", S::Active, active},
      {items, S::Hibernate, items + active},
      {"[ulog]\nstatus=Hibernate\nwakeupdate=" + LocalDay(0) + "\n", S::Active, active},
      {"[hibernate]\nApp_2=x|2001-1-1\n", S::Active, active},
      {"[hibernate]\napp_2=x\n", S::Active, active},
      {"[hibernate]\napp_2=a|b|2999-01-01\n", S::Active, active}};
  for (const auto& [before, expected, after] : cases) {
    ::unlink(path.c_str());
    ASSERT_TRUE(before == "-" || testing_support::WriteFile(path, before));
    S status = S::Kill;
    EXPECT_EQ(Uploader::EvaluateUploaderStatus("App", "2", path, "ulog", &status), 0);
    EXPECT_EQ(status, expected) << before;
    EXPECT_EQ(testing_support::Contents(path), after == "=" ? before : after) << before;
  }
  S status = S::Kill;  // null outputs and empty paths change nothing
  EXPECT_EQ(Uploader::EvaluateUploaderStatus("a", "b", dir.Sub("x.cfg"), "ulog", nullptr) +
                Uploader::EvaluateUploaderStatus("a", "b", "", "ulog", &status),
            2);
  EXPECT_TRUE(status == S::Kill && !testing_support::PathExists(dir.Sub("x.cfg")));
}

TEST(UploaderStatusTest, MergeRules) {
  const std::pair<const char*, const char*> cases[] = {
      {"[s]\noperation=Merge\nb=4\na=", "/top=1;s/b=4;s/operation=Merge;sx/k=K"},
      {"[S]\nc=v\n[h]\nx=1", "/top=1;h/x=1;s/c=v;sx/k=K"},
      {"[s]\noperation=merge\nc=w", "/top=1;s/c=w;s/operation=merge;sx/k=K"},
      {"new=1\n[sx]\noperation=Merge", "/new=1;sx/operation=Merge"},
      {"[*]\nk=v\n[sx]\noperation=Merge\nk=A", "*/k=v;sx/k=A;sx/operation=Merge"}};
  for (const auto& c : cases) {
    SettingsFile target;
    target.LoadText("top=1\n[s]\na=1\nb=2\n[sx]\nk=K");
    EXPECT_EQ(Uploader::MergeSettings(target, c.first), 0);
    EXPECT_EQ(DumpSettings(target), c.second) << c.first;
  }
}

}  // namespace
