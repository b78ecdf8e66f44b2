#include "sched/outputPath.h"

#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "core/globals.h"
#include "core/localTime.h"
#include "task/serviceCron.h"
#include "tests/support/Files.h"
#include "tests/support/FixedClock.h"
#include "tests/support/Mount.h"
#include "tests/support/ZoneFile.h"

namespace {

/// A task with id 42 in the time zone UTC, at 13:02:09 on 1 May 2024.
class ReplaceParameterTest : public testing::Test {
 protected:
  ReplaceParameterTest() {
    setZone("UTC0");
    task->SetService_id(42ULL);
  }
  ~ReplaceParameterTest() override {
    unsetenv("TZ");
    readZone();
    log_directory = savedLogDirectory;
  }

  static void setZone(const char* zone) {
    setenv("TZ", zone, 1);
    readZone();
  }
  std::string replace(const std::string& text) const { return replaceParameter(text, task); }

  FixedClock clock{kMayDay};
  std::shared_ptr<serviceCron> task = std::make_shared<serviceCron>();

 private:
  std::string savedLogDirectory = log_directory;
};

using CurrentOutputPathTest = ReplaceParameterTest;
using ArchiveDirectoryTest = ReplaceParameterTest;

// The time of a name is the local one, so each test says in which zone it is.
TEST_F(ReplaceParameterTest, LeavesANameWithoutPlaceholdersAlone) {
  EXPECT_EQ(replace("out.txt"), "out.txt");
}

TEST_F(ReplaceParameterTest, LeavesAnEmptyNameEmpty) {
  EXPECT_EQ(replace(""), "");
}

TEST_F(ReplaceParameterTest, RepeatsANameInTheRepeatedHourOfAutumn) {
  constexpr std::time_t kBefore = 1729989015;  // 27 October 2024, 00:30:15 UTC
  constexpr const char* kZone = "CET-1CEST,M3.5.0,M10.5.0/3";
  setZone(kZone);
  clock.set(kBefore);
  EXPECT_EQ(replace("$DATE"), "2024-10-27_02-30-15");
  clock.set(kBefore + 3600);
  EXPECT_EQ(replace("$DATE"), "2024-10-27_02-30-15");

  setZone("UTC");
  EXPECT_EQ(replace("$DATE"), "2024-10-27_01-30-15") << "UTC has no such hour";
}

TEST_F(ReplaceParameterTest, ReadsTheClockForADateOnly) {
  replace("out_$SERVICEID.txt");
  EXPECT_EQ(clock.reads(), 0);

  replace("out_$DATE.txt");
  EXPECT_EQ(clock.reads(), 1);
}

TEST_F(ReplaceParameterTest, FillsInTheTasksId) {
  EXPECT_EQ(replace("out_$SERVICEID.txt"), "out_42.txt");
}

TEST_F(ReplaceParameterTest, FillsInTheIdAsText) {
  task->SetService_id(std::string("007"));

  EXPECT_EQ(replace("$SERVICEID"), "007");
}

TEST_F(ReplaceParameterTest, FillsInTheLocalTime) {
  EXPECT_EQ(replace("$SERVICEID_$DATE.log"), "42_2024-05-01_13-02-09.log");
}

TEST_F(ReplaceParameterTest, GivesEachPartOfTheTimeTwoDigits) {
  clock.set(1704164645);

  EXPECT_EQ(replace("$DATE"), "2024-01-02_03-04-05");
}

TEST_F(ReplaceParameterTest, LeavesASecondPlaceholderAlone) {
  EXPECT_EQ(replace("$DATE_$DATE"), "2024-05-01_13-02-09_$DATE");
  EXPECT_EQ(replace("$SERVICEID_$SERVICEID"), "42_$SERVICEID");
}

TEST_F(ReplaceParameterTest, MatchesPlaceholdersWithTheirCaseOnly) {
  EXPECT_EQ(replace("$date_$ServiceId_$DAT_SERVICEID"), "$date_$ServiceId_$DAT_SERVICEID");
}

TEST_F(ReplaceParameterTest, HasNoEscapeForAPlaceholder) {
  EXPECT_EQ(replace("\\$SERVICEID$$DATE"), "\\42$2024-05-01_13-02-09");
}

TEST_F(ReplaceParameterTest, ReplacesInsideALongerWord) {
  EXPECT_EQ(replace("a$SERVICEIDS$DATES"), "a42S2024-05-01_13-02-09S");
}

TEST_F(ReplaceParameterTest, DoesNotReplaceAPlaceholderInAnId) {
  task->SetService_id(std::string("42$DATE"));

  EXPECT_EQ(replace("$SERVICEID_$DATE"), "42$DATE_2024-05-01_13-02-09");
}

TEST_F(ReplaceParameterTest, LeavesItsArgumentsUnchanged) {
  const std::string text = "$SERVICEID";

  replaceParameter(text, task);

  EXPECT_EQ(text, "$SERVICEID");
  EXPECT_EQ(task->GetService_idStr(), "42");
  EXPECT_EQ(task.use_count(), 1);
}

TEST_F(ReplaceParameterTest, UsesTheZoneEastOfGreenwich) {
  setZone("NPT-5:45");

  EXPECT_EQ(replace("$DATE"), "2024-05-01_18-47-09");
}

TEST_F(ReplaceParameterTest, UsesTheZoneWestOfGreenwich) {
  setZone("AKST14");

  EXPECT_EQ(replace("$DATE"), "2024-04-30_23-02-09");
}

TEST_F(ReplaceParameterTest, FollowsDaylightSavingTime) {
  setZone("CET-1CEST,M3.5.0,M10.5.0/3");
  EXPECT_EQ(replace("$DATE"), "2024-05-01_15-02-09");

  clock.set(1704164645);
  EXPECT_EQ(replace("$DATE"), "2024-01-02_04-04-05");
}

TEST_F(ReplaceParameterTest, RepeatsANameInTheHourRepeatedInAutumn) {
  setZone("CET-1CEST,M3.5.0,M10.5.0/3");
  clock.set(1729989000);
  EXPECT_EQ(replace("$DATE"), "2024-10-27_02-30-00");

  clock.set(1729989000 + 3600);
  EXPECT_EQ(replace("$DATE"), "2024-10-27_02-30-00");
}

TEST_F(ReplaceParameterTest, FollowsAChangeOfTheMachinesZoneInTheNextSecond) {
  const TempDir directory;
  ZoneFile zone(directory / "zone", 5);
  const Mount mount = Mount::file(zone.name(), "/etc/localtime");
  if (!mount.isMounted()) {
    GTEST_SKIP() << "only an administrator can replace /etc/localtime";
  }
  unsetenv("TZ");
  readZone();
  EXPECT_EQ(replace("$DATE"), "2024-05-01_18-02-09");

  zone.set(-3);
  clock.set(kMayDay + 1);

  EXPECT_EQ(replace("$DATE"), "2024-05-01_10-02-10");
}

// Where the worker writes.
TEST_F(CurrentOutputPathTest, TurnsTheDateIntoLast) {
  log_directory = "/d";
  task->SetFilename("out_$DATE.txt");

  EXPECT_EQ(currentOutputPath(log_directory, task), "/d/out_last.txt");
  EXPECT_EQ(clock.reads(), 0);
}

TEST_F(CurrentOutputPathTest, FillsInTheTasksId) {
  log_directory = "/d";
  task->SetFilename("$SERVICEID/out_$DATE_$SERVICEID.txt");

  EXPECT_EQ(currentOutputPath(log_directory, task), "/d/42/out_last_$SERVICEID.txt");
}

TEST_F(CurrentOutputPathTest, FillsASecondDateWithTheTime) {
  log_directory = "/d";
  task->SetFilename("$DATE_$DATE_$DATE.txt");

  EXPECT_EQ(currentOutputPath(log_directory, task), "/d/last_2024-05-01_13-02-09_$DATE.txt");
}

TEST_F(CurrentOutputPathTest, AppendsASlashToADirectoryThatEndsInOne) {
  log_directory = "/d/";
  task->SetFilename("out.txt");

  EXPECT_EQ(currentOutputPath(log_directory, task), "/d//out.txt");
}

TEST_F(CurrentOutputPathTest, ReplacesInTheDirectoryFirst) {
  log_directory = "/d/$DATE/$SERVICEID";
  task->SetFilename("$SERVICEID.txt");

  EXPECT_EQ(currentOutputPath(log_directory, task), "/d/last/42/$SERVICEID.txt");
}

TEST_F(ArchiveDirectoryTest, LiesBelowTheOutputDirectory) {
  log_directory = "/d";

  EXPECT_EQ(archiveDirectory(log_directory, "17"), "/d/archive/17/");
}

}  // namespace
