#include <string>

#include "tests/ctl/CtlTest.h"

namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::MatchesRegex;

/// koductl pause --until.
class PauseTest : public CtlTest {
 protected:
  void SetUp() override {
    CtlTest::SetUp();
    database.insertTask(quietTask(1));  // every 5 minutes, due in an hour
  }

  /// Seconds from now to the end of the pause, in the database.
  double endIn() const {
    return std::stod(database.value(
        "SELECT round(EXTRACT(EPOCH FROM resumes_at - now())) FROM kodu_cron_pause"));
  }
};

TEST_F(PauseTest, EndsAfterADuration) {
  const CtlResult result = runAsAdmin({"pause", "1", "--until", "2h", "--reason", "new disks"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_THAT(result.out, MatchesRegex("task 1 \\(task1\\) paused; next due at 20[0-9: -]+ UTC "
                                       "\\(in [0-9hm ]+\\)\n"));
  EXPECT_NEAR(endIn(), 7200, 30);
  for (const char* duration : {"1 day 30m", "90 min", "5400s", "1.5h"}) {
    EXPECT_EQ(runAsAdmin({"pause", "1", "--until", duration}).exitCode, 0) << duration;
  }
  EXPECT_NEAR(endIn(), 5400, 30);
}

TEST_F(PauseTest, EndsAtATimeInTheZoneOfTheOperator) {
  ASSERT_EQ(runAsAdmin({"pause", "1", "--until", "2034-07-01 12:00", "--zone", "Asia/Kathmandu"})
                .exitCode,
            0);
  EXPECT_EQ(database.value("SELECT resumes_at FROM kodu_cron_pause"), "2034-07-01 06:15:00");
  environment.emplace_back("TZ=America/New_York");
  ASSERT_EQ(runAsAdmin({"pause", "1", "--until", "2034-07-01 12:00"}).exitCode, 0);
  EXPECT_EQ(database.value("SELECT resumes_at FROM kodu_cron_pause"), "2034-07-01 16:00:00");
}

TEST_F(PauseTest, EndsAtTheNextMomentOfATimeOfDay) {
  for (const int minutes : {-5, 5}) {
    const std::string time = database.value("SELECT to_char(now() + interval '" +
                                            std::to_string(minutes) + " min', 'HH24:MI')");
    ASSERT_EQ(runAsAdmin({"pause", "1", "--until", time}).exitCode, 0);
    EXPECT_NEAR(endIn(), minutes > 0 ? 300 : 86400 - 300, 90) << time;
  }
}

TEST_F(PauseTest, SaysWhatItCannotRead) {
  const CtlResult result = runAsAdmin({"pause", "1", "--until", "soon"});
  EXPECT_EQ(result.exitCode, 65);
  EXPECT_THAT(result.err, HasSubstr("invalid input syntax for type timestamp with time zone: "
                                    "\"soon\""));
  EXPECT_EQ(runAsAdmin({"pause", "1", "--until", "yesterday"}).err,
            "koductl: the end of a pause must lie ahead, and before 2035\n"
            "hint: Use until => now() + interval '2 hours', for example.\n");
}

TEST_F(PauseTest, ShowsEndAndReasonEverywhere) {
  ASSERT_EQ(runAsAdmin({"pause", "1", "--until", "2h", "--reason", "new disks"}).exitCode, 0);
  EXPECT_THAT(run({"status"}).out, ContainsRegex("since [0-9: -]+ by [a-z_0-9]+ until [0-9: -]+: "
                                                 "new disks\n"));
  EXPECT_THAT(run({"show", "1"}).out,
              ContainsRegex("until 20[0-9: -]+ UTC \\(in [0-9hm ]+\\): new"));
  EXPECT_THAT(run({"explain", "1"}).out,
              AllOf(HasSubstr(": new disks. Then its next run is due at 20"),
                    HasSubstr("Run koductl resume 1 to resume it earlier.\n")));
  const Json::Value pause = parsed(run({"show", "1", "--json"}).out)["pause"];
  EXPECT_THAT(pause["until"].asString(), MatchesRegex("20[0-9-]+T[0-9:]+Z"));
  EXPECT_EQ(pause["reason"].asString(), "new disks");
}

TEST_F(PauseTest, EndsByItselfUnderARunningDaemon) {
  TaskRow row = makeTask(2, "echo fine");
  row.interval = "2 seconds";
  database.insertTask(row);
  ASSERT_TRUE(startAndListen());
  ASSERT_TRUE(waitForRuns(2, 1));
  ASSERT_EQ(runAsAdmin({"pause", "2", "--until", "6s"}).exitCode, 0);
  const long end = std::stol(
      database.value("SELECT EXTRACT(EPOCH FROM resumes_at)::bigint FROM kodu_cron_pause"));
  ASSERT_TRUE(waitUntil([&] { return !ledger(2).empty() && ledger(2).back() >= end; }, kPatience));
  // A run that was due within a second of the pause may still have begun.
  long inside = 0;
  for (const long time : ledger(2)) {
    inside += time > end - 4 && time < end ? 1 : 0;
  }
  EXPECT_EQ(inside, 0);
  EXPECT_FALSE(parsed(run({"show", "2", "--json"}).out)["paused"].asBool());
  EXPECT_TRUE(daemon.isRunning());
}

TEST_F(PauseTest, OutlivesARestartOfTheDaemon) {
  TaskRow row = makeTask(2, "echo fine");
  row.interval = "2 seconds";
  database.insertTask(row);
  ASSERT_EQ(runAsAdmin({"pause", "2", "--until", "1h"}).exitCode, 0);
  const long next = database.nextExec(2);
  ASSERT_TRUE(daemon.startAndWait());
  EXPECT_EQ(database.nextExec(2), next);
  EXPECT_TRUE(parsed(run({"show", "2", "--json"}).out)["paused"].asBool());
}

}  // namespace
