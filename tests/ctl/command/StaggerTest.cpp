#include <string>
#include <vector>

#include "tests/ctl/CtlTest.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

using Words = std::vector<std::string>;

/// koductl stagger.
class StaggerCommandTest : public CtlTest {
 protected:
  CtlResult stagger(const Words& arguments) {
    Words all = {"stagger"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return runAsAdmin(all);
  }
  /// Tasks 1 to `count` with this interval, all due at the same second of the next hour.
  void insertCrowd(int count, const std::string& interval) const {
    for (int id = 1; id <= count; ++id) {
      TaskRow row = quietTask(id);
      row.interval = interval;
      row.nextExec = "date_trunc('hour', now() AT TIME ZONE 'UTC') + interval '1 hour'";
      database.insertTask(row);
    }
  }
  std::string times() const {
    return database.value(
        "SELECT string_agg(cron_next_exec::text, ' ' ORDER BY cron_id) FROM kodu_cron_plugin");
  }
};

TEST_F(StaggerCommandTest, ProposesNothingWithoutTasks) {
  const CtlResult result = stagger({});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(result.out, "0 of 0 tasks to be moved; busiest second: 0 runs before, 0 after\n");
}

TEST_F(StaggerCommandTest, ProposesNothingForASingleTask) {
  insertCrowd(1, "1 hour");
  EXPECT_EQ(stagger({}).out, "0 of 1 task to be moved; busiest second: 1 run before, 1 after\n");
}

TEST_F(StaggerCommandTest, ListsTheTasksThatItMoves) {
  insertCrowd(3, "1 hour");
  const std::string before = times();
  const CtlResult result = stagger({});
  EXPECT_THAT(result.out, HasSubstr("ID  NAME   EVERY     NEXT RUN (UTC)       PROPOSED"));
  EXPECT_EQ(cell(result.out, "3", 1), "task3");
  EXPECT_EQ(cell(result.out, "3", 2), "01:00:00");
  EXPECT_THAT(result.out, EndsWith("busiest second: 3 runs before, 1 after\n"
                                   "Nothing has been changed; use --apply to set these times.\n"));
  EXPECT_EQ(result.err, "") << "no notice repeats the plan";
  EXPECT_EQ(times(), before);
}

TEST_F(StaggerCommandTest, MovesNothingTheSecondTime) {
  insertCrowd(4, "1 hour");
  EXPECT_THAT(stagger({"--apply"}).out, HasSubstr(" of 4 tasks moved; "));
  const std::string after = times();
  EXPECT_EQ(stagger({"--apply"}).out,
            "0 of 4 tasks moved; busiest second: 1 run before, 1 after\n");
  EXPECT_EQ(times(), after);
}

TEST_F(StaggerCommandTest, DoesNotMoveLongerIntervals) {
  insertCrowd(2, "2 hours");
  EXPECT_THAT(stagger({}).out, HasSubstr("0 of 0 tasks to be moved"));
  EXPECT_THAT(stagger({"--longest", "1:59:59"}).out, HasSubstr("0 of 0 tasks"));
  EXPECT_THAT(stagger({"--longest", "2h"}).out, HasSubstr("1 of 2 tasks to be moved"));
}

TEST_F(StaggerCommandTest, RefusesAnInvalidInterval) {
  for (const char* longest : {"0s", "-1h", "0.5s"}) {
    const CtlResult result = stagger({"--longest", longest});
    EXPECT_EQ(result.exitCode, 65) << longest << result.out;
    EXPECT_THAT(result.err, HasSubstr("longest must be one second or more")) << longest;
  }
  const CtlResult result = stagger({"--longest", "ages"});
  EXPECT_EQ(result.exitCode, 65);
  EXPECT_THAT(result.err, HasSubstr("invalid input syntax for type interval: \"ages\""));
}

TEST_F(StaggerCommandTest, RefusesAWrongCommandLine) {
  for (const Words& arguments : {Words{"7"}, {"--longest"}, {"--apply=maybe"}, {"--", "x"}}) {
    const CtlResult result = stagger(arguments);
    EXPECT_EQ(result.exitCode, 64) << testing::PrintToString(arguments) << result.out;
    EXPECT_EQ(result.out, "");
  }
}

TEST_F(StaggerCommandTest, PrintsThePlanAsJson) {
  insertCrowd(2, "1 hour");
  const Json::Value plan = parsed(stagger({"--json"}).out);
  EXPECT_FALSE(plan["applied"].asBool());
  EXPECT_EQ(plan["busiest_before"].asInt(), 2);
  EXPECT_EQ(plan["busiest_after"].asInt(), 1);
  ASSERT_EQ(plan["moves"].size(), 1U);
  EXPECT_NE(plan["moves"][0]["next_run"], plan["moves"][0]["proposed"]);
  const Json::Value none = parsed(stagger({"--json", "--longest", "1s"}).out);
  EXPECT_TRUE(none["moves"].isArray());
  EXPECT_EQ(none["moves"].size(), 0U);
}

TEST_F(StaggerCommandTest, ShowsNoControlCharacterOfAName) {
  insertCrowd(2, "1 hour");
  database.query("UPDATE kodu_plugins SET plugin_name = E'a\\x1b[2Jb'");
  const std::string output = stagger({}).out;
  EXPECT_THAT(output, HasSubstr("a?[2Jb"));
  EXPECT_THAT(output, Not(HasSubstr("\x1b")));
}

}  // namespace
