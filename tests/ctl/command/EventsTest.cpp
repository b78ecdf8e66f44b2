#include <csignal>
#include <string>
#include <vector>

#include "db/pgSafeThread.h"
#include "db/statements.h"
#include "tests/ctl/CtlTest.h"
#include "tests/support/waitUntil.h"

namespace {

using testing::HasSubstr;

/// koductl events, beside a session with the daemon's statements.
class EventsCommandTest : public CtlTest {
 protected:
  void SetUp() override {
    CtlTest::SetUp();
    database.query(readFile(projectFile("sql/events.sql")));
    for (const int id : {1, 2}) {
      database.insertTask(quietTask(id));
    }
    prepareNamedStatements(session);
  }

  void end(pgSafeThread& of, int id, const std::string& status) const {
    PQclear(of.executePrepareRequest("UpdateCronProcess", {std::to_string(id)}));
    PQclear(of.executePrepareRequest("UpdateCronState", {std::to_string(id), status}));
  }
  void fail(int id) { end(session, id, "FAILED"); }

  /// Waits for the transactions of other tests, which share the server.
  bool awaitEvents(int count) const {
    return waitUntil([&] {
      return database.value(
                 "SELECT count(*) FROM kodu_event WHERE xact < "
                 "pg_snapshot_xmin(pg_current_snapshot())::text::bigint") == std::to_string(count);
    });
  }
  bool hasPrinted(const std::string& text) const {
    return waitUntil([&] { return readFile(outPath()).find(text) != std::string::npos; });
  }
  static int interrupt(pid_t pid) {
    int status = 0;
    kill(pid, SIGINT);
    waitpid(pid, &status, 0);
    return exitStatusOf(status);
  }

  pgSafeThread session{database.conninfo()};
};

TEST_F(EventsCommandTest, ShowsWhatHasChanged) {
  fail(1);
  PQclear(session.executePrepareRequest("updateCronExecTask", {"1", "2"}));
  end(session, 1, "OK");
  ASSERT_TRUE(awaitEvents(3));
  const CtlResult result = run({"events"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  const std::string time = "[-0-9]+ [:0-9]+";
  EXPECT_THAT(result.out,
              testing::MatchesRegex(time + "  failed             1  task1\n" + time +
                                    "  skipped            1  task1  2 periods: [a-z ,]+\n" + time +
                                    "  recovered          1  task1\n"));
  EXPECT_EQ(parsed(run({"events", "--json"}).out).size(), 3U);
  EXPECT_EQ(run({"events", "--since", "tomorrow"}).out, "");
  EXPECT_EQ(run({"events", "--since", "tomorrow", "--json"}).out, "[]\n");
}

TEST_F(EventsCommandTest, FollowsEachEventOnce) {
  fail(1);
  ASSERT_TRUE(awaitEvents(1));
  const pid_t pid = start({"-f", daemon.mainConfig(), "events", "-f", "--since", "yesterday"});
  ASSERT_TRUE(hasPrinted("task1")) << readFile(errPath());
  // The session of the later event ends first.
  pgSafeThread late(database.conninfo());
  prepareNamedStatements(late);
  PQclear(late.executeRequest("BEGIN"));
  end(late, 1, "OK");
  fail(2);
  ASSERT_EQ(database.value("SELECT count(*) FROM kodu_event"), "2");
  PQclear(late.executeRequest("COMMIT"));
  ASSERT_TRUE(hasPrinted("task2"));
  EXPECT_EQ(interrupt(pid), 0);
  const std::string out = readFile(outPath());
  EXPECT_THAT(out, testing::MatchesRegex(".* failed .*task1\n.* recovered .*task1\n.* failed "
                                         ".*task2\n"));
}

TEST_F(EventsCommandTest, FollowsThroughTheLossOfItsSession) {
  const pid_t pid =
      start({"-f", daemon.mainConfig(), "events", "-f", "--json", "--since", "yesterday"});
  fail(1);
  ASSERT_TRUE(hasPrinted("\"task1\"")) << readFile(errPath());
  ASSERT_EQ(database.value("SELECT count(pg_terminate_backend(pid)) FROM pg_stat_activity WHERE "
                           "application_name = 'kodu_ctl' AND datname = current_database()"),
            "1");
  fail(2);
  ASSERT_TRUE(hasPrinted("\"task2\"")) << readFile(errPath());
  EXPECT_EQ(interrupt(pid), 0);
  const std::string out = readFile(outPath());
  EXPECT_EQ(parsed(out.substr(0, out.find('\n')))["event"].asString(), "failed");
  EXPECT_THAT(readFile(errPath()), HasSubstr("koductl: "));
}

TEST_F(EventsCommandTest, GivesAReaderEachEventOnce) {
  EXPECT_EQ(run({"events", "--reader", "mine"}).out, "");
  fail(1);
  ASSERT_TRUE(awaitEvents(1));
  const Json::Value first = parsed(run({"events", "--reader", "mine", "--json"}).out);
  ASSERT_EQ(first.size(), 1U);
  EXPECT_EQ(run({"events", "--reader", "mine"}).out, "");
  const pid_t pid = start({"-f", daemon.mainConfig(), "events", "--follow", "--reader", "mine"});
  fail(2);
  ASSERT_TRUE(hasPrinted("task2"));
  EXPECT_EQ(interrupt(pid), 0);
  EXPECT_THAT(readFile(outPath()), testing::Not(HasSubstr("task1")));
}

TEST_F(EventsCommandTest, DeliversAgainWhatCouldNotBeDelivered) {
  ASSERT_EQ(run({"events", "--reader", "mine"}).exitCode, 0);
  fail(1);
  ASSERT_TRUE(awaitEvents(1));
  EXPECT_EQ(run({"events", "--dead"}).out, "");
  const std::string key = database.value(
      "SELECT key FROM kodu_events('mine'), kodu_events_bury('mine', position, event, 3, 'HTTP "
      "503')");
  const CtlResult dead = run({"events", "--dead"});
  EXPECT_EQ(dead.exitCode, 0) << dead.err;
  EXPECT_THAT(dead.out, testing::MatchesRegex("[-0-9]+ [:0-9]+  failed             1  task1  key " +
                                              key + " of mine, 3 attempts: HTTP 503\n"));
  EXPECT_EQ(run({"events", "--dead", "--reader", "other"}).out, "");
  EXPECT_EQ(run({"events", "--reader", "mine"}).out, "");

  const CtlResult again = runAsAdmin({"events", "--reader", "mine", "--redeliver", key});
  EXPECT_EQ(again.exitCode, 0) << again.err;
  EXPECT_EQ(again.out, "1 event will be delivered again\n");
  EXPECT_THAT(run({"events", "--reader", "mine"}).out, HasSubstr(" failed "));
  EXPECT_EQ(run({"events", "--dead"}).out, "");
  EXPECT_EQ(runAsAdmin({"events", "--reader", "mine", "--redeliver", "all"}).out,
            "0 events will be delivered again\n");
  EXPECT_EQ(runAsAdmin({"events", "--reader", "mine", "--redeliver", key}).exitCode, 65);
  EXPECT_EQ(runAsAdmin({"events", "--redeliver", "all"}).exitCode, 64);
}

TEST_F(EventsCommandTest, IsForAnyRoleThatMayRead) {
  database.query("GRANT kodu_reader TO " + admin() + "; REVOKE kodu_admin FROM " + admin());
  fail(1);
  ASSERT_TRUE(awaitEvents(1));
  // Without a right to the version of the tables.
  const CtlResult result = runAsAdmin({"events"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr("task1"));
  EXPECT_EQ(runAsAdmin({"events", "--reader", "mine"}).exitCode, 0);
  const CtlResult other = run({"events", "--reader", "mine"});
  EXPECT_EQ(other.exitCode, 77);
  EXPECT_THAT(other.err, HasSubstr("belongs to the role " + admin()));
}

TEST_F(EventsCommandTest, SaysWhatIsMissing) {
  EXPECT_EQ(run({"events", "--reader", "mine", "--since", "now"}).exitCode, 64);
  EXPECT_EQ(run({"events", "--reader", "two words"}).exitCode, 65);
  database.query("DROP VIEW kodu_event");
  const CtlResult result = run({"events"});
  EXPECT_EQ(result.exitCode, 65);
  EXPECT_THAT(result.err, HasSubstr("the database has no events that this role may read"));
}

}  // namespace
