#include <string>
#include <vector>

#include "tests/ctl/CtlTest.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

using Words = std::vector<std::string>;

/// koductl window, and what the other commands say of a task that a window holds.
class WindowCommandTest : public CtlTest {
 protected:
  void SetUp() override {
    CtlTest::SetUp();
    database.query(readFile(projectFile("sql/calendar.sql")));
    database.query(readFile(projectFile("sql/windows.sql")));
    for (const int id : {1, 2, 3}) {
      TaskRow row = quietTask(id);
      row.name = id == 3 ? "disk" : "web" + std::to_string(id);
      database.insertTask(row);
    }
    setStatus(1, "OK");
  }
  CtlResult add(const Words& more) {
    Words all = {"window", "add", "--reason", "new disks"};
    all.insert(all.end(), more.begin(), more.end());
    return runAsAdmin(all);
  }
  std::string held() const {
    return database.value(
        "SELECT string_agg(cron_id::text, ' ' ORDER BY cron_id) FROM kodu_cron_plugin "
        "WHERE cron_held IS NOT NULL");
  }
};

TEST_F(WindowCommandTest, AddsListsAndEndsAWindow) {
  EXPECT_EQ(run({"window"}).out, "There are no windows.\n");

  const CtlResult added = add({"--name", "web*", "--for", "2h", "--spread", "0s"});
  EXPECT_EQ(added.exitCode, 0) << added.err;
  EXPECT_THAT(added.out,
              MatchesRegex("added window 1\n"
                           "ID  STATE  BEGINS \\(UTC\\) +ENDS +TASKS  HELD  OF +BY +REASON\n"
                           " 1  open   .* .* .* +2     2  name web\\*  admin_of_.*  new disks\n"));
  EXPECT_EQ(held(), "1 2");
  EXPECT_EQ(database.value("SELECT ends - begins FROM kodu_window_status"), "02:00:00");

  const Json::Value json = parsed(run({"window", "list", "--json"}).out);
  EXPECT_EQ(json["windows"][0]["state"], "open");
  EXPECT_EQ(json["windows"][0]["names"][0], "web*");
  EXPECT_EQ(json["windows"][0]["holds"], 2);
  EXPECT_EQ(json["windows"][0]["reason"], "new disks");

  EXPECT_EQ(runAsAdmin({"window", "end", "1", "--dry-run"}).out, "would end window 1\n");
  EXPECT_EQ(held(), "1 2");
  EXPECT_EQ(runAsAdmin({"window", "end", "1"}).out, "ended window 1\n");
  EXPECT_EQ(held(), "");
  EXPECT_EQ(run({"window", "list"}).out, "There are no windows.\n");
  EXPECT_THAT(run({"window", "list", "--all"}).out, HasSubstr(" 1  over "));
}

TEST_F(WindowCommandTest, ChoosesTasksInThreeWays) {
  EXPECT_EQ(add({"2", "--plugin", "disk", "--until", "3h"}).exitCode, 0);
  EXPECT_EQ(held(), "2 3");
  EXPECT_EQ(add({"--all", "--from", "10m", "--for", "3h"}).exitCode, 0);
  EXPECT_EQ(held(), "1 2 3");
  EXPECT_THAT(run({"window"}).out, AllOf(HasSubstr("task 2; plugin disk"), HasSubstr("name *")));
  EXPECT_EQ(runAsAdmin({"window", "end", "1", "2"}).out, "ended 2 windows\n");
  EXPECT_EQ(held(), "");
}

TEST_F(WindowCommandTest, AddsAWindowThatRecurs) {
  const CtlResult added = add(
      {"--all", "--at", "0 2 * * sun", "--zone", "Europe/Paris", "--for", "2h", "--spread", "10m"});
  EXPECT_EQ(added.exitCode, 0) << added.err;
  EXPECT_THAT(added.out, HasSubstr("new disks (recurs at 0 2 * * sun in Europe/Paris)"));
  EXPECT_EQ(database.query("SELECT calendar, zone, lasts, spread FROM kodu_window"),
            (std::vector<Database::Row>{{"0 2 * * sun", "Europe/Paris", "02:00:00", "600"}}));
  EXPECT_EQ(parsed(run({"window", "--json"}).out)["windows"][0]["lasts_seconds"], 7200);

  const CtlResult once = runAsAdmin({"window", "end", "1", "--once"});
  EXPECT_THAT(once.err, HasSubstr("window 1 is not open"));
}

TEST_F(WindowCommandTest, ChangesNothingOnTrial) {
  const CtlResult tried = add({"--all", "--for", "2h", "--dry-run"});
  EXPECT_EQ(tried.exitCode, 0) << tried.err;
  EXPECT_THAT(tried.out, HasSubstr("would add this window; nothing was changed\n"));
  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_window"), "0");
}

TEST_F(WindowCommandTest, RefusesWhatIsNoWindow) {
  EXPECT_EQ(add({"--all"}).exitCode, 64);
  EXPECT_EQ(add({"--all", "--for", "2h", "--until", "3h"}).exitCode, 64);
  EXPECT_EQ(runAsAdmin({"window", "end"}).exitCode, 64);
  EXPECT_THAT(add({"--for", "2h"}).err, HasSubstr("the window has no tasks"));
  EXPECT_THAT(runAsAdmin({"window", "add", "--all", "--for", "2h"}).err,
              HasSubstr("a window needs a reason"));
  EXPECT_THAT(add({"99", "--for", "2h"}).err, HasSubstr("there is no task 99"));
  EXPECT_EQ(runAsAdmin({"window", "end", "7"}).exitCode, 65);
  EXPECT_EQ(run({"window", "add", "--all", "--for", "2h", "--reason", "x"}).exitCode, 77);
  EXPECT_EQ(run({"window", "end", "1"}).exitCode, 77);
}

TEST_F(WindowCommandTest, NeedsItsFile) {
  database.query("DROP TABLE kodu_window CASCADE");
  const CtlResult result = run({"window"});
  EXPECT_EQ(result.exitCode, 65);
  EXPECT_THAT(result.err, HasSubstr("load sql/windows.sql as the owner of the tables"));
}

TEST_F(WindowCommandTest, ShowsATaskThatIsHeld) {
  add({"--name", "web1", "--for", "2h", "--spread", "0s"});

  EXPECT_THAT(run({"status"}).out, AllOf(HasSubstr("web1  held "), HasSubstr("1 held")));
  EXPECT_THAT(run({"status", "--held"}).out, Not(HasSubstr("web2")));
  EXPECT_EQ(run({"ids", "--held"}).out, "1\n");
  EXPECT_THAT(run({"status", "--sort", "status"}).out, HasSubstr("held"));
  EXPECT_THAT(run({"explain", "1"}).out,
              AllOf(HasSubstr("Maintenance window 1 (new disks) holds its run that was due at "),
                    HasSubstr("Then the task returns to its own times.")));
  EXPECT_THAT(run({"show", "1"}).out, HasSubstr("OK (held by a maintenance window since "));
  EXPECT_THAT(run({"next", "1", "-n", "2"}).out,
              HasSubstr("Task 1 (web1) is held by a maintenance window; its own time was "));
  EXPECT_NE(parsed(run({"show", "1", "--json"}).out)["held_from"], Json::Value());
  EXPECT_EQ(parsed(run({"show", "2", "--json"}).out)["held_from"], Json::Value());
}

TEST_F(WindowCommandTest, SaysThatARunIsNotHeld) {
  add({"--all", "--for", "2h"});
  const CtlResult ran = runAsAdmin({"run", "1"});
  EXPECT_EQ(ran.exitCode, 0) << ran.err;
  EXPECT_THAT(ran.err, HasSubstr("a maintenance window concerns task 1; this run is not held"));
  EXPECT_EQ(held(), "2 3");
}

TEST_F(WindowCommandTest, FindsAWindowWithAnInvalidCalendar) {
  add({"--all", "--at", "0 2 * * sun", "--for", "2h"});
  EXPECT_THAT(run({"health"}).out, Not(HasSubstr("maintenance")));
  database.query("UPDATE kodu_window SET zone = 'Europe/Atlantis'");

  EXPECT_THAT(
      run({"check"}).out,
      HasSubstr("maintenance window 1 holds no task, because its calendar sets no time: time "
                "zone \"Europe/Atlantis\" not recognized"));
  EXPECT_THAT(
      run({"health"}).out,
      HasSubstr("1 maintenance window with a calendar that sets no time: see koductl check"));
  EXPECT_EQ(run({"window"}).exitCode, 0);
}

}  // namespace
