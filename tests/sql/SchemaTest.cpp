#include <stdexcept>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "db/PostgresqlException.h"
#include "db/pgSafeThread.h"
#include "db/result.h"
#include "db/statements.h"
#include "tests/support/Database.h"
#include "tests/support/Files.h"
#include "tests/support/waitUntil.h"

namespace {

using testing::HasSubstr;
using Rows = std::vector<Database::Row>;

class SchemaTest : public testing::Test {
 protected:
  /// Loads the shipped file into the test's database: a copy of the template has the tables, but
  /// not the settings of the database itself.
  void loadSchema() const { database.query(readFile(projectFile("sql/schema.sql"))); }

  Rows columns(const std::string& table) const {
    return database.query(
        "SELECT column_name, data_type FROM information_schema.columns WHERE "
        "table_name = '" +
        table + "' ORDER BY ordinal_position");
  }

  /// The server's error for `sql`; "" when it succeeds.
  std::string refusalOf(const std::string& sql) const {
    try {
      database.query(sql);
    } catch (const std::runtime_error& e) {
      return e.what();
    }
    return "";
  }

  /// The server's error for this change of a valid row.
  std::string refusalOfChange(const std::string& assignment) const {
    return refusalOf("UPDATE kodu_cron_plugin SET " + assignment);
  }

  /// Expects `constraint` to refuse each of these SQL values for `column` of a valid row.
  void expectRefused(const std::string& column, const std::string& constraint,
                     const std::vector<std::string>& values) const {
    database.query(
        "CREATE OR REPLACE FUNCTION pg_temp.refusal(statement text) RETURNS text LANGUAGE plpgsql "
        "AS $$ DECLARE refused text; broken text; BEGIN EXECUTE statement; RETURN ''; "
        "EXCEPTION WHEN check_violation THEN GET STACKED DIAGNOSTICS refused = COLUMN_NAME, "
        "broken = CONSTRAINT_NAME; RETURN refused || ' ' || broken; END $$");
    const std::string expected = column + " " + constraint;
    for (const std::string& value : values) {
      std::string change = "SELECT pg_temp.refusal($$UPDATE kodu_cron_plugin SET ";
      change.append(column).append(" = ").append(value).append("$$)");
      EXPECT_EQ(database.value(change), expected) << change;
    }
  }
  /// Expects each of these SQL values to be accepted.
  void expectTaken(const std::string& column, const std::vector<std::string>& values) const {
    for (const std::string& value : values) {
      std::string assignment = column;
      assignment += " = " + value;
      EXPECT_EQ(refusalOfChange(assignment), "") << assignment;
    }
  }

  /// Everything that the file creates or sets in this database, as text.
  Rows everything() const {
    return database.query(
        "SELECT pg_get_constraintdef(oid) FROM pg_constraint WHERE conname NOT LIKE 'pg\\_%' "
        "UNION ALL SELECT indexdef FROM pg_indexes WHERE schemaname = 'public' "
        "UNION ALL SELECT concat(relname, relacl, reloptions) FROM pg_class "
        " WHERE relnamespace = 'public'::regnamespace "
        "UNION ALL SELECT concat(attrelid::regclass, attname, attnum, atttypid, attacl, attnotnull)"
        " FROM pg_attribute JOIN pg_class c ON c.oid = attrelid"
        " WHERE relnamespace = 'public'::regnamespace "
        "UNION ALL SELECT concat(datacl) FROM pg_database WHERE datname = current_database() "
        "UNION ALL SELECT concat(setrole, setconfig) FROM pg_db_role_setting "
        " JOIN pg_database ON oid = setdatabase WHERE datname = current_database() "
        "UNION ALL SELECT concat(seqmax, seqcycle) FROM pg_sequence ORDER BY 1");
  }

  Database database;
};

TEST_F(SchemaTest, HasTheColumnsThatTheStatementsName) {
  EXPECT_EQ(columns("kodu_cron_plugin"), (Rows{{"cron_id", "integer"},
                                               {"cron_plugin_id", "integer"},
                                               {"cron_interval", "interval"},
                                               {"cron_status", "character varying"},
                                               {"cron_last_exec", "timestamp without time zone"},
                                               {"cron_next_exec", "timestamp without time zone"},
                                               {"cron_log_file", "text"},
                                               {"cron_retries", "integer"},
                                               {"cron_retries_interval", "interval"},
                                               {"cron_parameter", "text"},
                                               {"cron_delete", "boolean"},
                                               {"cron_shares_output", "boolean"},
                                               {"cron_wanted", "timestamp without time zone"},
                                               {"cron_changed", "boolean"},
                                               {"run_due", "timestamp without time zone"},
                                               {"run_started", "timestamp without time zone"},
                                               {"run_ended", "timestamp without time zone"},
                                               {"run_failing_since", "timestamp without time zone"},
                                               {"pause_due", "timestamp without time zone"},
                                               {"ledger_to", "timestamp without time zone"},
                                               {"ledger_lost", "integer"},
                                               {"run_attempt", "smallint"},
                                               {"cron_calendar", "text"},
                                               {"cron_zone", "text"},
                                               {"cron_slots", "ARRAY"},
                                               {"cron_windows", "ARRAY"},
                                               {"cron_held", "timestamp without time zone"}}));
  EXPECT_EQ(columns("kodu_plugins"), (Rows{{"plugin_id", "integer"},
                                           {"plugin_name", "text"},
                                           {"plugin_path", "text"},
                                           {"plugin_type", "text"}}));
  EXPECT_EQ(columns("kodu_cron_error"), (Rows{{"cron_error_id", "integer"},
                                              {"cron_id", "integer"},
                                              {"cron_date", "timestamp without time zone"},
                                              {"cron_logfile", "character varying"}}));
}

TEST_F(SchemaTest, HasAKeyForEachTable) {
  const Rows keys = database.query(
      "SELECT conrelid::regclass::text, pg_get_constraintdef(oid) FROM pg_constraint "
      "WHERE contype IN ('p', 'f') AND connamespace = 'public'::regnamespace ORDER BY 1, 2");

  EXPECT_EQ(
      keys,
      (Rows{{"kodu_cron_error", "PRIMARY KEY (cron_error_id)"},
            {"kodu_cron_key",
             "FOREIGN KEY (cron_id) REFERENCES kodu_cron_plugin(cron_id) ON DELETE CASCADE"},
            {"kodu_cron_key", "PRIMARY KEY (cron_id)"},
            {"kodu_cron_pause",
             "FOREIGN KEY (cron_id) REFERENCES kodu_cron_plugin(cron_id) ON DELETE CASCADE"},
            {"kodu_cron_pause", "PRIMARY KEY (cron_id)"},
            {"kodu_cron_plugin", "FOREIGN KEY (cron_plugin_id) REFERENCES kodu_plugins(plugin_id)"},
            {"kodu_cron_plugin", "PRIMARY KEY (cron_id)"},
            {"kodu_cron_repair", "PRIMARY KEY (repair_id)"},
            {"kodu_plugins", "PRIMARY KEY (plugin_id)"},
            {"kodu_schema_version", "PRIMARY KEY (version)"}}));
}

// Add a new CHECK to this list, and a test in which it refuses a row. The server would test a CHECK
// of kodu_cron_plugin at each of the daemon's updates: refuse such rows in kodu_refuse_task
// instead.
TEST_F(SchemaTest, HasExactlyTheseChecks) {
  EXPECT_EQ(database.query("SELECT conname FROM pg_constraint WHERE contype = 'c' AND "
                           "connamespace = 'public'::regnamespace ORDER BY 1"),
            (Rows{{"plugin_path_not_empty"}, {"task_key_is_one_word"}, {"task_set_is_one_word"}}));
}

TEST_F(SchemaTest, TakesOneWordForAKeyAndASet) {
  database.insertTask(TaskRow());
  const auto give = [this](const std::string& key, const std::string& set) {
    database.query("DELETE FROM kodu_cron_key; INSERT INTO kodu_cron_key VALUES (1, '" + key +
                   "', '" + set + "')");
  };
  give("web/load.5:a_B-c@d", "9");
  give(std::string(200, 'k'), "s");
  for (const std::string& wrong :
       {std::string(), std::string("a b"), std::string("-a"), std::string("\xc3\xa9"),
        std::string("a\n"), std::string(201, 'k')}) {
    EXPECT_THROW(give(wrong, "s"), std::runtime_error) << wrong;
    EXPECT_THROW(give("k", wrong), std::runtime_error) << wrong;
  }
}

TEST_F(SchemaTest, CanBeLoadedAgain) {
  database.insertTask(TaskRow());
  loadSchema();
  const Rows once = everything();
  const Rows row = database.query("SELECT * FROM kodu_cron_plugin");

  loadSchema();

  EXPECT_EQ(everything(), once);
  EXPECT_EQ(database.query("SELECT * FROM kodu_cron_plugin"), row);
}

TEST_F(SchemaTest, CanBeLoadedByTheDatabasesOwner) {
  const std::string owner = "owner_of_" + database.name();
  database.query(
      "DROP SCHEMA public CASCADE; CREATE SCHEMA public; GRANT USAGE ON SCHEMA public TO kodu;"
      "ALTER SCHEMA public OWNER TO pg_database_owner");
  database.query("CREATE ROLE " + owner + " CREATEROLE");
  database.query("ALTER DATABASE " + database.name() + " OWNER TO " + owner);
  database.query("SET ROLE " + owner);

  EXPECT_NO_THROW(loadSchema());
  EXPECT_NO_THROW(loadSchema());

  database.query("RESET ROLE");
  EXPECT_EQ(database.value("SELECT tableowner FROM pg_tables WHERE tablename = 'kodu_cron_plugin'"),
            owner);
  pgSafeThread daemon(database.conninfo());
  EXPECT_NO_THROW(prepareNamedStatements(daemon));
  database.query("REASSIGN OWNED BY " + owner + " TO CURRENT_USER; DROP ROLE " + owner);
}

TEST_F(SchemaTest, RefusesIntervalsThatTheDaemonCannotRun) {
  database.insertTask(TaskRow());

  expectRefused("cron_interval", "cron_interval_from_second_to_year",
                {"'0'", "'-1 s'", "'-1 day'", "'366 days 1 s'", "'2 years'"});
  expectRefused("cron_interval", "cron_interval_whole_seconds", {"'1.5 s'", "'1 day 0.000001 s'"});
  EXPECT_THAT(refusalOfChange("cron_interval = '0.999999 s'"),
              HasSubstr("the interval must be between 1 second and 366 days"));
  EXPECT_THAT(refusalOfChange("cron_interval = NULL"), HasSubstr("not-null"));
  expectTaken("cron_interval", {"'1 s'", "'2 s'", "'1 day'", "'366 days'"});
}

TEST_F(SchemaTest, RefusesFileNamesOutsideTheOutputDirectory) {
  database.insertTask(TaskRow());

  expectRefused("cron_log_file", "cron_log_file_below_directory",
                {"'/etc/passwd'", "'/a'", "'../x'", "'a/../b'", "'a..b'", "'a/..b'"});
  expectTaken("cron_log_file", {"'a.b.c$DATE'", "'.$DATE'"});
}

TEST_F(SchemaTest, RefusesFileNamesThatNameNoFile) {
  database.insertTask(TaskRow());

  expectRefused("cron_log_file", "cron_log_file_names_a_file",
                {"''", "'.'", "'directory/'", "'directory/.'", "'archive'", "repeat('x', 241)",
                 "repeat('é', 121)"});
  EXPECT_THAT(refusalOfChange("cron_log_file = NULL"), HasSubstr("not-null"));
  expectTaken("cron_log_file",
              {"'$DATE'", "'.hidden$DATE'", "'archive.$DATE'", "'out_$SERVICEID_$DATE.txt'",
               "'é ß$DATE'", "repeat('x', 235) || '$DATE'", "repeat('é', 117) || '$DATE'"});
}

TEST_F(SchemaTest, RefusesFileNamesWithControlCharacters) {
  database.insertTask(TaskRow());

  expectRefused("cron_log_file", "cron_log_file_without_controls",
                {"E'a\\nb'", "E'a\\tb'", "E'a\\x01b'", "E'a\\x1fb'", "E'a\\x7fb'", "E'a\\u0080b'",
                 "E'a\\u009fb'", "E'a\\n'", "E'\\na'"});
  expectTaken("cron_log_file", {"'a b$DATE'", "'a~b$DATE'", "E'a\\u00a0b$DATE'"});
}

TEST_F(SchemaTest, RefusesNegativeRetries) {
  database.insertTask(TaskRow());

  expectRefused("cron_retries", "cron_retries_not_negative", {"-1"});
  expectRefused("cron_retries_interval", "cron_retries_interval_up_to_year",
                {"'-1 s'", "'-0.000001 s'", "'366 days 1 s'"});
  expectTaken("cron_retries", {"0", "1", "NULL"});
  expectTaken("cron_retries_interval", {"'2 s'", "'366 days'", "NULL"});
  database.query("UPDATE kodu_cron_plugin SET cron_retries = 0");
  expectTaken("cron_retries_interval", {"'0'", "'1 s'"});
}

TEST_F(SchemaTest, RefusesTimesBeyondWholeSecondsInAnInteger) {
  database.insertTask(TaskRow());

  expectRefused("cron_next_exec", "cron_next_exec_in_integer_seconds",
                {"'2038-01-19 03:14:07.000001'", "'2038-01-19 03:14:08'", "'infinity'",
                 "'-infinity'", "'1969-12-31 23:59:59'"});
  EXPECT_THAT(refusalOfChange("cron_next_exec = NULL"), HasSubstr("not-null"));
  expectTaken("cron_next_exec", {"'2036-01-01 00:00:00'", "'1970-01-01 00:00:00'"});
  EXPECT_THAT(refusalOfChange("cron_next_exec = '2038-01-19 03:14:07'"), HasSubstr("before 2036"));
  expectRefused("cron_wanted", "cron_wanted_in_integer_seconds",
                {"'2038-01-19 03:14:08'", "'-infinity'", "'1969-12-31 23:59:59'"});
  expectTaken("cron_wanted",
              {"'2038-01-19 03:14:07'", "'infinity'", "'1970-01-01 00:00:00'", "NULL"});
}

TEST_F(SchemaTest, RefusesNegativeIds) {
  database.insertTask(TaskRow());

  expectRefused("cron_id", "cron_id_not_negative", {"-1"});
  database.query("DELETE FROM kodu_cron_plugin; DELETE FROM kodu_plugins");
  for (const int id : {0, 2147483647}) {
    TaskRow row;
    row.id = id;
    EXPECT_NO_THROW(database.insertTask(row));
  }
}

TEST_F(SchemaTest, RefusesANewRowToo) {
  database.query("INSERT INTO kodu_plugins(plugin_name, plugin_path) VALUES ('a', '/bin/true')");
  const auto refusalOfTask = [&](const std::string& values) {
    return refusalOf(
        "INSERT INTO kodu_cron_plugin (cron_plugin_id, cron_id, cron_interval, cron_log_file, "
        "cron_retries, cron_next_exec) VALUES (1, " +
        values + ")");
  };
  EXPECT_THAT(refusalOfTask("-1, '1 s', 'a$DATE', 0, now()"),
              HasSubstr("the id of a task must not be negative"));
  EXPECT_THAT(refusalOfTask("1, '0', 'a$DATE', 0, now()"),
              HasSubstr("the interval must be between"));
  EXPECT_THAT(refusalOfTask("1, '1 s', '/a$DATE', 0, now()"),
              HasSubstr("must stay below the daemon's output directory"));
  EXPECT_THAT(refusalOfTask("1, '1 s', 'a$DATE', -1, now()"),
              HasSubstr("the number of retries must not be negative"));
  EXPECT_THAT(refusalOfTask("1, '1 s', 'a$DATE', 0, '1969-01-01'"),
              HasSubstr("the next run must be due between 1970 and 2035"));
  EXPECT_EQ(refusalOfTask("1, '1 s', 'a$DATE', 0, now()"), "");
}

TEST_F(SchemaTest, RefusesWhatAnotherTriggerHasWritten) {
  database.query(
      "CREATE FUNCTION fill_in() RETURNS trigger LANGUAGE plpgsql AS"
      " $$BEGIN NEW.cron_log_file := '/' || NEW.cron_log_file; RETURN NEW; END$$;"
      "CREATE TRIGGER zz_fill_in BEFORE INSERT ON kodu_cron_plugin FOR EACH ROW"
      " EXECUTE FUNCTION fill_in()");
  EXPECT_THROW(database.insertTask(TaskRow()), std::runtime_error);
}

TEST_F(SchemaTest, RefusesATaskWithoutItsPlugin) {
  database.insertTask(TaskRow());

  EXPECT_THAT(refusalOfChange("cron_plugin_id = 99"), HasSubstr("violates foreign key constraint"));
  EXPECT_THAT(refusalOf("UPDATE kodu_plugins SET plugin_path = NULL"), HasSubstr("not-null"));
  EXPECT_THAT(refusalOf("UPDATE kodu_plugins SET plugin_path = ''"),
              HasSubstr("violates check constraint \"plugin_path_not_empty\""));
  EXPECT_THAT(refusalOf("DELETE FROM kodu_plugins"), HasSubstr("violates foreign key constraint"));
}

TEST_F(SchemaTest, RefusesFileNamesThatEndTheDaemon) {
  database.insertTask(TaskRow());
  for (const std::string name : {"./archive", "archive/61", "x/y", "sub/o_$DATE.txt", "./$DATE"}) {
    EXPECT_THAT(refusalOfChange("cron_log_file = '" + name + "'"),
                AllOf(HasSubstr("ERROR:  the file name '" + name + "' contains a /\n"),
                      HasSubstr("HINT:  The daemon creates no folders")));
  }
  EXPECT_THAT(refusalOfChange("cron_log_file = 'x_$date'"),
              HasSubstr("the file name 'x_$date' lacks $DATE"));
  TaskRow second;
  second.id = 2;
  second.logFile = "a/$DATE";
  EXPECT_ANY_THROW(database.insertTask(second));
}

TEST_F(SchemaTest, RefusesASecondTaskWithTheSameOutputFile) {
  TaskRow row;
  row.logFile = "a_$SERVICEID_$DATE";
  database.insertTask(row);
  const auto refusalOfTask = [&](int id, const std::string& name) {
    return refusalOf(
        "INSERT INTO kodu_cron_plugin (cron_id, cron_plugin_id, cron_interval, "
        "cron_log_file) VALUES (" +
        std::to_string(id) + ", 1, '60 s', '" + name + "')");
  };
  EXPECT_THAT(refusalOfTask(2, "a_1_$DATE"), HasSubstr("\"cron_log_file_of_one_task\""));
  EXPECT_EQ(refusalOfTask(2, "$DATE_$DATE"), "");
  EXPECT_THAT(refusalOfTask(4, "$DATE_$DATE"), HasSubstr("(last_$DATE) already exists"));
  EXPECT_EQ(refusalOfTask(12, "b$SERVICEID$DATE"), "");
  EXPECT_THAT(refusalOfTask(2147, "b12$DATE"), HasSubstr("(b12last) already exists"));
  EXPECT_EQ(refusalOfTask(5, "a_$SERVICEID_$DATE"), "");
}

// Two concurrent sessions: the second waits for the first and depends on its outcome.
TEST_F(SchemaTest, RefusesTheSameOutputFileInTwoSessionsAtOnce) {
  database.insertTask(TaskRow());
  pgSafeThread other(database.adminConninfo());
  const std::string insert =
      "INSERT INTO kodu_cron_plugin (cron_id, cron_plugin_id, cron_interval, cron_log_file) "
      "SELECT max(cron_id) + 1 + random() * 1000000, 1, '60 s', '$DATE' FROM kodu_cron_plugin";
  PQclear(other.executeRequest("BEGIN"));
  PQclear(other.executeRequest(insert));
  std::string refusal;
  std::thread second([&] { refusal = refusalOf(insert); });
  EXPECT_TRUE(waitUntil([&] {
    const ResultPtr waiting(
        other.executeRequest("SELECT 1 FROM pg_stat_activity WHERE datname ="
                             " current_database() AND wait_event_type = 'Lock'"));
    return PQntuples(waiting.get()) > 0;
  }));
  PQclear(other.executeRequest("COMMIT"));
  second.join();
  EXPECT_THAT(refusal, HasSubstr("\"cron_log_file_of_one_task\""));
}

TEST_F(SchemaTest, RefusesIntervalsWithMonths) {
  database.insertTask(TaskRow());
  for (const std::string interval :
       {"1 month", "1 year", "-12 months 365 days", "-120 months 3601 days"}) {
    EXPECT_THAT(refusalOfChange("cron_interval = '" + interval + "'"),
                HasSubstr("the interval contains months, years or a negative part"));
    EXPECT_THAT(refusalOfChange("cron_retries_interval = '" + interval + "'"),
                HasSubstr("the time to a retry contains months or years"));
  }
}

TEST_F(SchemaTest, RefusesIntervalsWithANegativePart) {
  database.insertTask(TaskRow());
  for (const std::string interval : {"1 day -86399 s", "-365 days 8761 hours", "2 days -1 s"}) {
    EXPECT_THAT(refusalOfChange("cron_interval = '" + interval + "'"),
                HasSubstr("the interval contains months, years or a negative part"));
  }
  for (const std::string interval : {"1 day", "1 day 1 s", "48 hours", "366 days", "2 days"}) {
    EXPECT_EQ(refusalOfChange("cron_interval = '" + interval + "'"), "");
  }
}

TEST_F(SchemaTest, RefusesRetriesWithinTheSecondOfTheFailure) {
  TaskRow row;
  row.retries = "1";
  database.insertTask(row);
  for (const std::string interval : {"0", "1 s", "1.9 s"}) {
    EXPECT_THAT(refusalOfChange("cron_retries_interval = '" + interval + "'"),
                HasSubstr("the time to a retry must be 2 seconds or more"));
  }
  EXPECT_EQ(refusalOfChange("cron_retries = 0, cron_retries_interval = '0'"), "");
  EXPECT_THAT(refusalOfChange("cron_retries = NULL"), HasSubstr("2 seconds or more"));
}

TEST_F(SchemaTest, RefusesNextRunsAfterWhichTheDaemonCannotCount) {
  database.insertTask(TaskRow());
  EXPECT_THAT(refusalOfChange("cron_next_exec = '2036-01-01 00:00:01'"),
              HasSubstr("the next run must be due before 2036"));
  EXPECT_THAT(refusalOf("INSERT INTO kodu_cron_plugin (cron_id, cron_plugin_id, cron_interval, "
                        "cron_next_exec, cron_log_file) "
                        "VALUES (2, 1, '1 s', '2037-01-01', '$DATE')"),
              HasSubstr("the next run must be due before 2036"));
  // A pause during which a run of a task with the longest interval ends, twice.
  EXPECT_EQ(refusalOfChange("cron_next_exec = '2036-01-01', cron_interval = '366 days'"), "");
  pgSafeThread daemon(database.conninfo());
  prepareNamedStatements(daemon);
  EXPECT_NO_THROW(PQclear(daemon.executePrepareRequest("UpdateCronState", {"1", "OK"})));
  EXPECT_NO_THROW(PQclear(daemon.executePrepareRequest("UpdateCronState", {"1", "OK"})));
}

TEST_F(SchemaTest, RefusesTextsThatNoProgramAccepts) {
  database.insertTask(TaskRow());
  EXPECT_THAT(refusalOfChange("cron_parameter = repeat('x', 1000001)"),
              HasSubstr("the parameters are longer than 1,000,000 bytes"));
  EXPECT_THAT(refusalOf("UPDATE kodu_plugins SET plugin_name = repeat('x', 1001)"),
              HasSubstr("the plugin has a name longer than"));
  EXPECT_THAT(refusalOf("UPDATE kodu_plugins SET plugin_path = repeat('x', 4096)"),
              HasSubstr("the plugin has a name longer than"));
  EXPECT_EQ(refusalOf("UPDATE kodu_plugins SET plugin_name = repeat('x', 1000), "
                      "plugin_path = repeat('x', 4095)"),
            "");
  EXPECT_EQ(refusalOfChange("cron_parameter = repeat('x', 1000000)"), "");
}

TEST_F(SchemaTest, RefusesAChangeOfATasksId) {
  database.insertTask(TaskRow());
  EXPECT_THAT(refusalOfChange("cron_id = 2"), HasSubstr("the id of a task cannot be changed"));
  EXPECT_EQ(refusalOfChange("cron_id = 1"), "");
}

// An upgraded database may hold such rows.
TEST_F(SchemaTest, AllowsUpdatesOfOtherColumnsOfAnOldRow) {
  database.query("ALTER TABLE kodu_cron_plugin DISABLE TRIGGER USER");
  TaskRow row;
  row.logFile = "./archive";
  row.interval = "1 month";
  row.retries = "1";
  row.retriesInterval = "interval '0'";
  row.nextExec = "'2037-01-01'";
  database.insertTask(row);
  TaskRow other;
  other.id = 2;
  other.retriesInterval = "interval '1 month'";
  database.insertTask(other);
  database.query("ALTER TABLE kodu_cron_plugin ENABLE TRIGGER USER");
  EXPECT_NO_THROW(database.query("UPDATE kodu_cron_plugin SET cron_retries = 2 WHERE cron_id = 2"));
  database.query("DELETE FROM kodu_cron_plugin WHERE cron_id = 2");
  EXPECT_EQ(refusalOfChange("cron_log_file = cron_log_file, cron_interval = cron_interval, "
                            "cron_retries = cron_retries, cron_next_exec = cron_next_exec, "
                            "cron_retries_interval = '0', cron_parameter = 'x'"),
            "");
  pgSafeThread daemon(database.conninfo());
  prepareNamedStatements(daemon);
  EXPECT_NO_THROW(PQclear(daemon.executePrepareRequest("UpdateCronProcess", {"1"})));
  EXPECT_NO_THROW(PQclear(daemon.executePrepareRequest("UpdateCronState", {"1", "OK"})));
}

// Defaults are times in UTC, whatever the zone of the writer's session.
TEST_F(SchemaTest, FillsInMissingColumns) {
  database.query("SET timezone = 'Asia/Tokyo'");
  database.query("INSERT INTO kodu_plugins(plugin_name, plugin_path) VALUES ('a', '/bin/true')");
  database.query(
      "INSERT INTO kodu_cron_plugin(cron_plugin_id, cron_interval, cron_log_file) "
      "VALUES (1, '60 s', '$DATE')");
  database.query("INSERT INTO kodu_cron_error(cron_id, cron_logfile) VALUES (1, 'a')");

  EXPECT_EQ(database.value("SELECT plugin_type FROM kodu_plugins"), "cron");
  EXPECT_EQ(database.query("SELECT cron_id, cron_status IS NULL, cron_last_exec IS NULL, "
                           "cron_next_exec = date_trunc('second', cron_next_exec), "
                           "now() AT TIME ZONE 'UTC' - cron_next_exec BETWEEN '0' AND '1 minute', "
                           "cron_retries IS NULL, cron_delete FROM kodu_cron_plugin"),
            (Rows{{"1", "t", "t", "t", "t", "t", "f"}}));
  EXPECT_EQ(database.value("SELECT now() AT TIME ZONE 'UTC' - cron_date BETWEEN '0' AND '1 minute' "
                           "FROM kodu_cron_error"),
            "t");
}

TEST_F(SchemaTest, NumbersHistoryRowsByItself) {
  database.query("INSERT INTO kodu_cron_error(cron_id, cron_logfile) VALUES (1, 'a'), (1, 'b')");

  EXPECT_EQ(database.query("SELECT cron_error_id FROM kodu_cron_error ORDER BY cron_error_id"),
            (Rows{{"1"}, {"2"}}));
}

TEST_F(SchemaTest, RestartsTheNumbersOfHistoryRowsAfterTheLastOne) {
  database.query("SELECT setval('kodu_cron_error_cron_error_id_seq', 2147483646)");
  pgSafeThread daemon(database.conninfo());
  prepareNamedStatements(daemon);

  PQclear(daemon.executePrepareRequest("insertCronError", {"1", "a"}));
  PQclear(daemon.executePrepareRequest("insertCronError", {"1", "b"}));

  EXPECT_EQ(database.query("SELECT cron_error_id, cron_logfile FROM kodu_cron_error ORDER BY 1"),
            (Rows{{"1", "b"}, {"2147483647", "a"}}));
}

TEST_F(SchemaTest, HasAnIndexForEachSearch) {
  database.query("SET enable_seqscan = off; SET enable_bitmapscan = off");
  const auto planOf = [&](const std::string& sql) {
    std::string plan;
    for (const Database::Row& line : database.query("EXPLAIN " + sql)) {
      plan += line[0] + "\n";
    }
    return plan;
  };

  EXPECT_THAT(planOf("SELECT cron_id FROM kodu_cron_plugin WHERE cron_delete=TRUE"),
              HasSubstr("using kodu_cron_plugin_flagged"));
  EXPECT_THAT(planOf("DELETE FROM kodu_cron_error WHERE cron_id=1"),
              HasSubstr("using kodu_cron_error_of_task"));
  EXPECT_THAT(planOf("DELETE FROM kodu_cron_plugin WHERE cron_id=1"),
              HasSubstr("using kodu_cron_plugin_pkey"));
  EXPECT_THAT(planOf("SELECT count(*) FROM kodu_cron_error WHERE cron_date > "
                     "now() AT TIME ZONE 'UTC' - interval '1 hour'"),
              HasSubstr("using kodu_cron_error_of_time"));
}

TEST_F(SchemaTest, LetsAnExistingRowWithMonthsRun) {
  database.insertTask(TaskRow());
  database.query("ALTER TABLE kodu_cron_plugin DISABLE TRIGGER kodu_refuse_task");
  database.query("UPDATE kodu_cron_plugin SET cron_interval = '1 month'");
  database.query("ALTER TABLE kodu_cron_plugin ENABLE TRIGGER kodu_refuse_task");
  pgSafeThread daemon(database.conninfo());
  prepareNamedStatements(daemon);

  EXPECT_NO_THROW(PQclear(daemon.executePrepareRequest("UpdateCronProcess", {"1"})));
  EXPECT_NO_THROW(PQclear(daemon.executePrepareRequest("UpdateCronState", {"1", "OK"})));
}

/// The views that define each task's state.
class StateTest : public SchemaTest {
 protected:
  void SetUp() override {
    TaskRow row;
    row.retries = "2";
    row.retriesInterval = "interval '20 seconds'";
    database.insertTask(row);
  }
  void set(const std::string& assignment) const {
    database.query("UPDATE kodu_cron_plugin SET " + assignment);
  }
  void failAgo(int seconds) const {
    database.query(
        "INSERT INTO kodu_cron_error(cron_id, cron_date, cron_logfile) VALUES (1, now() "
        "- interval '1 s' * " +
        std::to_string(seconds) + ", 'a')");
  }
  Database::Row state(const std::string& columns) const {
    return database.query("SELECT " + columns + " FROM kodu_task_state").front();
  }
  std::string plan(const std::string& columns) const {
    std::string text;
    for (const Database::Row& line :
         database.query("EXPLAIN SELECT " + columns + " FROM kodu_task_state")) {
      text += line[0] + "\n";
    }
    return text;
  }
};

TEST_F(StateTest, TellsLateFromRunning) {
  const std::string columns = "running, due_seconds, late_seconds, late";
  EXPECT_EQ(state(columns), (Database::Row{"f", "0", "0", "f"}));
  set("cron_next_exec = now() - interval '2.9 s'");
  EXPECT_EQ(state(columns), (Database::Row{"f", "2", "2", "f"}));
  set("cron_next_exec = now() - interval '3.1 s'");
  EXPECT_EQ(state(columns), (Database::Row{"f", "3", "3", "t"}));
  set("cron_status = 'PROCESS'");
  EXPECT_EQ(state(columns), (Database::Row{"t", "3", "0", "f"}));
  set("cron_status = 'OK', cron_delete = TRUE");
  EXPECT_EQ(state(columns), (Database::Row{"f", "3", "0", "f"}));
  set("cron_status = 'PROCESS', cron_next_exec = now() + interval '1 s'");
  EXPECT_EQ(state(columns), (Database::Row{"f", "0", "0", "f"})) << "a row of an earlier process";
}

TEST_F(StateTest, TellsARetryThatWaitsFromABusyWorker) {
  const std::string columns = "attempts, running, awaiting_retry, busy, retry_due - due";
  set("cron_status = 'PROCESS', cron_next_exec = now() - interval '15 s'");
  EXPECT_EQ(state(columns), (Database::Row{"0", "t", "f", "t", ""}));
  failAgo(10);
  EXPECT_EQ(state(columns), (Database::Row{"1", "t", "t", "f", "00:00:20"}));
  set("cron_next_exec = now() - interval '25 s'");
  EXPECT_EQ(state(columns), (Database::Row{"1", "t", "f", "t", "00:00:20"}));
  failAgo(4);
  EXPECT_EQ(state(columns), (Database::Row{"2", "t", "t", "f", "00:00:40"}));
  failAgo(3);
  EXPECT_EQ(state(columns), (Database::Row{"3", "t", "f", "t", ""})) << "no retry is left";
}

TEST_F(StateTest, ShowsAFailingTaskDuringItsNextRunToo) {
  set("cron_status = 'PROCESS', cron_last_exec = now() - interval '301 s', "
      "cron_next_exec = now() - interval '1 s'");
  failAgo(300);
  failAgo(280);
  EXPECT_EQ(state("failing"), (Database::Row{"f"})) << "its second retry may have succeeded";
  failAgo(260);
  EXPECT_EQ(state("failing, round(EXTRACT(EPOCH FROM now() - failing_since))"),
            (Database::Row{"t", "300"}));
}

TEST_F(StateTest, LooksBackOnlyAsFarAsItCanAtOnce) {
  set("cron_status = 'FAILED'");
  database.query(
      "INSERT INTO kodu_cron_error (cron_id, cron_date, cron_logfile)"
      " SELECT 1, now() - n * interval '100 s', 'a' FROM generate_series(1, 9999) AS n");
  const std::string distance = "round(EXTRACT(EPOCH FROM now() - failing_since))";
  EXPECT_EQ(state(distance), (Database::Row{"999900"}));
  failAgo(1000000);
  EXPECT_EQ(state(distance), (Database::Row{"1000000"}));
  failAgo(1000100);
  EXPECT_EQ(state(distance), (Database::Row{"1000000"})) << "the latest 10,000";
  // More than the daemon can have recorded.
  database.query(
      "INSERT INTO kodu_cron_error (cron_id, cron_date, cron_logfile)"
      " SELECT 1, now() - n * interval '1 ms', 'a' FROM generate_series(1, 101000) AS n");
  EXPECT_EQ(state("failures_hour, failures_day"), (Database::Row{"10000", "100000"}));
  set("cron_status = 'PROCESS', cron_next_exec = now() - interval '10000 s'");
  EXPECT_EQ(state("attempts, retry_due, failing"), (Database::Row{"3", "", "t"}));
}

TEST_F(StateTest, ShowsAPauseOnlyWhileItLasts) {
  database.query(
      "INSERT INTO kodu_cron_pause VALUES (1, '2026-01-01', '2026-01-02', 'alice', 'new disks')");
  const std::string columns = "paused, paused_at, paused_by, pause_reason, due IS NULL";
  EXPECT_EQ(state(columns), (Database::Row{"f", "", "", "", "f"})) << "ended by plain SQL";
  set("cron_next_exec = kodu_pause_time()");
  EXPECT_EQ(state(columns), (Database::Row{"t", "2026-01-02 00:00:00", "alice", "new disks", "t"}));
}

TEST_F(StateTest, RecognisesTheDaemonByTheRoleInTheSetting) {
  const std::string sql = "SELECT sessions, daemons, connected FROM kodu_daemon_state";
  const std::string other = "daemon_of_" + database.name();
  database.query("CREATE ROLE " + other + " LOGIN PASSWORD 'p'");
  EXPECT_EQ(database.query(sql), (Rows{{"0", "0", "f"}}));
  {
    const pgSafeThread daemon(database.conninfo());
    const pgSafeThread tool(database.conninfo() + " application_name=kodu_x");
    const pgSafeThread client(database.conninfo() + " application_name=psql");
    const pgSafeThread another(database.host(), database.port(), database.name(), other, "p");
    EXPECT_EQ(database.query(sql), (Rows{{"2", "1", "t"}}));
    EXPECT_EQ(state("daemon_connected"), (Database::Row{"t"}));
    database.query("SET ROLE kodu; SET kodu.daemon_role = '" + other + "'");
    EXPECT_EQ(database.query(sql), (Rows{{"1", "1", "t"}})) << "a role sees others' sessions too";
    database.query("RESET ROLE");
  }
  EXPECT_TRUE(waitUntil([&] { return database.query(sql) == Rows{{"0", "0", "f"}}; }));
  database.query("DROP ROLE " + other);
}

TEST_F(StateTest, ReadsNoHistoryAndNoPauseForColumnsThatDoNotNeedThem) {
  EXPECT_THAT(plan("id, status, running, due, late_seconds, late, deleting"),
              testing::Not(testing::AnyOf(HasSubstr("kodu_cron_error"),
                                          HasSubstr("kodu_cron_pause"), HasSubstr("pg_stat"))));
  EXPECT_THAT(plan("failures_hour"), HasSubstr("kodu_cron_error"));
}

TEST_F(SchemaTest, SetsTheDatabasesTimeZoneToUtc) {
  const auto zone = [&] {
    pgSafeThread session(database.conninfo());
    const ResultPtr result(session.executeRequest("SHOW timezone"));
    return cellText(result, 0, 0, "SHOW");
  };
  database.query("ALTER DATABASE " + database.name() + " SET timezone = 'Asia/Tokyo'");
  ASSERT_EQ(zone(), "Asia/Tokyo");

  loadSchema();

  EXPECT_EQ(zone(), "UTC");
}

TEST_F(SchemaTest, SetsWhatTheDatabaseAndTheDaemonNeed) {
  loadSchema();

  EXPECT_EQ(database.query("SELECT COALESCE(rolname, 'all'), unnest(setconfig) FROM "
                           "pg_db_role_setting s JOIN pg_database d ON d.oid = setdatabase "
                           "LEFT JOIN pg_roles r ON r.oid = setrole "
                           "WHERE datname = current_database() ORDER BY 1, 2"),
            (Rows{{"all", "TimeZone=UTC"},
                  {"all", "idle_in_transaction_session_timeout=60s"},
                  {"kodu", "search_path=public"},
                  {"kodu", "synchronous_commit=off"}}));
}

TEST_F(SchemaTest, IgnoresASchemaNamedAfterTheRole) {
  database.query(
      "CREATE SCHEMA kodu; CREATE TABLE kodu.kodu_plugins(); GRANT USAGE ON SCHEMA kodu "
      "TO kodu");
  loadSchema();
  pgSafeThread daemon(database.conninfo());

  const ResultPtr found(daemon.executeRequest("SELECT 'public.kodu_plugins'::regclass::text"));
  EXPECT_STREQ(PQgetvalue(found.get(), 0, 0), "kodu_plugins");
}

TEST_F(SchemaTest, LetsOnlyTheDaemonsRoleConnect) {
  const std::string other = "other_than_" + database.name();
  database.query("CREATE ROLE " + other + " LOGIN PASSWORD 'p'");
  const auto connect = [&] {
    pgSafeThread(database.host(), database.port(), database.name(), other, "p");
  };
  EXPECT_NO_THROW(connect()) << "in a copy of the template every role may connect";

  loadSchema();

  std::string refusal;
  try {
    connect();
  } catch (const PostgresqlException& e) {
    refusal = e.what();
  }
  EXPECT_THAT(refusal, HasSubstr("permission denied for database \"" + database.name() + "\""));
  EXPECT_NO_THROW(pgSafeThread{database.conninfo()});
  database.query("DROP ROLE " + other);
}

TEST_F(SchemaTest, GrantsTheDaemonExactlyTheRightsOfItsStatements) {
  database.insertTask(TaskRow());
  pgSafeThread daemon(database.conninfo());
  prepareNamedStatements(daemon);
  PQclear(daemon.executeRequest(taskQuery(nullptr)));
  PQclear(daemon.executeRequest(kListen));
  PQclear(daemon.executePrepareRequest("UpdateCronProcess", {"1"}));
  PQclear(daemon.executePrepareRequest("UpdateCronState", {"1", "OK"}));
  PQclear(daemon.executePrepareRequest("updateCronExecTask", {"1", "1"}));
  PQclear(daemon.executePrepareRequest("insertCronError", {"1", "a.txt"}));
  PQclear(daemon.executePrepareRequest("SelectCronHistory", {"1"}));
  PQclear(daemon.executePrepareRequest("SelectDeleteCron"));
  PQclear(daemon.executePrepareRequest("DeleteCronHistory", {"1"}));
  PQclear(daemon.executePrepareRequest("DeleteCron", {"1"}));

  EXPECT_EQ(database.task(1, "cron_id"), "") << "they did their work";
}

TEST_F(SchemaTest, DeniesTheDaemonEveryOtherRight) {
  database.insertTask(TaskRow());
  pgSafeThread daemon(database.conninfo());

  for (const std::string sql :
       {"UPDATE kodu_plugins SET plugin_path = '/x'",
        "INSERT INTO kodu_plugins(plugin_name, plugin_path) VALUES ('a', 'b')",
        "DELETE FROM kodu_plugins", "UPDATE kodu_cron_plugin SET cron_parameter = 'x'",
        "UPDATE kodu_cron_plugin SET cron_delete = TRUE",
        "INSERT INTO kodu_cron_plugin DEFAULT VALUES", "UPDATE kodu_cron_error SET cron_id = 2",
        "TRUNCATE kodu_cron_error", "TRUNCATE kodu_cron_plugin",
        "SELECT setval('kodu_cron_error_cron_error_id_seq', 1)", "CREATE TABLE public.mine()",
        "CREATE SCHEMA mine", "SELECT pg_read_file('PG_VERSION')", "CREATE ROLE mine"}) {
    std::string refusal = "it was taken";
    try {
      PQclear(daemon.executeRequest(sql));
    } catch (const PostgresqlException& e) {
      refusal = e.what();
    }
    EXPECT_THAT(refusal, testing::StartsWith("execute failed:  ERROR:  permission denied")) << sql;
  }
}

TEST_F(SchemaTest, GrantsExactlyTheseRights) {
  EXPECT_EQ(
      database.query(
          "SELECT grantee, table_name, privilege_type FROM information_schema.table_privileges "
          "WHERE table_schema = 'public' AND grantee IN ('kodu', 'PUBLIC') ORDER BY 1, 2, 3"),
      (Rows{{"kodu", "kodu_cron_error", "DELETE"},
            {"kodu", "kodu_cron_error", "INSERT"},
            {"kodu", "kodu_cron_error", "SELECT"},
            {"kodu", "kodu_cron_key", "SELECT"},
            {"kodu", "kodu_cron_plugin", "DELETE"},
            {"kodu", "kodu_cron_plugin", "SELECT"},
            {"kodu", "kodu_cron_repair", "INSERT"},
            {"kodu", "kodu_cron_repair", "SELECT"},
            {"kodu", "kodu_daemon_state", "SELECT"},
            {"kodu", "kodu_plugins", "SELECT"},
            {"kodu", "kodu_schema_version", "SELECT"},
            {"kodu", "kodu_task_state", "SELECT"}}));
  EXPECT_EQ(database.query("SELECT column_name FROM information_schema.column_privileges WHERE "
                           "grantee = 'kodu' AND privilege_type = 'UPDATE' ORDER BY 1"),
            (Rows{{"cron_last_exec"}, {"cron_next_exec"}, {"cron_status"}}));
  EXPECT_EQ(database.query(
                "SELECT rolsuper, rolcreaterole, rolcreatedb, rolreplication, rolbypassrls, "
                "(SELECT count(*) FROM pg_auth_members JOIN pg_roles AS g ON g.oid = roleid "
                "WHERE member = r.oid AND g.rolname <> 'kodu_hosts') FROM pg_roles r "
                "WHERE rolname = 'kodu'"),  // other tests make it a host; roles have no database
            (Rows{{"f", "f", "f", "f", "f", "0"}}));
}

// The rows fill several pages up to the fill factor, and a third of them is updated. Without free
// space, or with an index on an updated column, the server would have to change the indexes. With
// more updates the result would depend on when the server prunes a page, which transactions of
// other databases delay.
TEST_F(SchemaTest, KeepsTheDaemonsUpdatesOnThePageOfTheirRows) {
  database.insertTask(TaskRow());
  database.query(
      "INSERT INTO kodu_cron_plugin(cron_id, cron_plugin_id, cron_interval, cron_log_file) "
      "SELECT i, 1, '300 s', 'out_$SERVICEID_$DATE.txt' FROM generate_series(2, 270) i");
  {
    pgSafeThread daemon(database.conninfo());
    prepareNamedStatements(daemon);
    for (int id = 1; id <= 270; id += 9) {
      PQclear(daemon.executePrepareRequest("UpdateCronProcess", {std::to_string(id)}));
      PQclear(daemon.executePrepareRequest("UpdateCronState", {std::to_string(id + 3), "OK"}));
      PQclear(daemon.executePrepareRequest("updateCronExecTask", {std::to_string(id + 6), "1"}));
    }
  }

  // The session reports its counts when it ends.
  EXPECT_TRUE(waitUntil([&] {
    database.query("SELECT pg_stat_clear_snapshot()");
    return database.value(
               "SELECT n_tup_upd FROM pg_stat_user_tables WHERE relname = "
               "'kodu_cron_plugin'") == "90";
  }));
  EXPECT_EQ(database.value("SELECT n_tup_hot_upd FROM pg_stat_user_tables WHERE relname = "
                           "'kodu_cron_plugin'"),
            "90");
}

class RepairTest : public SchemaTest {
 protected:
  void repair() const { database.query(readFile(projectFile("sql/repair.sql"))); }
};

TEST_F(RepairTest, EndsTheRunsOfAnEarlierDaemon) {
  database.insertTask(TaskRow());
  TaskRow other;
  other.id = 2;
  database.insertTask(other);
  database.query(
      "UPDATE kodu_cron_plugin SET cron_status = CASE cron_id WHEN 1 THEN 'PROCESS' "
      "ELSE 'OK' END, cron_next_exec = '2030-01-01 00:00:00'");

  repair();
  repair();

  EXPECT_EQ(database.task(1, "cron_status"), "FAILED");
  EXPECT_EQ(database.task(2, "cron_status"), "OK");
  EXPECT_EQ(database.query("SELECT cron_id, was_due FROM kodu_cron_repair"),
            (Rows{{"1", "2030-01-01 00:00:00"}}));
}

TEST_F(RepairTest, ChangesNothingWhileTheDaemonRuns) {
  database.insertTask(TaskRow());
  database.query("UPDATE kodu_cron_plugin SET cron_status = 'PROCESS'");
  const pgSafeThread daemon(database.conninfo());

  repair();

  EXPECT_EQ(database.task(1, "cron_status"), "PROCESS");
  EXPECT_EQ(database.value("SELECT count(*) FROM kodu_cron_repair"), "0");
}

TEST_F(RepairTest, MayBeRunByTheDaemonsRole) {
  database.insertTask(TaskRow());
  database.query("UPDATE kodu_cron_plugin SET cron_status = 'PROCESS'");
  pgSafeThread tool(database.conninfo() + " application_name=kodu_repair");

  PQclear(tool.executeRequest(readFile(projectFile("sql/repair.sql"))));

  EXPECT_EQ(database.task(1, "cron_status"), "FAILED");
}

}  // namespace
