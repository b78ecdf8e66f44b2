#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <string>

#include "tests/ctl/CtlTest.h"

namespace {

using testing::HasSubstr;

constexpr const char* kJsonTime = "....-..-..T..:..:..Z";

/// koductl forecast, stagger and prune.
class PlanTest : public CtlTest {
 protected:
  void SetUp() override {
    CtlTest::SetUp();
    writeFile(daemon.logPath(), "");  // its owner counts as the daemon's user
  }

  /// Tasks 1 to `count`, each hour, all at the same second.
  void insertCrowd(int count) const {
    const std::string moment =
        database.value("SELECT date_trunc('hour', now()) + interval '1 hour'");
    for (int id = 1; id <= count; ++id) {
      TaskRow row = quietTask(id);
      row.interval = "1 hour";
      row.nextExec = "timestamptz '" + moment + "' AT TIME ZONE 'UTC'";
      database.insertTask(row);
    }
  }
};

TEST_F(PlanTest, ForecastsTheRunsAndTheWorkersThatTheyNeed) {
  insertCrowd(4);
  const CtlResult result = runAsAdmin({"forecast", "2", "--run-seconds", "2.5"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr("8 runs in 2 h; the busiest second is "));
  EXPECT_THAT(result.out, HasSubstr(" with 4.\nRuns of 2.5 s need 4 workers; "
                                    "thread_number is 2.\n"));
}

TEST_F(PlanTest, ForecastsWithTheDurationOfATask) {
  TaskRow row = quietTask(1);
  row.interval = "1 minute";
  row.nextExec = "now()";
  database.insertTask(row);
  const Json::Value minutes = parsed(runAsAdmin({"forecast", "--took", "1=30", "--json"}).out);
  EXPECT_GE(minutes.size(), 60U);
  EXPECT_EQ(minutes[30]["runs"].asInt(), 1);
  EXPECT_EQ(minutes[30]["workers"].asInt(), 1);
  EXPECT_THAT(minutes[30]["busiest_second"].asString(), testing::MatchesRegex(kJsonTime));
}

TEST_F(PlanTest, RefusesInvalidDurations) {
  for (const char* wrong : {"30", "1=", "=1", "1=x", "1=1, \"2\": 3", "1=-1", ""}) {
    const CtlResult result = runAsAdmin({"forecast", "--took", wrong});
    EXPECT_EQ(result.exitCode, 64) << wrong;
    EXPECT_THAT(result.err, HasSubstr("--took takes ID=SECONDS, such as 7=12.5")) << wrong;
  }
  EXPECT_EQ(runAsAdmin({"forecast", "--took", "1=007.5"}).exitCode, 0);
}

TEST_F(PlanTest, OmitsTheBusiestSecondWhenNothingIsDue) {
  EXPECT_TRUE(parsed(runAsAdmin({"forecast", "--json"}).out)[0]["busiest_second"].isNull());
}

TEST_F(PlanTest, ProposesTimesAndSetsThemWithApply) {
  insertCrowd(4);
  const CtlResult proposed = runAsAdmin({"stagger"});
  EXPECT_EQ(proposed.exitCode, 0) << proposed.err;
  EXPECT_THAT(proposed.out, HasSubstr("busiest second: 4 runs before, 1 after\n"));
  EXPECT_THAT(proposed.out,
              HasSubstr("Nothing has been changed; use --apply to set these times.\n"));
  EXPECT_EQ(database.value("SELECT count(DISTINCT cron_next_exec) FROM kodu_cron_plugin"), "1");

  const Json::Value applied = parsed(runAsAdmin({"stagger", "--apply", "--json"}).out);
  EXPECT_TRUE(applied["applied"].asBool());
  EXPECT_EQ(applied["busiest_after"].asInt(), 1);
  EXPECT_EQ(applied["moves"][0]["every"].asString(), "01:00:00");
  EXPECT_THAT(applied["moves"][0]["proposed"].asString(), testing::MatchesRegex(kJsonTime));
  EXPECT_EQ(database.value("SELECT count(DISTINCT cron_next_exec) FROM kodu_cron_plugin"), "4");
}

TEST_F(PlanTest, DeletesOldRowsAndTheirOutputsTogether) {
  database.insertTask(quietTask(1));
  addFailure(1, 100000, "out_1_old.txt", "12345");
  addFailure(1, 10, "out_1_new.txt", "x");
  addFailure(1, 100000, "../out_1_new.txt", "x");
  const CtlResult result = runAsAdmin({"prune", "--older-than", "1d"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(result.out, "2 history rows and 1 archived output deleted, 5 bytes\n");
  EXPECT_THAT(filesIn(archive(1)), testing::ElementsAre("out_1_new.txt"));
  EXPECT_EQ(database.failures(1), 1);
}

TEST_F(PlanTest, KeepsAnOutputThatANewerRowNames) {
  database.insertTask(quietTask(1));
  addFailure(1, 100000, "out_1_same.txt", "old");
  addFailure(1, 10, "out_1_same.txt", "new");
  const Json::Value json = parsed(runAsAdmin({"prune", "--older-than", "1d", "--json"}).out);
  EXPECT_EQ(json["rows"].asInt(), 1);
  EXPECT_EQ(json["files"].asInt(), 0);
  EXPECT_EQ(readFile(archive(1) + "/out_1_same.txt"), "new");
}

TEST_F(PlanTest, KeepsARowThatCameMeanwhileWithItsFile) {
  database.insertTask(quietTask(1));
  addFailure(1, 100000, "out_1_old.txt", "12345");
  database.query(
      "CREATE FUNCTION meet() RETURNS trigger LANGUAGE plpgsql SECURITY DEFINER AS"
      " $$BEGIN INSERT INTO kodu_cron_error (cron_id, cron_date, cron_logfile)"
      " VALUES (1, now() - interval '3 days', 'late.txt'); RETURN NULL; END$$;"
      "CREATE TRIGGER meet BEFORE DELETE ON kodu_cron_error EXECUTE FUNCTION meet()");
  writeFile(archive(1) + "/late.txt", "x");
  EXPECT_EQ(runAsAdmin({"prune", "--older-than", "1d"}).out,
            "1 history row and 1 archived output deleted, 5 bytes\n");
  EXPECT_EQ(database.value("SELECT cron_logfile FROM kodu_cron_error"), "late.txt");
  EXPECT_THAT(filesIn(archive(1)), testing::ElementsAre("late.txt"));
}

TEST_F(PlanTest, DeletesNoFileWhenTheDatabaseRefuses) {
  database.insertTask(quietTask(1));
  addFailure(1, 100000, "out_1_old.txt", "12345");
  EXPECT_EQ(runAsAdmin({"prune"}).exitCode, 64);
  EXPECT_EQ(runAsAdmin({"prune", "--older-than", "0 s"}).exitCode, 65);
  EXPECT_EQ(run({"prune", "--older-than", "1d"}).exitCode, 77);
  EXPECT_THAT(filesIn(archive(1)), testing::ElementsAre("out_1_old.txt"));
  EXPECT_EQ(database.failures(1), 1);
}

/// A koductl prune that is interrupted or fails.
class PruneTest : public PlanTest {
 protected:
  /// Failed runs of long ago, each with its archived output.
  void addOldFailures(int count) const {
    database.insertTask(quietTask(1));
    database.query(
        "INSERT INTO kodu_cron_error (cron_id, cron_date, cron_logfile)"
        " SELECT 1, now() - interval '2 days', n || '.txt' FROM generate_series(1, " +
        std::to_string(count) + ") AS n");
    std::filesystem::create_directories(archive(1));
    for (int i = 1; i <= count; ++i) {
      writeFile(archive(1) + "/" + std::to_string(i) + ".txt", "x");
    }
  }
  std::size_t fileCount() const { return filesIn(archive(1)).size(); }

  /// Starts a prune and kills it as soon as only `files` files are left.
  void pruneUntilFilesAre(std::size_t few) {
    environment.emplace_back("PGPASSWORD=secret");
    const pid_t process =
        start({"-f", daemon.mainConfig(), "--user", admin(), "prune", "--older-than", "1d"});
    environment.pop_back();
    EXPECT_TRUE(waitUntil([&] { return fileCount() <= few; }));
    kill(process, SIGKILL);
    waitpid(process, nullptr, 0);
  }
  void expectNothingDeleted(const std::string& reason) {
    const CtlResult result = runAsAdmin({"prune", "--older-than", "1d"});
    EXPECT_EQ(result.exitCode, 77) << result.out;
    EXPECT_EQ(result.out, "");
    EXPECT_THAT(
        result.err,
        HasSubstr("nothing was deleted, because archived outputs cannot be deleted: " + reason));
    EXPECT_EQ(database.failures(1), 3);
  }
};

TEST_F(PruneTest, CompletesAPruneKilledBetweenFilesAndRows) {
  addOldFailures(3);
  // The deletion of the rows waits.
  database.query(
      "CREATE TABLE held AS SELECT 1; GRANT SELECT ON held TO kodu_admin;"
      "CREATE FUNCTION wait() RETURNS trigger LANGUAGE plpgsql AS"
      " $$BEGIN IF EXISTS (SELECT FROM held) THEN PERFORM pg_sleep(600); END IF; RETURN NULL; "
      "END$$;"
      "CREATE TRIGGER wait BEFORE DELETE ON kodu_cron_error EXECUTE FUNCTION wait()");
  pruneUntilFilesAre(0);
  // Its session may not have begun to wait yet.
  EXPECT_TRUE(waitUntil([&] {
    return database
        .query(
            "SELECT pg_terminate_backend(pid) FROM pg_stat_activity"
            " WHERE application_name = 'kodu_ctl' AND datname = current_database()")
        .empty();
  }));
  EXPECT_EQ(database.failures(1), 3);
  database.query("DELETE FROM held");
  EXPECT_EQ(runAsAdmin({"prune", "--older-than", "1d"}).out,
            "3 history rows and 0 archived outputs deleted, 0 bytes\n");
}

TEST_F(PruneTest, CompletesAPruneKilledWhileItDeletesFiles) {
  constexpr int kCount = 20000;
  addOldFailures(kCount);
  pruneUntilFilesAre(kCount - 1);
  const std::size_t left = fileCount();
  EXPECT_GE(database.failures(1), static_cast<int>(left));
  EXPECT_EQ(runAsAdmin({"prune", "--older-than", "1d"}).exitCode, 0);
  EXPECT_EQ(fileCount(), 0U);
  EXPECT_EQ(database.failures(1), 0);
}

TEST_F(PruneTest, ChangesNothingWhenAFolderCannotBeRead) {
  const passwd* user = getpwnam("postgres");
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can take rights away from the daemon's user";
  }
  addOldFailures(3);
  chmod(daemon.directory.path().c_str(), 0755);
  ASSERT_EQ(chown(daemon.logPath().c_str(), user->pw_uid, user->pw_gid), 0);
  for (const std::string& folder :
       {daemon.outputDirectory(), daemon.outputDirectory() + "/archive", archive(1)}) {
    for (const std::string& path :
         {daemon.outputDirectory(), daemon.outputDirectory() + "/archive", archive(1)}) {
      ASSERT_EQ(chown(path.c_str(), user->pw_uid, user->pw_gid), 0);
    }
    ASSERT_EQ(chown(folder.c_str(), 0, 0), 0);
    chmod(folder.c_str(), 0700);
    expectNothingDeleted("");
    EXPECT_EQ(fileCount(), 3U) << folder;
    chmod(folder.c_str(), 0755);
  }
}

TEST_F(PruneTest, ChangesNothingWithoutTheOutputFolder) {
  addOldFailures(3);
  std::filesystem::rename(daemon.outputDirectory(), daemon.directory / "elsewhere");
  expectNothingDeleted("directory " + daemon.outputDirectory() + ": No such file or directory");
}

TEST_F(PruneTest, KeepsTheRowsOfFilesThatCannotBeDeleted) {
  addOldFailures(3);
  std::filesystem::remove(archive(1) + "/2.txt");
  std::filesystem::create_directory(archive(1) + "/2.txt");
  const CtlResult result = runAsAdmin({"prune", "--older-than", "1d"});
  EXPECT_EQ(result.exitCode, 77);
  EXPECT_THAT(result.err, HasSubstr("cannot delete " + archive(1) + "/2.txt: Is a directory; "));
  EXPECT_EQ(database.failures(1), 3);
  std::filesystem::remove(archive(1) + "/2.txt");
  EXPECT_EQ(runAsAdmin({"prune", "--older-than", "1d"}).exitCode, 0);
  EXPECT_EQ(fileCount(), 0U);
  EXPECT_EQ(database.failures(1), 0);
}

}  // namespace
