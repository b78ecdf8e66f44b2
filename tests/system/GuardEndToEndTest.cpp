#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/DaemonTest.h"
#include "tests/support/builtProgram.h"

namespace {

namespace fs = std::filesystem;

constexpr int kHanging = 200;
constexpr int kFirstOther = 1001;
constexpr int kOthers = 3;
constexpr int kSpreadSeconds = 75;  // some 52 s of work for 4 workers
constexpr std::chrono::seconds kLimit{240};

const char* const kTimedOut = "UNKNOWN - timed out after 1 s\nhanging\n";
const char* const kLeft =
    "hanging\n[koduguard: ended processes that kept the output open after the plugin had ended]\n";

/// Plugins that without the guard would occupy every worker forever, and tasks that run each
/// second.
class SlowGuardEndToEndTest : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    fs::copy_file("/bin/sleep", sleeper());
    insertHanging();
    for (int id = kFirstOther; id < kFirstOther + kOthers; ++id) {
      TaskRow other = makeTask(id, "echo fine");
      other.interval = "1 second";
      database.insertTask(other);
    }
    daemon.threadNumber = "4";
    daemon.writeConfig();
  }

  /// A program that only this test runs, so that its processes can be counted.
  std::string sleeper() const { return daemon.directory / "sleeper"; }
  std::string startsPath() const { return daemon.directory / "starts"; }

  /// A plugin that hangs in one of four ways, by its number: it sleeps, ignores TERM, stops itself,
  /// or ends while a child outside its group keeps the output open.
  std::string writeHangingPlugin() const {
    return writePlugin(daemon.directory / "hang",
                       "echo $1 >>" + startsPath() +
                           "; echo hanging\ncase $(($1 % 4)) in\n0) exec " + sleeper() +
                           " 600 ;;\n1) trap '' TERM; exec " + sleeper() +
                           " 600 ;;\n2) kill -STOP $$ ;;\n3) /usr/bin/setsid " + sleeper() +
                           " 600 & exit 0 ;;\nesac");
  }

  void insertHanging() const {
    const std::string plugin = writeHangingPlugin();
    database.query("INSERT INTO kodu_plugins VALUES (1, 'guarded', '" +
                   builtProgram("KODU_TEST_GUARD") + "', 'cron')");
    database.query(
        "INSERT INTO kodu_cron_plugin(cron_id, cron_plugin_id, cron_interval, cron_next_exec,"
        " cron_log_file, cron_retries, cron_parameter) SELECT id, 1, interval '1 hour',"
        " date_trunc('second', now() + interval '5 seconds' + id * interval '" +
        std::to_string(kSpreadSeconds) + " seconds' / " + std::to_string(kHanging) +
        "), 'out_$SERVICEID_$DATE.txt', 0, '-t 1 -k 1 -- " + plugin +
        " ' || id"
        " FROM generate_series(1, " +
        std::to_string(kHanging) + ") id");
  }

  int hangingWithStatus(const std::string& status) const {
    return std::stoi(database.value("SELECT count(*) FROM kodu_cron_plugin WHERE cron_status = '" +
                                    status + "' AND cron_id <= " + std::to_string(kHanging)));
  }
  int hangingDone() const { return hangingWithStatus("OK") + hangingWithStatus("FAILED"); }

  std::vector<std::size_t> otherRuns() const {
    std::vector<std::size_t> counts;
    for (int id = kFirstOther; id < kFirstOther + kOthers; ++id) {
      counts.push_back(runs(id));
    }
    return counts;
  }

  /// The number of remaining processes of the hanging plugins.
  int sleepers() const {
    int count = 0;
    for (const auto& process : fs::directory_iterator("/proc")) {
      count += readFile(process.path() / "cmdline").starts_with(sleeper()) ? 1 : 0;
    }
    return count;
  }

  void expectEachEndedOnce() const {
    const auto starts = readLines(startsPath());
    EXPECT_EQ(starts.size(), static_cast<std::size_t>(kHanging));
    EXPECT_EQ(std::set<std::string>(starts.begin(), starts.end()).size(), starts.size());
    for (int id = 1; id <= kHanging; ++id) {
      const bool leaves = id % 4 == 3;
      EXPECT_EQ(daemon.output("out_" + std::to_string(id) + "_last.txt"),
                leaves ? kLeft : kTimedOut);
    }
    EXPECT_EQ(hangingWithStatus("OK"), kHanging / 4);
    EXPECT_EQ(database.value("SELECT count(*) FROM kodu_cron_error"),
              std::to_string(kHanging / 4 * 3));
  }
};

TEST_F(SlowGuardEndToEndTest, EndsHangingPluginsWhileOtherTasksRun) {
  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(waitUntil([&] { return hangingDone() >= 4; }, kLimit));
  const auto runsBefore = otherRuns();

  ASSERT_TRUE(waitUntil([&] { return hangingDone() == kHanging; }, kLimit)) << hangingDone();

  const auto runsAfter = otherRuns();
  for (std::size_t i = 0; i < runsAfter.size(); ++i) {
    EXPECT_GE(runsAfter[i] - runsBefore[i], kSpreadSeconds / 3U);
    RecordProperty("runsOfOther" + std::to_string(i), std::to_string(runsAfter[i] - runsBefore[i]));
  }
  expectEachEndedOnce();
  EXPECT_EQ(sleepers(), 0);
  EXPECT_TRUE(waitForRuns(kFirstOther, runsAfter[0] + 2));
}

}  // namespace
