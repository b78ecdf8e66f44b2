#include <cstdlib>
#include <set>
#include <string>

#include "ctl/commandLine.h"
#include "ctl/description.h"
#include "tests/ctl/CtlTest.h"
#include "tests/ctl/everyCommand.h"
#include "tests/support/Ledger.h"

namespace {

using testing::HasSubstr;

/// What the commands print with --json, against docs/koductl.schema.json.
class JsonSchemaTest : public CtlTest {
 protected:
  void SetUp() override {
    CtlTest::SetUp();
    for (const int id : {1, 2, 3}) {
      TaskRow row = quietTask(id);
      row.interval = "60 seconds";
      database.insertTask(row);
    }
    database.query(
        "SELECT setval(pg_get_serial_sequence('kodu_cron_plugin', 'cron_id'), 100),"
        " setval(pg_get_serial_sequence('kodu_plugins', 'plugin_id'), 100)");
    setStatus(1, "FAILED");
    setStatus(2, "OK");
    writeFile(daemon.logPath(), "");
    writeOutput("out_1_last.txt", "bad\n");
    addFailure(1, 100, "out_1_a.txt", "bad\n");
  }

  /// Runs a command and keeps its output for the definition of that name.
  void keep(const std::string& definition, std::vector<std::string> arguments) {
    arguments.emplace_back("--json");
    const CtlResult result = runAsAdmin(arguments);
    keepText(definition, result.out);
    EXPECT_NE(result.out, "") << definition << ": " << result.err;
  }
  void keepText(const std::string& definition, const std::string& text) {
    const std::string path = daemon.directory / ("json" + std::to_string(++count));
    writeFile(path, text);
    pairs += " " + definition + " " + path;
  }
  /// What the validator says; "" when all is valid.
  std::string violations() const {
    const std::string said = daemon.directory / "said";
    const std::string command = "/usr/bin/python3 " + projectFile("tests/support/validateJson.py") +
                                " " + projectFile("docs/koductl.schema.json") + pairs + " >" +
                                said + " 2>&1";
    const int status = std::system(command.c_str());  // NOLINT(cert-env33-c,concurrency-mt-unsafe)
    return exitStatusOf(status) == 0 ? "" : "invalid\n" + readFile(said);
  }

 private:
  int count = 0;
  std::string pairs;  // " DEFINITION FILE" each
};

TEST_F(JsonSchemaTest, DescribesEveryCommand) {
  database.query(readFile(projectFile("sql/events.sql")));
  database.query(
      "ALTER TABLE kodu_plugins ALTER plugin_id RESTART 1000;"
      "ALTER TABLE kodu_cron_plugin ALTER cron_id RESTART 1000");
  database.query(readFile(projectFile("sql/hosts.sql")));
  database.query(readFile(projectFile("sql/windows.sql")));
  const std::string declared = daemon.directory / "declared.yaml";
  writeFile(declared, "set: s\ntasks: {a: {plugin: /bin/true, every: 1h}}\n");
  for (const auto& [command, forms] : callsOfEveryCommand(declared, daemon.directory / "metrics")) {
    if (command == "repair" || command == "test") {  // which need the daemon's role
      Words words = forms.front();
      words.emplace_back("--json");
      keepText(command, run(words).out);
    } else {
      keep(command, forms.front());
    }
  }
  EXPECT_EQ(violations(), "");
}

TEST_F(JsonSchemaTest, DescribesTheCommandsThatRead) {
  keep("status", {"status"});
  keep("ids", {"ids"});
  keep("show", {"show", "1"});
  keep("explain", {"explain", "1"});
  keep("next", {"next", "1"});
  keep("logs", {"logs", "1"});
  keep("history", {"history", "1"});
  keep("output", {"output", "1"});
  keep("top", {"top"});
  keep("daemon", {"daemon"});
  keep("check", {"check"});
  keep("health", {"health"});
  keep("metrics", {"metrics"});
  keep("forecast", {"forecast"});
  keep("schema", {"schema"});
  keep("version", {"--version"});
  keepText("test", run({"test", "1", "--json"}).out);
  EXPECT_EQ(violations(), "");
}

TEST_F(JsonSchemaTest, DescribesTheCommandsThatChange) {
  keep("add", {"add", "/bin/true", "--every", "1h"});
  keep("set", {"set", "1", "--every", "2h"});
  keep("pause", {"pause", "1", "--until", "1h", "--reason", "disks"});
  keep("show", {"show", "1"});
  keep("resume", {"resume", "1"});
  keep("pause", {"pause", "1"});
  keep("show", {"show", "1"});
  keep("run", {"run", "2"});
  keep("pause", {"pause", "1", "2", "--yes"});
  keep("resume", {"resume", "2"});
  keep("run", {"run", "2", "--dry-run"});
  keep("delete", {"delete", "3", "--yes"});
  keep("undelete", {"undelete", "3"});
  keep("stagger", {"stagger"});
  keep("export", {"export"});
  const std::string declared = daemon.directory / "declared.yaml";
  writeFile(declared, "set: s\ntasks: {a: {plugin: /bin/true, every: 1h, paused: true}}\n");
  keep("apply", {"apply", declared, "--dry-run"});
  keep("apply", {"apply", declared});
  keep("export", {"export", "--set", "s"});
  writeFile(declared, "@daily /bin/true\n");
  keep("import", {"import", "crontab", declared});
  writeFile(declared, "set: s\ntasks: {}\n");
  keep("apply", {"apply", declared, "--prune", "--yes"});
  keep("prune", {"prune", "--older-than", "1s"});
  keepText("repair", run({"repair", "--json"}).out);
  EXPECT_EQ(violations(), "");
}

TEST_F(JsonSchemaTest, DescribesTheLedger) {
  const Ledger ledger(database);
  database.query(readFile(projectFile("sql/events.sql")));
  TaskRow row = makeTask(9, "echo bad; exit 2");
  database.insertTask(row);
  ASSERT_TRUE(daemon.startAndWait());
  ASSERT_TRUE(waitForStatus(9, "FAILED"));
  keep("history", {"history", "9"});
  keep("account", {"account", "9"});
  keep("ledger", {"ledger"});
  ASSERT_TRUE(waitUntil([&] { return run({"events"}).out.find("failed") != std::string::npos; }));
  keep("events", {"events"});
  database.query(
      "SELECT kodu_events_start('mine', now() - interval '1 hour');"
      "SELECT kodu_events_bury('mine', position, event, 3, 'HTTP 503') FROM kodu_events('mine')");
  keep("events_dead", {"events", "--dead"});
  keep("events_redeliver", {"events", "--reader", "mine", "--redeliver", "all"});
  keep("health", {"health"});
  EXPECT_EQ(violations(), "");
}

TEST_F(JsonSchemaTest, DescribesTheHosts) {
  database.query(
      "ALTER TABLE kodu_plugins ALTER plugin_id RESTART 1000;"
      "ALTER TABLE kodu_cron_plugin ALTER cron_id RESTART 1000");
  database.query(readFile(projectFile("sql/hosts.sql")));
  keep("host", {"host"});
  EXPECT_EQ(violations(), "");
}

TEST_F(JsonSchemaTest, DescribesTheWindows) {
  database.query(readFile(projectFile("sql/calendar.sql")));
  database.query(readFile(projectFile("sql/windows.sql")));
  keep("window", {"window", "add", "1", "--for", "2h", "--reason", "x"});
  keep("window", {"window", "add", "--all", "--at", "0 2 * * *", "--for", "2h", "--reason", "x"});
  keep("status", {"status"});
  keep("window", {"window", "end", "1"});
  keep("window", {"window", "list", "--all"});
  EXPECT_EQ(violations(), "");
}

TEST_F(JsonSchemaTest, DescribesAnUpgradeOfTheTables) {
  keepText(
      "schema_upgrade",
      run({"schema", "upgrade", "--dry-run", "--json", "--connect", database.adminConninfo()}).out);
  EXPECT_EQ(violations(), "");
}

TEST_F(JsonSchemaTest, DescribesWhatThereIsWithADaemon) {
  ASSERT_TRUE(startAndListen());
  keep("run_wait", {"run", "2", "--wait"});
  keep("daemon", {"daemon"});
  keep("health", {"health"});
  keep("explain", {"explain", "2"});
  EXPECT_EQ(violations(), "");
}

TEST_F(JsonSchemaTest, DescribesWhatIsSaidWithoutADatabase) {
  daemon.writeDatabaseConfig(database.host(), 1);
  keep("daemon", {"daemon"});
  keep("health", {"health"});
  keep("check", {"check"});
  EXPECT_EQ(violations(), "");
}

TEST_F(JsonSchemaTest, IsNotMetByOtherJson) {
  keepText("status", R"([{"id": "1"}])");
  EXPECT_THAT(violations(), HasSubstr("status: at /0: 'name' is a required property"));
}

TEST_F(JsonSchemaTest, HasADefinitionOfEachCommand) {
  const Json::Value schema = parsed(readFile(projectFile("docs/koductl.schema.json")));
  const std::vector<std::string> names = schema["$defs"].getMemberNames();
  const std::set<std::string> defined(names.begin(), names.end());
  for (const CommandDescription& command : allCommands(describeCommandLine())) {
    EXPECT_EQ(defined.count(command.name), 1U) << command.name;
  }
}

}  // namespace
