#include "ctl/session/moment.h"

#include <cstdlib>
#include <optional>
#include <string>

#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/session.h"
#include "ctl/terminal/zone.h"
#include "tests/ctl/CtlTest.h"

namespace {

/// Times that an operator gives, in New York.
class MomentTest : public CtlTest {
 protected:
  void SetUp() override {
    CtlTest::SetUp();
    Options options;
    options.configFile = daemon.mainConfig();
    session.emplace(options);
    useZone("America/New_York");
  }
  void TearDown() override {
    unsetenv("TZ");  // NOLINT(concurrency-mt-unsafe)
    tzset();
    session.reset();
    CtlTest::TearDown();
  }

  std::string moment(const std::string& text, MomentRule rule = MomentRule::kNext) {
    return momentOf(*session, text, rule).value_or("nothing");
  }
  /// Seconds from now, by the server's clock.
  double ahead(const std::string& text, MomentRule rule = MomentRule::kNextOrDuration) {
    return std::stod(database.value("SELECT EXTRACT(EPOCH FROM timestamptz '" + moment(text, rule) +
                                    "' - now())"));
  }

  std::optional<Session> session;
};

TEST_F(MomentTest, IsATimeInTheZone) {
  EXPECT_EQ(moment("2030-07-01 12:00"), "2030-07-01T16:00:00Z");
  EXPECT_EQ(moment("2030-01-01 12:00"), "2030-01-01T17:00:00Z");
}

TEST_F(MomentTest, KeepsAZoneThatTheTextNames) {
  EXPECT_EQ(moment("2030-07-01 12:00 UTC"), "2030-07-01T12:00:00Z");
  EXPECT_EQ(moment("2030-07-01 12:00+02"), "2030-07-01T10:00:00Z");
}

TEST_F(MomentTest, IsNothingForNothing) {
  EXPECT_FALSE(momentOf(*session, std::nullopt).has_value());
}

TEST_F(MomentTest, IsADurationWhereThatIsAllowed) {
  EXPECT_NEAR(ahead("90s"), 90, 5);
  EXPECT_NEAR(ahead("2h"), 7200, 5);
  EXPECT_NEAR(ahead("1 day 2h 30 min"), 95400, 5);
  EXPECT_NEAR(ahead("1.5 HOURS"), 5400, 5);
  EXPECT_NEAR(ahead("1 week"), 604800, 5);
  EXPECT_THROW(moment("2h"), Failure);
}

TEST_F(MomentTest, IsTheNextTimeOfDay) {
  for (const char* text : {"00:00", "06:30", "12:00:30", "23:59"}) {
    const double seconds = ahead(text);
    EXPECT_GT(seconds, -5) << text;
    EXPECT_LE(seconds, 90000) << text;  // a day of 25 hours
  }
  EXPECT_EQ(moment("12:00").substr(11), moment("tomorrow 12:00").substr(11));
}

TEST_F(MomentTest, IsTheLastTimeOfDayWhereThePastIsMeant) {
  for (const char* text : {"00:00", "06:30", "12:00:30", "23:59"}) {
    const double seconds = ahead(text, MomentRule::kLastOrDuration);
    EXPECT_LE(seconds, 0) << text;
    EXPECT_GT(seconds, -90005) << text;
    EXPECT_EQ(moment(text, MomentRule::kLastOrDuration).substr(16), moment(text).substr(16));
  }
}

TEST_F(MomentTest, IsADurationAgoWhereThePastIsMeant) {
  EXPECT_NEAR(ahead("90s", MomentRule::kLastOrDuration), -90, 5);
  EXPECT_NEAR(ahead("1 day 2h", MomentRule::kLastOrDuration), -93600, 5);
  EXPECT_EQ(moment("2030-07-01 12:00", MomentRule::kLastOrDuration), "2030-07-01T16:00:00Z");
  EXPECT_THROW(moment("2 bananas", MomentRule::kLastOrDuration), Failure);
}

TEST_F(MomentTest, LeavesTheSessionInUtc) {
  moment("12:00");
  EXPECT_EQ(session->query("SELECT current_setting('timezone') AS zone").text(0, "zone"), "UTC");
}

TEST_F(MomentTest, RefusesWhatIsNoTime) {
  for (const char* text : {"", "soon", "25:00", "2030-13-01", "2 bananas"}) {
    EXPECT_THROW(moment(text, MomentRule::kNextOrDuration), Failure) << text;
  }
}

}  // namespace
