#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ctl/check/checks.h"
#include "ctl/check/findings.h"
#include "ctl/daemon/daemonProcess.h"
#include "ctl/options.h"
#include "ctl/session/session.h"
#include "db/pgSafeThread.h"
#include "tests/ctl/CtlTest.h"
#include "tests/support/Variable.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

/// checkDatabase on a database with one daemon, in which a test breaks something.
class CheckDatabaseTest : public CtlTest {
 protected:
  void SetUp() override {
    CtlTest::SetUp();
    database.query("ALTER DATABASE " + database.name() + " SET timezone = 'UTC'");
    options.configFile = daemon.mainConfig();
    daemonsSession = std::make_unique<pgSafeThread>(database.conninfo());
  }
  /// Each finding as "error: TEXT" or "warning: TEXT".
  std::vector<std::string> check(const DaemonIdentity& identity = {}) const {
    Session session(options);
    Findings findings;
    checkDatabase(session, identity, findings);
    std::vector<std::string> texts;
    for (const Json::Value& finding : findings.toJson()) {
      texts.push_back(finding["severity"].asString() + ": " + finding["text"].asString());
    }
    return texts;
  }

  Options options;
  std::unique_ptr<pgSafeThread> daemonsSession;
};

TEST_F(CheckDatabaseTest, FindsNothingInAFreshDatabase) {
  EXPECT_THAT(check(), IsEmpty());
}

TEST_F(CheckDatabaseTest, FindsEachMissingRight) {
  const std::vector<std::pair<std::string, std::string>> rights = {
      {"SELECT ON kodu_plugins", "SELECT on kodu_plugins"},
      {"DELETE ON kodu_cron_plugin", "DELETE on kodu_cron_plugin"},
      {"INSERT ON kodu_cron_error", "INSERT on kodu_cron_error"},
      {"DELETE ON kodu_cron_error", "DELETE on kodu_cron_error"},
      {"UPDATE (cron_status) ON kodu_cron_plugin", "UPDATE (cron_status) on kodu_cron_plugin"},
      {"UPDATE (cron_last_exec) ON kodu_cron_plugin",
       "UPDATE (cron_last_exec) on kodu_cron_plugin"},
      {"UPDATE (cron_next_exec) ON kodu_cron_plugin",
       "UPDATE (cron_next_exec) on kodu_cron_plugin"},
      {"USAGE ON SEQUENCE kodu_cron_error_cron_error_id_seq",
       "USAGE on sequence public.kodu_cron_error_cron_error_id_seq"},
  };
  for (const auto& [right, text] : rights) {
    database.query("REVOKE " + right + " FROM kodu");
    EXPECT_THAT(check(), ElementsAre("error: role kodu lacks " + text +
                                     ": load sql/schema.sql as the database's owner"));
    database.query("GRANT " + right + " TO kodu");
  }
  EXPECT_THAT(check(), IsEmpty());
}

TEST_F(CheckDatabaseTest, ListsEveryMissingRight) {
  database.query("REVOKE ALL ON kodu_cron_error FROM kodu");
  const auto found = check();
  for (const char* right : {"INSERT", "DELETE"}) {
    EXPECT_THAT(found, Contains(StartsWith(std::string("error: role kodu lacks ") + right +
                                           " on kodu_cron_error")));
  }
}

TEST_F(CheckDatabaseTest, ComparesTheTimeZoneWithUtc) {
  for (const char* zone : {"UTC", "Etc/UTC", "GMT", "Africa/Abidjan"}) {
    database.query("ALTER DATABASE " + database.name() + " SET timezone = '" + zone + "'");
    EXPECT_THAT(check(), IsEmpty()) << zone << " has the same time";
  }
  database.query("ALTER DATABASE " + database.name() + " SET timezone = 'Asia/Tokyo'");
  EXPECT_THAT(check(), ElementsAre("error: sessions have the time zone Asia/Tokyo, but the "
                                   "daemon's times are UTC: ALTER DATABASE " +
                                   database.name() + " SET timezone = 'UTC'"));
}

TEST_F(CheckDatabaseTest, ChecksTheTimeZoneOfTheRole) {
  database.query("ALTER ROLE kodu IN DATABASE " + database.name() + " SET timezone = 'Asia/Tokyo'");
  EXPECT_THAT(check(), ElementsAre(HasSubstr("the time zone Asia/Tokyo")));
}

TEST_F(CheckDatabaseTest, WarnsOfAMissingDaemon) {
  daemonsSession.reset();
  ASSERT_TRUE(waitUntil([&] {
    return database.value(
               "SELECT count(*) FROM pg_stat_activity WHERE usename = 'kodu'"
               " AND datname = current_database()") == "0";
  }));
  EXPECT_THAT(check(), ElementsAre("warning: the daemon has no session in this database: nothing "
                                   "runs"));
  DaemonIdentity running;
  running.pid = 4711;
  EXPECT_THAT(check(running), ElementsAre("warning: the daemon is running, but has no session in "
                                          "this database"));
}

TEST_F(CheckDatabaseTest, WarnsOfSeveralDaemons) {
  const pgSafeThread second(database.conninfo());
  const pgSafeThread third(database.conninfo());
  EXPECT_THAT(check(), ElementsAre(StartsWith("warning: 3 daemons are connected to this "
                                              "database")));
}

TEST_F(CheckDatabaseTest, WarnsOfOldTables) {
  database.query("DELETE FROM kodu_schema_version");
  EXPECT_THAT(check(), ElementsAre(StartsWith("warning: the database's tables have version 0")));
}

TEST_F(CheckDatabaseTest, ChecksTheRightsOfTheDaemonsRoleForAnAdministrator) {
  database.query("REVOKE DELETE ON kodu_cron_error FROM kodu");
  options.user = admin();
  const Variable password("PGPASSWORD", "secret");
  EXPECT_THAT(check(), ElementsAre(HasSubstr("role kodu lacks DELETE on kodu_cron_error")));
}

}  // namespace
