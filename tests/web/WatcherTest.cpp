#include "tests/web/WebTest.h"

namespace {

using testing::HasSubstr;
using testing::Not;

/// The overview and the stream.
class WatcherTest : public WebTest {
 protected:
  /// A stream of events.
  struct Stream {
    explicit Stream(const Browser& browser) : client(browser.port) {
      client.send("GET /api/v1/stream HTTP/1.1\r\nHost: x\r\n" + browser.headers() + "\r\n");
    }
    /// What comes up to an event with this text; "" when it does not come in time.
    std::string await(const std::string& text) const {
      const std::string received = client.receive(text);
      return received.find(text) == std::string::npos ? "" : received;
    }
    HttpClient client;
  };
  void setDatabaseAway(bool isAway) const {
    database.query("ALTER DATABASE " + database.name() + " CONNECTION LIMIT " +
                   (isAway ? "0" : "-1"));
    database.query(
        "SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE datname = "
        "current_database() AND usename = 'kodu_web'");
  }
};

TEST_F(WatcherTest, CountsTasks) {
  for (const int id : {1, 2, 3}) {
    TaskRow row;
    row.id = id;
    row.path = "/usr/bin/check";
    database.insertTask(row);
  }
  database.query("UPDATE kodu_cron_plugin SET cron_status = 'FAILED' WHERE cron_id > 1");
  database.query("SELECT kodu_task_pause(3)");
  database.query(
      "INSERT INTO kodu_ledger_hour VALUES (date_trunc('hour', now() AT TIME ZONE 'UTC')"
      " - interval '1 hour', 60, 3, 30, 30, 1, 2, 1.5, 'O', 'h'),"
      " (date_trunc('hour', now() AT TIME ZONE 'UTC') - interval '1 hour', 6, 1, 3, 3, 1,"
      " 2, 0.5, 'F', 'h')");
  start();
  const Json::Value overview = login(viewer).api("overview").json();
  EXPECT_EQ(overview["totals"]["tasks"], 3);
  EXPECT_EQ(overview["totals"]["failing"], 2);
  EXPECT_EQ(overview["totals"]["paused"], 1);
  EXPECT_EQ(overview["totals"]["late"], 0);
  EXPECT_EQ(overview["failures_by_plugin"][0]["plugin"], "/usr/bin/check");
  EXPECT_EQ(overview["failures_by_plugin"][0]["failing"], 2);
  ASSERT_EQ(overview["due"].size(), 96U);
  int due = 0;
  for (const Json::Value& quarter : overview["due"]) {
    due += quarter["tasks"].asInt();
  }
  EXPECT_EQ(due, 2);
  ASSERT_EQ(overview["day"].size(), 24U);
  EXPECT_EQ(overview["day"][22]["runs"], 33);
  EXPECT_EQ(overview["day"][22]["failures"], 3);
  EXPECT_EQ(overview["day"][22]["late_max_seconds"], 1.5);
  EXPECT_TRUE(overview["day"][23]["runs"].isNull());
  EXPECT_FALSE(overview["daemon"]["alive"].asBool());
  EXPECT_TRUE(overview["yesterday"].isNull());
}

TEST_F(WatcherTest, TellsWhatChangesAndWhetherTheDaemonLives) {
  start();
  const Browser browser = login(viewer);
  const Stream stream(browser);
  EXPECT_THAT(stream.await("event: silent\ndata: {\"since\":null,\"what\":\"daemon\"}"),
              HasSubstr("text/event-stream"));
  ASSERT_TRUE(daemon.startAndWait());
  EXPECT_NE(stream.await("event: ok\n"), "");
  EXPECT_TRUE(browser.api("overview").json()["daemon"]["alive"].asBool());
  TaskRow row = makeTask(1, "echo fine");
  database.insertTask(row);
  database.query("SELECT kodu_tell_update(1)");
  EXPECT_NE(stream.await("\"tasks\":1}"), "");
  EXPECT_NE(stream.await("event: tasks\ndata: {\"ids\":[1]}"), "");
  EXPECT_NE(stream.await("event: alive\ndata: {\"now\":"), "");
  daemon.signal(SIGKILL);
  daemon.waitForEnd();
  EXPECT_NE(stream.await("event: silent\n"), "");
}

TEST_F(WatcherTest, TellsThatTheDatabaseIsAway) {
  start();
  const Browser browser = login(viewer);
  const Stream stream(browser);
  EXPECT_NE(stream.await("event: totals\n"), "");
  setDatabaseAway(true);
  const std::string received = stream.await(R"("what":"database"})");
  const Stream later(browser);
  const std::string greeting = later.await(R"("what":"database"})");
  setDatabaseAway(false);
  EXPECT_NE(received, "");
  EXPECT_THAT(greeting, Not(HasSubstr("event: totals")));
  EXPECT_NE(stream.await("event: totals\n"), "");
  EXPECT_THAT(said(), HasSubstr("koduweb: no answer from the database: "));
  EXPECT_TRUE(waitUntil(
      [&] { return said().find("koduweb: the database answers\n") != std::string::npos; }));
}

TEST_F(WatcherTest, EndsTheStreamWithItsSession) {
  start();
  const Browser browser = login(viewer);
  const Stream stream(browser);
  const Stream other(login(admin));
  EXPECT_NE(stream.await("event: alive\n"), "");
  EXPECT_NE(other.await("event: alive\n"), "");
  EXPECT_EQ(browser.post("logout").status, 204);
  EXPECT_EQ(stream.await("never"), "") << "the connection is closed";
  EXPECT_NE(other.await("event: alive\n"), "");
}

TEST_F(WatcherTest, TellsOfAChangeByAPerson) {
  database.insertTask(TaskRow());
  start();
  const Stream stream(login(viewer));
  EXPECT_NE(stream.await("event: alive\n"), "");
  EXPECT_EQ(login(admin).post("tasks/1/pause").status, 200);
  EXPECT_NE(stream.await("event: tasks\ndata: {\"ids\":[1]}"), "");
}

TEST_F(WatcherTest, AsksTheDatabaseOnceForAllViewers) {
  start();
  const Browser browser = login(viewer);
  std::vector<std::unique_ptr<Stream>> streams;
  for (int i = 0; i < 200; ++i) {
    streams.push_back(std::make_unique<Stream>(browser));
  }
  for (const auto& stream : streams) {
    EXPECT_NE(stream->await("event: alive\n"), "");
  }
  const auto count = [&] {
    long statements = 0;
    for (const std::string& line : database.serverLog()) {
      statements += line.find("kodu_web_changes") != std::string::npos ? 1 : 0;
    }
    return statements;
  };
  const long before = count();
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < 5; ++i) {
    streams.front()->await("event: alive\n");
  }
  const auto seconds =
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - begin);
  EXPECT_LE(count() - before, seconds.count() + 3);
}

}  // namespace
