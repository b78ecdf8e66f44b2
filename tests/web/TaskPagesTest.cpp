#include <fmt/format.h>

#include <filesystem>
#include <set>

#include "tests/web/WebTest.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

class TaskPagesTest : public WebTest {
 protected:
  TaskPagesTest() {
    for (const auto& [id, name] : {std::pair{1, "disk"},
                                   {2, "Disk of db1"},
                                   {3, "ping"},
                                   {12, "<script>alert(1)</script>\u202e"}}) {
      TaskRow row;
      row.id = id;
      row.name = name;
      row.path = "/usr/bin/check" + std::to_string(id);
      database.insertTask(row);
    }
    database.query("UPDATE kodu_cron_plugin SET cron_status = 'FAILED' WHERE cron_id = 3");
    database.query(
        "INSERT INTO kodu_cron_error (cron_id, cron_date, cron_logfile) VALUES"
        " (3, now() AT TIME ZONE 'UTC' - interval '1 minute', 'failed.txt'),"
        " (1, now() AT TIME ZONE 'UTC' - interval '2 days', 'old.txt')");
    database.query("SELECT kodu_task_pause(2, 'new <b>disks</b>')");
    std::filesystem::create_directories(daemon.outputDirectory() + "/log/3");
  }

  std::vector<int> ids(const std::string& query) const {
    std::vector<int> found;
    const WebAnswer answer = browser.api("tasks?" + query);
    EXPECT_EQ(answer.status, 200) << answer.text;
    const Json::Value page = answer.json();
    for (const Json::Value& task : page["tasks"]) {
      found.push_back(task["id"].asInt());
    }
    return found;
  }
  void open() {
    start();
    browser = login(viewer);
  }

  Browser browser;
};

TEST_F(TaskPagesTest, SelectsTasks) {
  open();
  EXPECT_THAT(ids(""), ElementsAre(1, 2, 3, 12));
  EXPECT_THAT(ids("search=disk"), ElementsAre(1, 2));
  EXPECT_THAT(ids("search=DISK+of"), ElementsAre(2));
  EXPECT_THAT(ids("search=1"), ElementsAre(1, 2, 12))
      << "the id begins with it, or the name has it";
  EXPECT_THAT(ids("search=%25"), ElementsAre());
  EXPECT_THAT(ids("search=check3"), ElementsAre(3));
  EXPECT_THAT(ids("search=%5C"), ElementsAre());
  EXPECT_THAT(ids("search='%3B--"), ElementsAre());
  EXPECT_THAT(ids("name=d*k"), ElementsAre(1));
  EXPECT_THAT(ids("plugin=*/check3"), ElementsAre(3));
  EXPECT_THAT(ids("failed=1"), ElementsAre(3));
  EXPECT_THAT(ids("failed_today=1"), ElementsAre(3));
  EXPECT_THAT(ids("paused=1"), ElementsAre(2));
  EXPECT_THAT(ids("never_ran=1"), ElementsAre(1, 2, 12));
  EXPECT_THAT(ids("late=1"), ElementsAre());
  EXPECT_THAT(ids("sort=id,desc"), ElementsAre(12, 3, 2, 1));
  EXPECT_EQ(browser.api("tasks/count?search=disk").json()["tasks"], 2);
  for (const char* wrong : {"sort=none", "limit=0", "limit=501", "limit=x", "after=x"}) {
    EXPECT_EQ(browser.api(std::string("tasks?") + wrong).status, 400) << wrong;
  }
}

TEST_F(TaskPagesTest, GivesPagesByTheirKeys) {
  open();
  for (const std::string sort : {"id", "name", "status,desc", "failures", "next"}) {
    std::set<int> seen;
    std::string after;
    do {
      const Json::Value page =
          browser.api(fmt::format("tasks?limit=1&sort={}&after={}", sort, after)).json();
      ASSERT_EQ(page["tasks"].size(), 1U) << sort;
      EXPECT_TRUE(seen.insert(page["tasks"][0]["id"].asInt()).second) << sort;
      after = page["next"].asString();
      for (std::size_t at = 0; (at = after.find_first_of(" <>%+&", at)) != std::string::npos;) {
        after.replace(at, 1, fmt::format("%{:02x}", after[at]));
        at += 3;
      }
    } while (!after.empty());
    EXPECT_EQ(seen.size(), 4U) << sort;
  }
}

TEST_F(TaskPagesTest, ExplainsATask) {
  open();
  const Json::Value task = browser.api("tasks/2").json();
  EXPECT_EQ(task["name"], "Disk of db1");
  EXPECT_EQ(task["pause"]["reason"], "new <b>disks</b>");
  EXPECT_EQ(task["explanation"][0].asString(),
            "Task 2 (Disk of db1) runs /usr/bin/check2 with 0 arguments every 5m.");
  EXPECT_THAT(browser.api("tasks/2").body, Not(HasSubstr("can run")));
  EXPECT_EQ(browser.api("tasks/4").status, 404);
  const WebAnswer odd = browser.api("tasks/12");
  EXPECT_EQ(odd.header("Content-Type"), "application/json");
  EXPECT_THAT(odd.body, Not(HasSubstr("\u202e")));
  EXPECT_EQ(odd.json()["name"], "<script>alert(1)</script>\u202e");
}

TEST_F(TaskPagesTest, ShowsHistoryAndComingRuns) {
  open();
  const Json::Value history = browser.api("tasks/3/history").json();
  ASSERT_EQ(history.size(), 1U);
  EXPECT_EQ(history[0]["archived_as"], "failed.txt");
  EXPECT_EQ(browser.api("tasks/1/history").json().size(), 1U);
  EXPECT_EQ(browser.api("tasks/1/history?since=1%20day").json().size(), 0U);
  EXPECT_EQ(browser.api("tasks/1/history?since=nonsense").status, 400);
  EXPECT_EQ(browser.api("tasks/1/next").json().size(), 10U);
  EXPECT_EQ(browser.api("tasks/2/next").json().size(), 0U);
}

TEST_F(TaskPagesTest, ShowsOutputsButFollowsNoLinks) {
  open();
  const std::string archived = browser.api("tasks/3").json()["archive"].asString();
  std::filesystem::create_directories(archived);
  writeFile(archived + "failed.txt", std::string(200000, 'x'));
  const Json::Value cut = browser.api("tasks/3/logs?failed=1").json();
  ASSERT_EQ(cut.size(), 1U);
  EXPECT_EQ(cut[0]["output"].asString().size(), 131072U);
  EXPECT_TRUE(cut[0]["cut"].asBool());
  writeFile(archived + "failed.txt", "bad \x1b[31m\xff");
  EXPECT_EQ(browser.api("tasks/3/logs").json()[0]["output"], "bad \x1b[31m ");
  writeFile(daemon.directory / "secret", "secret");
  std::filesystem::remove(archived + "failed.txt");
  std::filesystem::create_symlink(daemon.directory / "secret", archived + "failed.txt");
  const WebAnswer linked = browser.api("tasks/3/logs");
  EXPECT_THAT(linked.body, Not(HasSubstr("\"secret\"")));
  EXPECT_TRUE(linked.json()[0]["output"].isNull());
  EXPECT_THAT(browser.api("tasks/3").body, Not(HasSubstr("Its output: secret")));
  database.query("UPDATE kodu_cron_error SET cron_logfile = '../../../secret' WHERE cron_id = 3");
  EXPECT_TRUE(browser.api("tasks/3/logs").json()[0]["output"].isNull());
}

}  // namespace
