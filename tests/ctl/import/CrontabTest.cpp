#include "ctl/import/crontab.h"

#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl/declared/sources.h"
#include "ctl/import/import.h"
#include "ctl/import/names.h"
#include "task/serviceSafe.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

/// The import of a crontab, and its report.
class CrontabTest : public testing::Test {
 protected:
  const std::vector<ImportedTask>& import(const std::string& content, bool hasUsers = false) {
    testing::internal::CaptureStderr();
    result = Import();
    importCrontab({"tab", content}, {hasUsers, "Europe/Paris", "p"}, result);
    result.printReport();
    report = testing::internal::GetCapturedStderr();
    return result.tasks();
  }
  std::vector<std::string> keysOf(const std::string& content) {
    std::vector<std::string> keys;
    for (const ImportedTask& task : import(content)) {
      keys.push_back(task.key);
    }
    return keys;
  }
  /// What the daemon gets from the only task.
  std::string outputOf(const std::string& content) {
    import(content);
    EXPECT_EQ(result.tasks().size(), 1U) << report;
    serviceSafe task;
    task.Setpath(result.tasks().at(0).definition.at("plugin"));
    task.Setparameter(result.tasks().at(0).definition.at("arguments"));
    task.execute();
    return task.GetStdout();
  }

  Import result;
  std::string report;
};

TEST_F(CrontabTest, MakesATaskOfALine) {
  const auto& tasks = import("# comment\n\n  0 3 * * mon-fri\t/usr/bin/backup --all\n");
  ASSERT_EQ(tasks.size(), 1U);
  EXPECT_EQ(tasks[0].key, "p/backup-" + digest("\n/usr/bin/backup --all"));
  EXPECT_EQ(tasks[0].definition,
            (Definition{{"plugin", "/bin/sh"},
                        {"name", "/usr/bin/backup --all"},
                        {"at", "0 3 * * mon-fri"},
                        {"zone", "Europe/Paris"},
                        {"retries", "0"},
                        {"arguments",
                         "-c \"export SHELL=/bin/sh PATH=/usr/bin:/bin; exec 2>&1; ( "
                         "/usr/bin/backup --all\n); s=$?; echo exit status $s; exit $s\""}}));
  EXPECT_THAT(report, HasSubstr("tab: each line runs as /bin/sh -c"));
  EXPECT_THAT(report, HasSubstr("tab: the times are those of Europe/Paris"));
  EXPECT_THAT(report, HasSubstr("\n1 task, 0 lines left out\n"));
}

TEST_F(CrontabTest, SpellsTheEnvironmentOut) {
  EXPECT_EQ(outputOf("A = two  words \n'B'=\"  x\"\nC=\nE=it's $A `b`\nPATH=/bin\n"
                     "@daily echo \"$A,$B,$C,$E,$PATH,$SHELL\""),
            "two  words,  x,,it's $A `b`,/bin,/bin/sh\nexit status 0\n");
  EXPECT_EQ(outputOf("HOME=/usr\n@daily pwd; echo $HOME"), "/usr\n/usr\nexit status 0\n");
  EXPECT_THAT(outputOf("HOME=/no such\n@daily pwd"), HasSubstr("exit status 1\n"));
  EXPECT_EQ(outputOf("SHELL=/bin/bash\n@daily [[ $SHELL == *bash ]] && echo ${BASH_VERSION:+bash}"),
            "bash\nexit status 0\n");
  EXPECT_EQ(outputOf("SHELL=/usr/bin/printf\n@daily echo 'a  b'").substr(0, 2), "-c");
}

TEST_F(CrontabTest, SetsVariablesForTheLinesThatFollowOnly) {
  const auto& tasks = import("@daily a\nA=1\n@daily b\nA=2\nB=3\n@daily c\n");
  ASSERT_EQ(tasks.size(), 3U);
  const auto environment = [&](int i) {
    const std::string text = tasks[static_cast<std::size_t>(i)].definition.at("arguments");
    return text.substr(4, text.find(';') - 4);
  };
  EXPECT_EQ(environment(0), "export SHELL=/bin/sh PATH=/usr/bin:/bin");
  EXPECT_EQ(environment(1), "export SHELL=/bin/sh PATH=/usr/bin:/bin A=1");
  EXPECT_EQ(environment(2), "export SHELL=/bin/sh PATH=/usr/bin:/bin A=2 B=3");
}

TEST_F(CrontabTest, ReadsPercentSigns) {
  EXPECT_EQ(outputOf("@daily echo 100\\%; cat%one \\% 'two'%three%"),
            "100%\none % 'two'\nthree\n\nexit status 0\n");
}

TEST_F(CrontabTest, ReportsUsers) {
  const auto& tasks = import("0 0 * * * root /bin/a\n@daily\troot\t/bin/a\n@daily kodu\n", true);
  ASSERT_EQ(tasks.size(), 2U);
  EXPECT_THAT(report,
              HasSubstr("tab:1: " + tasks[0].key + ": runs as the daemon's user, not as root\n"));
  EXPECT_THAT(report, HasSubstr("tab:2: " + tasks[1].key + ": runs as"));
  EXPECT_THAT(report, HasSubstr("tab:3: left out: there is no command\n"));
  EXPECT_THAT(import("0 0 * * * root /bin/a\n").size(), 0U);
  EXPECT_THAT(report, HasSubstr("use --system"));
}

TEST_F(CrontabTest, RecognizesSystemCrontabs) {
  EXPECT_TRUE(isSystemCrontab("/etc/crontab"));
  EXPECT_TRUE(isSystemCrontab("/etc/cron.d/php"));
  EXPECT_TRUE(isSystemCrontab("backup/cron.d/php"));
  EXPECT_FALSE(isSystemCrontab("/var/spool/cron/crontabs/root"));
  EXPECT_FALSE(isSystemCrontab("crontab"));
  EXPECT_FALSE(isSystemCrontab(""));
}

TEST_F(CrontabTest, ReportsWhatItLeavesOut) {
  import(
      "@reboot a\n@soon b\n0 0 30 2 * c\n1 2 3\n* * * * *\nA.B=1\nRANDOM_DELAY=5\nSHELL=sh\n"
      "MAILTO=root\nCRON_TZ=Asia/Tokyo\n@daily d\n");
  for (const char* line :
       {"tab:1: left out: @reboot is not a time", "tab:2: left out: the schedule \"@soon\"",
        "tab:3: left out: there is no such date", "tab:4: left out: a schedule has five fields",
        "tab:5: left out: there is no command", "tab:6: left out: no shell has a variable",
        "tab:7: left out: RANDOM_DELAY=5 has no equivalent", "tab:8: left out: SHELL is not",
        "tab:9: MAILTO has no effect", "\n1 task, 8 lines left out\n"}) {
    EXPECT_THAT(report, HasSubstr(line));
  }
  EXPECT_EQ(result.tasks().at(0).definition.at("zone"), "Asia/Tokyo");
}

TEST_F(CrontabTest, KeepsKeysWhenOtherThingsChange) {
  const auto before = keysOf("0 1 * * * /bin/a x\n0 2 * * * /bin/a y\n0 3 * * * /bin/a x\n");
  const auto after = keysOf(
      "# new\nPATH=/bin\n@hourly new\n5 1 * * * /bin/a x\n@daily /bin/a y\n@daily /bin/a x\n");
  EXPECT_THAT(before, ElementsAre(after[1], after[2], after[1] + "-2"));
  EXPECT_NE(before[0], before[1]);
  EXPECT_EQ(after[3], before[2]);
}

TEST_F(CrontabTest, ReadsLinesHoweverTheyEnd) {
  EXPECT_EQ(keysOf("@daily /bin/a\r\n@daily /bin/b").size(), 2U);
  EXPECT_THAT(report, HasSubstr("tab: the carriage returns at the ends of lines were removed\n"));
  EXPECT_EQ(result.tasks()[0].definition.at("name"), "/bin/a");
  EXPECT_TRUE(keysOf("").empty());
  EXPECT_EQ(report, "0 tasks, 0 lines left out\n");
}

TEST_F(CrontabTest, LeavesOutLinesThatNoTaskCanHold) {
  import(std::string("@daily a\0b\n", 11) + "@daily " + std::string(1 << 20, 'x') + "\n@daily " +
         std::string(131000, '\'') + "\n@daily c\n");
  EXPECT_THAT(report, HasSubstr("tab:1: left out: the line contains a zero byte\n"));
  EXPECT_THAT(report, HasSubstr("tab:2: left out: the line has 1048583 bytes"));
  EXPECT_THAT(report, HasSubstr("tab:3: left out: the command is longer than an argument"));
  EXPECT_EQ(result.tasks().size(), 1U);
}

TEST_F(CrontabTest, LetsNoTextControlTheTerminal) {
  import("@\x1b[2J x\nX\x1b]=1\n@daily echo \x1b[31m \xff\n");
  EXPECT_EQ(report.find('\x1b'), std::string::npos);
  EXPECT_EQ(result.tasks().at(0).definition.at("name"), "echo ?[31m ?");
}

TEST_F(CrontabTest, SurvivesAnyBytes) {
  std::mt19937 engine{1};
  const std::string parts = "*/@,-#%\\ \t\n\r'\"=A0159rootdaily\x01\x1b\xc3\xa9\xff";
  std::uniform_int_distribution<std::size_t> part(0, parts.size() - 1);
  for (int i = 0; i < 300; ++i) {
    std::string content;
    for (int length = 0; length < 400; ++length) {
      content += length % 50 == 0 ? "\n* * * * * " : std::string(1, parts[part(engine)]);
    }
    import(content, i % 2 == 0);
    EXPECT_THAT(report, HasSubstr("left out\n"));
  }
}

}  // namespace
