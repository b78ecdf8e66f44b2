// A change of the machine's time zone while the daemon runs.

#include <cmath>
#include <csignal>
#include <cstdlib>
#include <ctime>

#include <gtest/gtest.h>

#include "tests/support/DaemonTest.h"
#include "tests/support/Mount.h"
#include "tests/support/ZoneFile.h"
#include "tests/support/builtProgram.h"

namespace {

class TimeZoneTest : public DaemonTest {
 protected:
  void SetUp() override {
    if (!mount.isMounted()) {
      GTEST_SKIP() << "only an administrator can replace /etc/localtime";
    }
    unsetenv("TZ");
    DaemonTest::SetUp();
  }

  /// The offset from UTC, in hours, of the time in the log's last line with `text`.
  double hoursEast(const std::string& text) const {
    std::tm parts{};
    for (const std::string& line : readLines(daemon.logPath())) {
      if (line.ends_with(text)) {
        strptime(line.c_str(), "%a %b %e %H:%M:%S %Y", &parts);
      }
    }
    return std::round(static_cast<double>(timegm(&parts) - std::time(nullptr)) / 3600);
  }

  ZoneFile zone{daemon.directory / "zone", 5};
  const Mount mount = Mount::file(zone.name(), "/etc/localtime");
};

TEST_F(TimeZoneTest, IsFollowedByTheLogAndTheArchive) {
  TaskRow row = makeTask(1, "echo failed; exit 1");
  row.interval = "3 seconds";
  database.insertTask(row);
  ASSERT_TRUE(daemon.startAndWait());
  EXPECT_EQ(hoursEast("#Start Thread"), 5);
  ASSERT_TRUE(waitForRuns(1, 1));

  zone.set(-7);
  const std::time_t changed = std::time(nullptr);
  ASSERT_TRUE(waitUntil([&] { return ledger(1).back() > changed + 1; }, kPatience));
  ASSERT_TRUE(waitForStatus(1, "FAILED"));

  const auto archived = [&] { return filesIn(daemon.outputDirectory() + "/archive/1").front(); };
  EXPECT_TRUE(waitUntil([&] {
    // Six hours, so that names in the western zone also sort before those in the eastern one.
    std::tm parts{};
    strptime(archived().c_str(), "out_1_%Y-%m-%d_%H-%M-%S", &parts);
    return timegm(&parts) < changed - 21'600;
  })) << archived();
}

// Since then only the timer thread has read the zone.
TEST_F(TimeZoneTest, IsFollowedByTheStopLineOfAnIdleDaemon) {
  ASSERT_TRUE(daemon.startAndWait());
  EXPECT_EQ(hoursEast("#Start Thread"), 5);

  zone.set(-7);
  const std::time_t changed = std::time(nullptr);
  ASSERT_TRUE(waitForTime(changed + 4));
  daemon.signal(SIGTERM);

  ASSERT_TRUE(waitForLog("NOTICE#stop koduCron... SIGTERM: 15"));
  EXPECT_EQ(hoursEast("SIGTERM: 15"), -7);
}

}  // namespace
