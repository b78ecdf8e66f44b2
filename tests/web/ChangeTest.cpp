#include "tests/web/WebTest.h"

namespace {

using testing::HasSubstr;

class WebChangeTest : public WebTest {
 protected:
  WebChangeTest() { database.insertTask(TaskRow()); }

  std::string audit(const std::string& column) const {
    return database.value("SELECT " + column + " FROM kodu_audit ORDER BY audit_id DESC LIMIT 1");
  }
};

TEST_F(WebChangeTest, PausesAndResumesAsThePerson) {
  start();
  const Browser browser = login(admin);
  EXPECT_EQ(browser.post("tasks/1/pause", R"({"until":"1h","reason":"new 'disks'"})").status, 200)
      << said();
  EXPECT_EQ(database.value("SELECT paused_by FROM kodu_cron_pause"), admin);
  EXPECT_EQ(database.value("SELECT reason FROM kodu_cron_pause"), "new 'disks'");
  EXPECT_EQ(database.value("SELECT resumes_at > now() AT TIME ZONE 'UTC' + interval '59 minutes'"
                           " FROM kodu_cron_pause"),
            "t");
  EXPECT_EQ(audit("role || ' ' || action || ' ' || cron_id"), admin + " pause 1");
  EXPECT_EQ(audit("before ->> 'paused'"), "false");
  EXPECT_EQ(audit("after ->> 'reason'"), "new 'disks'");
  EXPECT_EQ(browser.post("tasks/1/resume").status, 200);
  EXPECT_EQ(audit("action"), "resume");
  EXPECT_EQ(audit("before ->> 'paused_by'"), admin);
  EXPECT_EQ(audit("after ->> 'paused'"), "false");
  const WebAnswer run = browser.post("tasks/1/run");
  EXPECT_EQ(run.status, 200);
  EXPECT_TRUE(run.json()["done"].asBool());
  EXPECT_EQ(audit("action"), "run");
  EXPECT_NE(audit("before ->> 'due'"), audit("after ->> 'due'"));
  EXPECT_EQ(browser.post("tasks/1/pause", R"({"until":"2030-01-01T00:00:00Z"})").status, 200);
  EXPECT_EQ(database.value("SELECT resumes_at FROM kodu_cron_pause"), "2030-01-01 00:00:00");
}

TEST_F(WebChangeTest, NamesThePersonInTheServersSessions) {
  start();
  const Browser browser = login(admin);
  database.query("BEGIN; SELECT FROM kodu_cron_plugin WHERE cron_id = 1 FOR UPDATE");
  const HttpClient waiting(port);
  waiting.send("POST /api/v1/tasks/1/run HTTP/1.1\r\nHost: x\r\nOrigin: http://x\r\n" +
               browser.headers() + "X-Kodu-Token: " + browser.token +
               "\r\nContent-Length: 0\r\n\r\n");
  EXPECT_TRUE(waitUntil([&] { return database.waitingSessions() > 0; }));
  EXPECT_EQ(database.value("SELECT application_name FROM pg_stat_activity WHERE wait_event_type = "
                           "'Lock' AND datname = current_database()"),
            "kodu_web " + admin);
  database.query("ROLLBACK");
  EXPECT_EQ(WebAnswer(waiting.receive("}\n")).status, 200);
}

TEST_F(WebChangeTest, LetsTheDatabasesGrantsDecide) {
  start();
  const Browser watching = login(viewer);
  const WebAnswer refused = watching.post("tasks/1/run");
  EXPECT_EQ(refused.status, 403);
  EXPECT_THAT(refused.json()["error"].asString(), HasSubstr(viewer + " may not change tasks"));
  const Browser browser = login(admin);
  database.query("REVOKE kodu_admin FROM " + admin + "; GRANT kodu_viewer TO " + admin);
  EXPECT_EQ(browser.post("tasks/1/run").status, 403) << "at once";
  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_audit"), "0");
}

TEST_F(WebChangeTest, SaysWhyAChangeIsRefused) {
  start();
  const Browser browser = login(admin);
  EXPECT_EQ(browser.post("tasks/2/run").status, 404);
  EXPECT_EQ(browser.post("tasks/1/none").status, 404);
  EXPECT_EQ(browser.post("tasks/x/run").status, 404);
  EXPECT_EQ(browser.post("tasks/run").status, 404);
  EXPECT_EQ(browser.post("tasks/1/pause", R"({"until":"yesterday"})").status, 400);
  EXPECT_EQ(browser.post("tasks/1/pause", R"({"until":"'"})").status, 400);
  EXPECT_EQ(browser.post("tasks/1/pause", R"({"reason":7})").status, 400);
  EXPECT_EQ(browser.post("tasks/1/pause", "{\"reason\":\"" + std::string(1001, 'x') + "\"}").status,
            400);
  database.query("SELECT kodu_task_pause(1)");
  EXPECT_EQ(browser.post("tasks/1/run").status, 409) << "it is paused";
  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_audit"), "0");
}

TEST_F(WebChangeTest, ChangesNothingWhereThatIsWanted) {
  start({"--read-only"});
  const Browser browser = login(admin);
  const WebAnswer refused = browser.post("tasks/1/run");
  EXPECT_EQ(refused.status, 403);
  EXPECT_THAT(refused.body, HasSubstr("--read-only"));
  const Json::Value session = browser.api("session").json();
  EXPECT_TRUE(session["read_only"].asBool());
  EXPECT_FALSE(session["may_change"].asBool());
}

TEST_F(WebChangeTest, TakesNoChangeWithoutTokenAndOrigin) {
  start();
  const Browser browser = login(admin);
  const std::string token = "X-Kodu-Token: " + browser.token + "\r\n";
  EXPECT_EQ(browser.send("tasks/1/run", "{}", token).status, 403);
  EXPECT_EQ(browser.send("tasks/1/run", "{}", token + "Origin: http://evil\r\n").status, 403);
  EXPECT_EQ(browser.send("tasks/1/run", "{}", "Origin: http://x\r\n").status, 403);
  EXPECT_EQ(browser.api("tasks/1/run").status, 404) << "GET changes nothing";
  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_audit"), "0");
}

}  // namespace
