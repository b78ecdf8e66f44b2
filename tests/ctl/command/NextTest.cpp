#include <string>
#include <vector>

#include "tests/ctl/CtlTest.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

using Words = std::vector<std::string>;

/// Tasks with calendars, from koductl add to koductl next.
class NextTest : public CtlTest {
 protected:
  void SetUp() override {
    CtlTest::SetUp();
    database.query(readFile(projectFile("sql/calendar.sql")));
  }
  void add(const std::string& calendar, const Words& more = {}) {
    Words all = {"add", "/bin/true", "--at", calendar, "--zone", "Europe/Paris"};
    all.insert(all.end(), more.begin(), more.end());
    const CtlResult result = runAsAdmin(all);
    EXPECT_EQ(result.exitCode, 0) << result.err;
  }
  CtlResult set(const Words& what) {
    Words all = {"set", "1"};
    all.insert(all.end(), what.begin(), what.end());
    return runAsAdmin(all);
  }
  std::string calendarIs() const {
    return database.task(1, "concat_ws('|', cron_calendar, cron_zone, cron_interval)");
  }
};

TEST_F(NextTest, AddsATaskWithACalendar) {
  add("0 3 * * mon-fri");
  EXPECT_EQ(calendarIs(), "0 3 * * mon-fri|Europe/Paris|24:00:00");
  add("0 3 * * *", {"--every", "2h", "--first", "2030-01-01 12:00:30"});
  EXPECT_EQ(database.task(2, "concat(cron_interval, ' ', cron_next_exec)"),
            "02:00:00 2030-01-01 11:00:30");

  const CtlResult wrong = runAsAdmin({"add", "/bin/true", "--at", "0 25 * * *"});
  EXPECT_EQ(wrong.exitCode, 65);
  EXPECT_THAT(wrong.err,
              HasSubstr("the calendar is invalid at character 3: \"25\" is not an hour"));
}

TEST_F(NextTest, ListsTheComingRuns) {
  add("0 3 * * *");
  const CtlResult result = run({"next", "1", "-n", "3", "--zone", "Europe/Paris"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_THAT(result.out, MatchesRegex("DUE \\(Europe/Paris\\) +IN\n"
                                       "(....-..-.. 03:00:00 .*\n){3}"));
  const Json::Value json = parsed(run({"next", "1", "--json"}).out);
  EXPECT_EQ(json.size(), 20U);

  runAsAdmin({"pause", "1", "--reason", "new disks"});
  EXPECT_THAT(run({"next", "1"}).out,
              AllOf(StartsWith("Task 1 (true) paused since "), HasSubstr(": new disks.\n")));
  EXPECT_EQ(run({"next", "7"}).exitCode, 66);
}

TEST_F(NextTest, ListsTheRunsOfATaskWithoutACalendar) {
  runAsAdmin({"add", "/bin/true", "--every", "5m", "--first", "2030-01-01 12:00"});
  EXPECT_THAT(run({"next", "1", "-n", "2"}).out,
              AllOf(HasSubstr("2030-01-01 12:00:00"), HasSubstr("2030-01-01 12:05:00")));
}

TEST_F(NextTest, ChangesAndRemovesACalendar) {
  add("0 3 * * *");
  EXPECT_EQ(set({"--at", "*/20 * * * *"}).exitCode, 0);
  EXPECT_EQ(calendarIs(), "*/20 * * * *|UTC|00:20:00");
  EXPECT_EQ(set({"--every", "5m"}).exitCode, 0);
  EXPECT_EQ(calendarIs(), "*/20 * * * *|UTC|00:05:00");
  EXPECT_EQ(set({"--no-at"}).exitCode, 0);
  EXPECT_EQ(calendarIs(), "00:05:00");
  EXPECT_EQ(set({"--no-at", "--at", "0 3 * * *"}).exitCode, 64);
}

TEST_F(NextTest, ShowsAndExplainsACalendar) {
  add("0 3 * * *");
  EXPECT_THAT(run({"show", "1"}).out,
              HasSubstr("at        0 3 * * * in Europe/Paris, else every 1d\n"));
  EXPECT_THAT(run({"explain", "1"}).out,
              AllOf(HasSubstr("at the times of 0 3 * * * in Europe/Paris."),
                    HasSubstr("The calendar sets that time")));
  const Json::Value json = parsed(run({"show", "1", "--json"}).out);
  EXPECT_EQ(json["calendar"], "0 3 * * *");
  EXPECT_EQ(json["zone"], "Europe/Paris");
}

TEST_F(NextTest, ReportsACalendarThatSetsNoTime) {
  add("0 3 * * *");
  EXPECT_THAT(run({"check"}).out, Not(HasSubstr("calendar")));
  EXPECT_THAT(run({"health"}).out, Not(HasSubstr("calendar")));

  database.query(
      "SET session_replication_role = replica; UPDATE kodu_cron_plugin "
      "SET cron_zone = 'Europe/Atlantis'; SET session_replication_role = origin");
  EXPECT_THAT(run({"check"}).out,
              HasSubstr("the calendar sets no time: time zone \"Europe/Atlantis\" not recognized"));
  EXPECT_THAT(run({"health"}).out,
              HasSubstr("1 task with a calendar that sets no time: see koductl check"));
  EXPECT_EQ(parsed(run({"health", "--json"}).out)["calendar_faults"], 1);
}

TEST_F(NextTest, ExportsWhatItApplies) {
  const std::string path = daemon.directory / "tasks.yaml";
  writeFile(path,
            "tasks:\n"
            "  a: {plugin: /bin/true, at: 0 3 * * mon-fri, zone: Europe/Paris}\n"
            "  b: {plugin: /bin/true, at: '*/5 * * * *', every: 10m}\n"
            "  c: {plugin: /bin/true, every: 5m}\n");
  const CtlResult added = runAsAdmin({"apply", path});
  EXPECT_EQ(added.exitCode, 0) << added.err;
  EXPECT_THAT(added.out, HasSubstr("    at           0 3 * * mon-fri\n"
                                   "    zone         Europe/Paris\n"
                                   "    every        1d\n"));
  EXPECT_THAT(runAsAdmin({"apply", path}).out, HasSubstr("0 changed, 0 deleted, 3 unchanged"));

  const CtlResult exported = run({"export"});
  EXPECT_THAT(exported.out, AllOf(HasSubstr("zone: Europe/Paris\n"), HasSubstr("every: 10m\n"),
                                  Not(HasSubstr("zone: UTC"))));
  writeFile(path, exported.out);
  EXPECT_THAT(runAsAdmin({"apply", path}).out, HasSubstr("0 changed, 0 deleted, 3 unchanged"));

  writeFile(path, "tasks:\n  a: {plugin: /bin/true, every: 1d}\n");
  EXPECT_THAT(runAsAdmin({"apply", path}).out,
              HasSubstr("    at           0 3 * * mon-fri -> (default)\n"));
  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_cron_plugin WHERE cron_calendar IS NULL"),
            "2");
}

TEST_F(NextTest, NamesTheLineOfACalendarThatIsWrong) {
  const std::string path = daemon.directory / "tasks.yaml";
  writeFile(path,
            "tasks:\n  a:\n    plugin: /bin/true\n    at: 0 25 * * *\n"
            "  b: {plugin: /bin/true, every: 5m, zone: UTC}\n");
  EXPECT_THAT(runAsAdmin({"apply", path}).err,
              HasSubstr(":5: b: zone is the time zone of a calendar: it needs at:"));
  writeFile(path, "tasks:\n  a:\n    plugin: /bin/true\n    at: 0 25 * * *\n");
  EXPECT_THAT(runAsAdmin({"apply", path}).err,
              HasSubstr(":4: a: at: the calendar is invalid at character 3"));
}

}  // namespace
