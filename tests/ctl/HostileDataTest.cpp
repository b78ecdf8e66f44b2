#include <string>
#include <vector>

#include "tests/ctl/CtlTest.h"
#include "tests/ctl/everyCommand.h"

namespace {

/// Every command on a terminal, with texts in the database and in the outputs that would command
/// the terminal, and parameters of a megabyte.
class HostileDataTest : public CtlTest {
 protected:
  void SetUp() override {
    CtlTest::SetUp();
    database.query(readFile(projectFile("sql/events.sql")));
    TaskRow row = quietTask(1);
    row.path = writePlugin(daemon.directory / "plugin", R"(printf '\033]0;x\007\302\2332J\377')");
    database.insertTask(row);
    database.takeAnyRow();  // the tables refuse parameters that are this long
    database.query(
        "SELECT setval('kodu_plugins_plugin_id_seq', 1), setval('kodu_cron_plugin_cron_id_seq', 1);"
        "UPDATE kodu_plugins SET plugin_name = " +
        kText);
    setStatus(1, "FAILED");
    addFailure(1, 100, "out_1_a.txt", kBytes);
    writeOutput("out_1_last.txt", kBytes);
    writeFile(daemon.logPath(), "");
    writeFile(declared(),
              "set: s\ntasks: {a: {plugin: /bin/true, every: 1h, name: \"x\\u001b[2J\"}}\n");
  }

  /// Adds tasks with parameters of 1.8 megabytes.
  void insertTasks(int count) const {
    database.query(
        "INSERT INTO kodu_plugins (plugin_name, plugin_path) SELECT plugin_name || n, plugin_path"
        " FROM kodu_plugins, generate_series(1, " +
        std::to_string(count) +
        ") AS n;"
        "INSERT INTO kodu_cron_plugin (cron_plugin_id, cron_interval, cron_status, cron_next_exec,"
        " cron_log_file, cron_parameter) SELECT plugin_id, '1 hour', 'OK', now() + interval '1 "
        "hour', '$SERVICEID_$DATE', repeat(" +
        kText +
        ", 100000) FROM kodu_plugins WHERE plugin_id > 1;"
        "INSERT INTO kodu_cron_error (cron_id, cron_logfile) SELECT 2, 'a' || " +
        kText + ";SELECT kodu_task_pause(2, " + kText + ")");
  }

  std::string declared() const { return daemon.directory / "declared.yaml"; }

  /// The calls that end by themselves.
  std::vector<Words> calls() const {
    std::vector<Words> all = {{"show", "2"},
                              {"explain", "2"},
                              {"logs", "2"},
                              {"history", "2"},
                              {"status", "--output", "--all"}};
    for (const auto& [command, forms] : callsOfEveryCommand(declared(), daemon.directory / "m")) {
      all.push_back(forms.front());
    }
    return all;
  }

  /// Sets a title, clears the screen by two different sequences, rings and goes back: an SQL text.
  inline static const std::string kText = R"(E'a\x1b]0;x\x07\u009b2J\x1b[2J\rb\b')";
  static constexpr const char* kBytes =
      "a\x1b]0;x\x07\xc2\x9b"
      "2J\x1b[2J\rb\b\xff\n";
};

TEST_F(HostileDataTest, CommandsNoTerminal) {
  insertTasks(1);
  const std::string kEraseLine = "\x1b[K";  // of koductl's own progress bar
  for (const Words& call : calls()) {
    Words all = {"--user", admin()};
    all.insert(all.end(), call.begin(), call.end());
    if (call.front() == "repair" || call.front() == "test") {
      all.erase(all.begin(), all.begin() + 2);
    }
    std::string shown = runOnTerminal(all, {"TERM=xterm", "NO_COLOR=1", "PGPASSWORD=secret"});
    for (auto place = shown.find(kEraseLine); place != std::string::npos;
         place = shown.find(kEraseLine)) {
      shown.erase(place, kEraseLine.size());
    }
    for (const char* part : {"\x1b", "\x07", "\b", "\xc2\x9b", "\xff", "\rb"}) {
      const auto place = shown.find(part);
      EXPECT_EQ(place, std::string::npos)
          << call.front() << ": " << shown.substr(place == std::string::npos ? 0 : place, 40);
    }
  }
}

/// Slow because of the size of its rows.
class SlowHostileDataTest : public HostileDataTest {};

TEST_F(SlowHostileDataTest, NeedsLittleMemory) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "a sanitizer needs more";
#endif
  insertTasks(150);
  const std::vector<Words> all = {{"export"}, {"pause", "--all", "--dry-run"}};
  for (const Words& call : all) {
    std::string words;
    for (const std::string& word : call) {
      words += " '" + word + "'";
    }
    // Address space, of which the libraries take some 60 MB; in kB.
    const std::string line = "ulimit -v 300000; PGPASSWORD=secret '" + program() + "' -f " +
                             daemon.mainConfig() + " --user " + admin() + words + " >/dev/null 2>" +
                             errPath();
    // NOLINTNEXTLINE(cert-env33-c,concurrency-mt-unsafe)
    const int status = std::system(line.c_str());
    EXPECT_EQ(signalOf(status), -1) << call.front();
    EXPECT_LT(exitStatusOf(status), 126) << call.front() << readFile(errPath());
    EXPECT_EQ(readFile(errPath()).find("memory"), std::string::npos) << call.front();
  }
}

}  // namespace
