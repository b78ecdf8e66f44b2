#include <string>
#include <vector>

#include "db/pgSafeThread.h"
#include "tests/ctl/CtlTest.h"
#include "tests/support/waitUntil.h"

namespace {

using testing::HasSubstr;

/// koductl host, on a database with sql/hosts.sql and a second host.
class HostCommandTest : public CtlTest {
 protected:
  void SetUp() override {
    CtlTest::SetUp();
    database.query(
        "ALTER TABLE kodu_plugins ALTER plugin_id RESTART 1000;"
        "ALTER TABLE kodu_cron_plugin ALTER cron_id RESTART 1000");
    database.query(readFile(projectFile("sql/hosts.sql")));
    database.query("CREATE ROLE " + owner + " LOGIN SUPERUSER PASSWORD 'secret'");
    second.role = other;
    second.writeConfig();
  }
  void TearDown() override {
    database.query("DROP ROLE IF EXISTS " + other + "; DROP ROLE " + owner);
    CtlTest::TearDown();
  }

  CtlResult runAsOwner(std::vector<std::string> arguments) {
    environment.emplace_back("PGPASSWORD=secret");
    arguments.insert(arguments.begin(), {"--user", owner});
    CtlResult result = run(arguments);
    environment.pop_back();
    return result;
  }
  void addOther() {
    const std::string file = daemon.directory / "password";
    writeFile(file, database.password() + "\n");
    const CtlResult result = runAsOwner({"host", "add", other, "--password-file", file});
    ASSERT_EQ(result.exitCode, 0) << result.err;
  }

  std::string other = database.name() + "_b";
  std::string owner = "owner_of_" + database.name();
  Daemon second{database};
};

TEST_F(HostCommandTest, LeavesPingTasksOutOfAnExport) {
  addOther();
  EXPECT_EQ(runAsOwner({"export"}).out, "tasks: {}\n") << "they belong to this database";
}

TEST_F(HostCommandTest, AddsAndRemovesAHost) {
  EXPECT_EQ(runAsOwner({"host", "add", other, "--dry-run"}).out,
            "would add the host " + other + "\n");
  EXPECT_EQ(run({"host", "list"}).out, "kodu\n");

  addOther();

  EXPECT_EQ(run({"host", "list"}).out, "kodu\n" + other + "\n");
  const pgSafeThread session(database.conninfo() + " user=" + other);
  for (const std::string& line : database.serverLog()) {
    EXPECT_THAT(line, testing::Not(HasSubstr(database.password())));
  }
  EXPECT_EQ(runAsOwner({"host", "remove", "kodu"}).exitCode, 65);
}

TEST_F(HostCommandTest, RemovesAHostWithoutTasks) {
  addOther();
  EXPECT_EQ(runAsOwner({"host", "remove", other, "--dry-run"}).exitCode, 0);
  EXPECT_EQ(run({"host", "list"}).out, "kodu\n" + other + "\n");
  EXPECT_EQ(runAsOwner({"host", "remove", other}).out, "removed the host " + other + "\n");
  EXPECT_EQ(run({"host", "list"}).out, "kodu\n");
}

TEST_F(HostCommandTest, ShowsWhatEachHostDoes) {
  database.insertTask(quietTask(1));
  EXPECT_EQ(run({"host"}).out,
            "HOST            TASKS  RUNNING  LATE  LEAVING  DAEMON\n"
            "kodu (default)      1        0     -        0  not connected\n");
  const Json::Value json = parsed(run({"host", "status", "--json"}).out);
  EXPECT_EQ(json["hosts"][0]["host"], "kodu");
  EXPECT_EQ(json["hosts"][0]["tasks"], 1);
  EXPECT_EQ(json["hosts"][0]["sessions"], 0);
  EXPECT_TRUE(json["tasks"].isNull());
}

TEST_F(HostCommandTest, GivesTheTasksOfAHostThatIsDownToAnother) {
  addOther();
  database.insertTask(quietTask(1));
  database.insertTask(quietTask(2));
  EXPECT_EQ(runAsAdmin({"host", "takeover", "kodu", other, "--dry-run"}).out,
            "would give at most 2 tasks of the host kodu to the host " + other + "\n");
  EXPECT_THAT(runAsAdmin({"host", "takeover", "kodu", other}).err, HasSubstr("does not answer"));
  EXPECT_EQ(database.task(1, "cron_host"), "kodu");

  ASSERT_TRUE(second.startAndWait());
  const CtlResult result = runAsAdmin({"host", "takeover", "kodu", other});

  EXPECT_EQ(result.out, "gave 2 tasks of the host kodu to the host " + other + "\n") << result.err;
  EXPECT_EQ(database.task(1, "cron_host"), other);
}

TEST_F(HostCommandTest, MovesTasksBetweenTwoDaemons) {
  addOther();
  for (const int id : {1, 2, 3}) {
    database.insertTask(quietTask(id));
  }
  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(second.startAndWait());
  const CtlResult refused = runAsAdmin({"host", "takeover", "kodu", other});
  EXPECT_EQ(refused.exitCode, 65);
  EXPECT_THAT(refused.err, HasSubstr("is connected"));
  EXPECT_EQ(runAsAdmin({"host", "move", "kodu", other, "--tasks", "2", "--dry-run"}).out,
            "would give at most 2 tasks of the host kodu to the host " + other + "\n");
  EXPECT_EQ(database.task(1, "cron_host"), "kodu");

  const CtlResult result = runAsAdmin({"host", "move", "kodu", other, "--tasks", "2", "--json"});

  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(parsed(result.out)["tasks"], 2);
  EXPECT_EQ(database.value("SELECT string_agg(cron_id::text, ' ' ORDER BY cron_id) FROM"
                           " kodu_cron_plugin WHERE cron_id < 4 AND cron_host = '" +
                           other + "'"),
            "1 2");
  EXPECT_TRUE(daemon.isRunning());
  EXPECT_TRUE(second.isRunning());
}

TEST_F(HostCommandTest, SaysWhatIsWrong) {
  EXPECT_EQ(run({"host", "takeover", "kodu"}).exitCode, 64);
  EXPECT_THAT(run({"host", "takeover", "kodu"}).err,
              HasSubstr("host takeover needs 2 hosts, as in koductl host takeover kodu kodu_b"));
  EXPECT_EQ(run({"host", "status", "kodu"}).exitCode, 64);
  EXPECT_EQ(run({"host", "status", "--tasks", "3"}).exitCode, 64);
  EXPECT_EQ(run({"host", "remove", "kodu", "--password-file", "x"}).exitCode, 64);
  EXPECT_EQ(run({"host", "takeover", "kodu", "b"}).exitCode, 77);
  EXPECT_EQ(runAsAdmin({"host", "add", "b"}).exitCode, 77);
  EXPECT_THAT(runAsAdmin({"host", "takeover", "kodu", "b"}).err, HasSubstr("there is no host b"));
  EXPECT_THAT(runAsAdmin({"host", "move", "b", "kodu"}).err, HasSubstr("there is no host b"));
  EXPECT_EQ(runAsOwner({"host", "add", "b", "--password-file", "/nowhere"}).exitCode, 66);
  EXPECT_THAT(runAsOwner({"host", "add", "B"}).err, HasSubstr("cannot be the name of a host"));
}

class NoHostsTest : public CtlTest {};

TEST_F(NoHostsTest, NamesTheFileToLoad) {
  const CtlResult result = run({"host"});
  EXPECT_EQ(result.exitCode, 65);
  EXPECT_THAT(result.err, HasSubstr("load sql/hosts.sql"));
}

}  // namespace
