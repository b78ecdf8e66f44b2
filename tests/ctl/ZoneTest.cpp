#include "ctl/terminal/zone.h"

#include <cstdlib>
#include <string>

#include "ctl/failure.h"
#include "ctl/terminal/text.h"
#include "tests/ctl/CtlTest.h"

namespace {

using testing::HasSubstr;

/// The zone of this process, and its own again afterwards.
class ZoneTest : public testing::Test {
 protected:
  static constexpr long kSummer = 1719831600;  // 2024-07-01 11:00:00 UTC

  void TearDown() override {
    unsetenv("TZ");  // NOLINT(concurrency-mt-unsafe)
    tzset();
  }
};

TEST_F(ZoneTest, ShowsTimesInAZone) {
  useZone("Europe/Berlin");
  EXPECT_EQ(zoneName(), "Europe/Berlin");
  EXPECT_EQ(timeText(kSummer), "2024-07-01 13:00:00");
  EXPECT_EQ(zonedTime(kSummer), "2024-07-01 13:00:00 CEST");
  EXPECT_EQ(jsonTime(kSummer).asString(), "2024-07-01T11:00:00Z");
}

TEST_F(ZoneTest, ShowsTheDateOnAnotherDayOfTheZone) {
  useZone("Pacific/Kiritimati");  // UTC+14: the day begins at 10:00 UTC
  EXPECT_EQ(shortTime(kSummer, kSummer + 60), "01:00:00");
  EXPECT_EQ(shortTime(kSummer - 7200, kSummer), "2024-07-01 23:00:00");
}

TEST_F(ZoneTest, TakesTheZoneOfTheEnvironment) {
  setenv("TZ", ":America/New_York", 1);  // NOLINT(concurrency-mt-unsafe)
  useZone("");
  EXPECT_EQ(zoneName(), "America/New_York");
  EXPECT_EQ(zonedTime(kSummer), "2024-07-01 07:00:00 EDT");
  setenv("TZ", "/usr/share/zoneinfo/Asia/Tokyo", 1);  // NOLINT(concurrency-mt-unsafe)
  EXPECT_EQ(zoneName(), "Asia/Tokyo");
  setenv("TZ", "", 1);  // NOLINT(concurrency-mt-unsafe)
  EXPECT_EQ(zoneName(), "UTC");
}

TEST_F(ZoneTest, RefusesAZoneThatNoFileDescribes) {
  for (const char* name : {"Nowhere", "../../etc/passwd", "/etc/passwd", "Europe", "zone.tab",
                           "tzdata.zi", "right/Europe/Berlin"}) {
    EXPECT_THROW(useZone(name), Failure) << name;
  }
}

TEST_F(ZoneTest, ReadsTimesOfTheDatabaseAsUtc) {
  useZone("Europe/Berlin");
  EXPECT_EQ(localText("2024-07-01 11:00:00"), "2024-07-01 13:00:00");
  EXPECT_EQ(localText(""), "");
  EXPECT_EQ(localText("pending"), "pending");
}

/// Commands in a zone.
class ZonedCommandTest : public CtlTest {
 protected:
  void SetUp() override {
    CtlTest::SetUp();
    TaskRow row = quietTask(1);
    row.nextExec = "timestamp '2034-07-01 11:00:00'";
    database.insertTask(row);
  }
};

TEST_F(ZonedCommandTest, ShowTimesInIt) {
  EXPECT_THAT(run({"show", "1", "--zone", "Europe/Berlin"}).out,
              HasSubstr("next due  2034-07-01 13:00:00 CEST\n"));
  EXPECT_THAT(run({"explain", "1", "--zone", "Europe/Berlin"}).out,
              HasSubstr("2034-07-01 13:00:00 CEST (in "));
  const std::string table = run({"status", "--zone", "Europe/Berlin"}).out;
  EXPECT_THAT(table, HasSubstr("2034-07-01 13:00:00"));
  EXPECT_THAT(table, HasSubstr("Times are those of Europe/Berlin.\n"));
  EXPECT_THAT(run({"check", "--zone", "Europe/Berlin"}).out, HasSubstr("DUE NEXT (Europe/Berlin)"));
}

TEST_F(ZonedCommandTest, KeepUtcInJson) {
  EXPECT_EQ(parsed(run({"show", "1", "--json", "--zone", "Europe/Berlin"}).out)["due"].asString(),
            "2034-07-01T11:00:00Z");
}

TEST_F(ZonedCommandTest, TakeTimesInIt) {
  const CtlResult result =
      runAsAdmin({"set", "1", "--next", "2034-07-01 15:00", "--zone", "Europe/Berlin"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(database.task(1, "cron_next_exec"), "2034-07-01 13:00:00");
  database.query("DELETE FROM kodu_cron_plugin; DELETE FROM kodu_plugins");  // it gets id 1
  const CtlResult added = runAsAdmin({"add", "/bin/true", "--every", "1h", "--first",
                                      "2034-01-01 15:00", "--zone", "Europe/Berlin"});
  EXPECT_EQ(added.exitCode, 0) << added.err;
  EXPECT_EQ(database.task(1, "cron_next_exec"), "2034-01-01 14:00:00");
}

TEST_F(ZonedCommandTest, RefuseAnUnknownOne) {
  const CtlResult result = run({"status", "--zone", "Nowhere"});
  EXPECT_EQ(result.exitCode, 64);
  EXPECT_THAT(result.err, HasSubstr("--zone: this machine knows no time zone Nowhere; "));
}

}  // namespace
