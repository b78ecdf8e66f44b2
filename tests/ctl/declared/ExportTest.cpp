#include <algorithm>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "tests/ctl/CtlTest.h"
#include "tests/support/RowGenerator.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

/// koductl export, and apply of what it wrote.
class ExportTest : public CtlTest {
 protected:
  std::string file() const { return daemon.directory / "exported.yaml"; }

  std::string exported(const std::vector<std::string>& options = {}) const {
    std::vector<std::string> all = {"export"};
    all.insert(all.end(), options.begin(), options.end());
    const CtlResult result = run(all);
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.err, "");
    return result.out;
  }
  std::string writeExported(const std::string& content) const {
    writeFile(file(), content);
    return file();
  }
  void applyText(const std::string& content) {
    const CtlResult result = runAsAdmin({"apply", writeExported(content)});
    EXPECT_EQ(result.exitCode, 0) << result.err;
  }
  void removeAllTasks() const {
    database.query("TRUNCATE kodu_cron_plugin, kodu_plugins RESTART IDENTITY CASCADE");
  }
  /// What is to be equal after a round trip, by key.
  std::vector<Database::Row> definitions() const {
    return database.query(
        "SELECT kodu_key_of(task.cron_id), name, plugin_path, coalesce(cron_parameter, ''),"
        " extract(epoch FROM cron_interval), coalesce(cron_retries, 1),"
        " extract(epoch FROM coalesce(cron_retries_interval, interval '2 minutes')), cron_log_file,"
        " paused,"
        " pause_reason,"
        " paused_until,"
        " CASE WHEN due > now() + cron_interval + interval '1 minute' THEN due::text ELSE "
        "(extract(epoch FROM"
        "   coalesce(due, next_exec)) % extract(epoch FROM cron_interval))::text END"
        " FROM kodu_cron_plugin AS task JOIN kodu_task_state ON id = task.cron_id"
        " LEFT JOIN kodu_cron_pause AS pause ON pause.cron_id = id ORDER BY 1");
  }
};

TEST_F(ExportTest, WritesWhatDiffersFromDefaults) {
  EXPECT_EQ(exported(), "tasks: {}\n");
  applyText(
      "set: web\n"
      "tasks:\n"
      "  b: {plugin: /bin/true, every: 300s, retries: 1, retry-after: 120s, name: true,\n"
      "      file: $SERVICEID_$DATE.txt, arguments: [], first: 2020-01-01 00:04:05}\n"
      "  a: {plugin: /opt/my check, every: 1 day, name: \"no\", retries: 0, timeout: 90s,\n"
      "      retry-after: 5m, file: a_$DATE, arguments: [-w, \"5\", a b], paused: true,\n"
      "      reason: \"new: disks\", until: 2034-06-01 12:00, first: 1970-01-01 03:00}\n");
  const std::string a =
      "  a:\n"
      "    plugin: \"/opt/my check\"\n"
      "    name: \"no\"\n"
      "    every: 1d\n"
      "    retries: 0\n"
      "    timeout: 90s\n"
      "    retry-after: 5m\n"
      "    file: a_$DATE\n"
      "    arguments: [\"-w\", \"5\", \"a b\"]\n"
      "    first: 1970-01-01 03:00:00\n"
      "    paused: true\n"
      "    reason: \"new: disks\"\n"
      "    until: 2034-06-01 12:00:00\n";
  const std::string b =
      "  b:\n"
      "    plugin: /bin/true\n"
      "    every: 5m\n"
      "    first: 1970-01-01 00:04:05\n";
  EXPECT_EQ(exported(), "tasks:\n" + a + b);
  EXPECT_EQ(exported({"--set", "web"}), "set: web\ntasks:\n" + a + b);
  EXPECT_EQ(exported({"--set", "db"}), "set: db\ntasks: {}\n");
  EXPECT_EQ(exported({"1"}), "tasks:\n" + a);
  EXPECT_EQ(exported({"--zone", "Asia/Kathmandu"}), "tasks:\n" + a + b);
  for (const char* form : {"--json", "--set=web"}) {
    const CtlResult missing = run({"export", "1", "99", form});
    EXPECT_EQ(missing.exitCode, 66) << form;
    EXPECT_EQ(missing.out, "") << "no part of a document";
  }
}

TEST_F(ExportTest, TakesASelectionAndKeepsTheOrderOfTheKeys) {
  applyText(
      "set: web\ntasks:\n  c: {plugin: /bin/true, every: 5m, name: load}\n"
      "  b: {plugin: /bin/false, every: 5m, name: disk, timeout: 5s, paused: true}\n"
      "  a: {plugin: /bin/true, every: 5m, name: users}\n");
  const auto keys = [&](const std::vector<std::string>& options) {
    std::vector<std::string> all = {"--json"};
    all.insert(all.end(), options.begin(), options.end());
    return parsed(exported(all))["tasks"].getMemberNames();
  };
  using testing::ElementsAre;
  EXPECT_THAT(keys({"--all"}), ElementsAre("a", "b", "c"));
  EXPECT_THAT(keys({"--name", "*s*"}), ElementsAre("a", "b"));
  EXPECT_THAT(keys({"--plugin", "/bin/false"}), ElementsAre("b"));
  EXPECT_THAT(keys({"--paused", "--set", "web"}), ElementsAre("b"));
  EXPECT_THAT(keys({"--paused", "--set", "db"}), testing::IsEmpty());
  EXPECT_THAT(keys({"--sort", "name,desc", "--limit", "2"}), ElementsAre("a", "c"));
  const std::string second = database.value("SELECT kodu_task_with_key('b')");
  EXPECT_EQ(keys({"--after", second}).size(), 3U - std::stoul(second));
  EXPECT_EQ(run({"export", "--sort", "size"}).exitCode, 64);
}

TEST_F(ExportTest, WritesJsonThatApplyReadsToo) {
  applyText(
      "set: web\ntasks:\n  a: {plugin: /bin/true, every: 5m, arguments: [\"x\\u001b\"]}\n"
      "  b: {plugin: /bin/true, every: 1h, retries: 3, parameters: \"it's\"}\n");
  const std::string text = exported({"--json", "--set", "web"});
  const Json::Value json = parsed(text);
  EXPECT_EQ(json["set"].asString(), "web");
  EXPECT_EQ(json["tasks"]["a"]["arguments"][0].asString(), "x\x1b");
  EXPECT_EQ(json["tasks"]["b"]["retries"].asInt(), 3);
  EXPECT_EQ(json["tasks"]["b"]["parameters"].asString(), "it's");
  const auto before = definitions();
  removeAllTasks();
  applyText(text);
  EXPECT_EQ(definitions(), before);
  removeAllTasks();
  EXPECT_TRUE(parsed(exported({"--json"}))["tasks"].empty());
}

TEST_F(ExportTest, WritesTheSameAgainWhateverTheIdsAre) {
  applyText("tasks:\n  z: {plugin: /bin/true, every: 5m}\n  B: {plugin: /bin/true, every: 5m}\n");
  runAsAdmin({"add", "/bin/true", "--every", "5m"});
  const std::string first = exported();
  EXPECT_LT(first.find("  B:"), first.find("  task-3:"));
  EXPECT_LT(first.find("  task-3:"), first.find("  z:"));
  removeAllTasks();
  applyText(first);
  EXPECT_EQ(exported(), first);
}

TEST_F(ExportTest, LeavesOutWhatTheDaemonDoesNotRun) {
  database.insertTask(quietTask(1));
  database.insertTask(quietTask(2));
  TaskRow other = quietTask(3);
  other.pluginType = "other";
  database.insertTask(other);
  ASSERT_EQ(runAsAdmin({"delete", "1", "--yes"}).exitCode, 0);
  const std::string text = exported();
  EXPECT_THAT(text, StartsWith("tasks:\n  task-2:\n"));
  EXPECT_THAT(text, Not(HasSubstr("task-1:")));
  EXPECT_THAT(text, Not(HasSubstr("task-3:")));
}

TEST_F(ExportTest, WarnsOfATaskThatCannotBeDeclared) {
  TaskRow row = quietTask(1);
  row.path = "relative";
  database.insertTask(row);
  const std::string warning =
      "koductl: warning: task 1 is left out: the path of its plugin is not absolute\n";
  const CtlResult result = run({"export"});
  EXPECT_EQ(result.exitCode, 65);
  EXPECT_EQ(result.out, "tasks: {}\n");
  EXPECT_EQ(result.err, warning + "koductl: the export lacks 1 task; --partial accepts that\n");
  const CtlResult partial = run({"export", "--partial"});
  EXPECT_EQ(partial.exitCode, 0);
  EXPECT_EQ(partial.out, result.out);
  EXPECT_EQ(partial.err, warning);
}

TEST_F(ExportTest, SaysWhyANamedTaskIsMissing) {
  for (const int id : {1, 2, 3}) {
    TaskRow row = quietTask(id);
    row.pluginType = id == 2 ? "other" : "cron";
    database.insertTask(row);
  }
  ASSERT_EQ(runAsAdmin({"delete", "1", "--yes"}).exitCode, 0);
  const CtlResult result = run({"export", "1", "2", "3", "--json"});
  EXPECT_EQ(result.exitCode, 65);
  EXPECT_EQ(parsed(result.out)["tasks"].size(), 1U) << "the document is complete";
  EXPECT_EQ(result.err,
            "koductl: warning: task 1 is left out: it is being deleted\n"
            "koductl: warning: task 2 is left out: its plugin is of type 'other', which the daemon "
            "does not run\n"
            "koductl: the export lacks 2 tasks; --partial accepts that\n");
}

TEST_F(ExportTest, PrintsNoStackOfWarnings) {
  database.query(
      "INSERT INTO kodu_plugins (plugin_name, plugin_path) VALUES ('p', 'relative');"
      "INSERT INTO kodu_cron_plugin (cron_plugin_id, cron_interval, cron_log_file)"
      " SELECT 1, '1 hour', '$SERVICEID_$DATE.txt' FROM generate_series(1, 30)");
  const std::string err = run({"export"}).err;
  EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 11);
  EXPECT_THAT(err, HasSubstr("the export lacks 30 tasks"));
}

TEST_F(ExportTest, EndsWith74WhenItsOutputCannotBeWritten) {
  database.insertTask(quietTask(1));
  const std::string line =
      "'" + program() + "' -f " + daemon.mainConfig() + " export >/dev/full 2>" + errPath();
  // NOLINTNEXTLINE(cert-env33-c,concurrency-mt-unsafe)
  EXPECT_EQ(exitStatusOf(std::system(line.c_str())), 74);
  EXPECT_THAT(readFile(errPath()), HasSubstr("cannot write to standard output"));
}

TEST_F(ExportTest, WritesManyTasksOneByOne) {
  database.query(
      "INSERT INTO kodu_plugins (plugin_name, plugin_path) VALUES ('p', '/p');"
      "INSERT INTO kodu_cron_plugin (cron_plugin_id, cron_interval, cron_log_file)"
      " SELECT 1, '1 hour', '$SERVICEID_$DATE.txt' FROM generate_series(1, 3500)");
  const Json::Value json = parsed(exported({"--json"}));
  EXPECT_EQ(json["tasks"].size(), 3500U);
  EXPECT_TRUE(json["tasks"].isMember("task-3500"));
}

TEST_F(ExportTest, IsReadByApplyThroughAPipe) {
  applyText("set: web\ntasks: {a: {plugin: /bin/true, every: 5m}}\n");
  database.query("UPDATE kodu_cron_plugin SET cron_interval = '7 minutes'");
  const std::string koductl = "'" + program() + "' -f " + daemon.mainConfig();
  const std::string line = koductl + " export --set web | sed 's/7m/9m/' | PGPASSWORD=secret " +
                           koductl + " --user " + admin() + " apply - >" + outPath() + " 2>&1";
  // NOLINTNEXTLINE(cert-env33-c,concurrency-mt-unsafe)
  EXPECT_EQ(exitStatusOf(std::system(line.c_str())), 0) << readFile(outPath());
  EXPECT_THAT(readFile(outPath()), StartsWith("~ a  task 1 (true)\n    every        7m -> 9m\n"));
}

TEST_F(ExportTest, EndsQuietlyWhenItsReaderHasSeenEnough) {
  database.query(
      "INSERT INTO kodu_plugins (plugin_name, plugin_path) VALUES ('p', '/p');"
      "INSERT INTO kodu_cron_plugin (cron_plugin_id, cron_interval, cron_log_file)"
      " SELECT 1, '1 hour', '$SERVICEID_$DATE.txt' FROM generate_series(1, 3500)");
  const std::string line = "'" + program() + "' -f " + daemon.mainConfig() + " export 2>" +
                           errPath() + " | head -1 >" + outPath();
  // NOLINTNEXTLINE(cert-env33-c,concurrency-mt-unsafe)
  EXPECT_EQ(exitStatusOf(std::system(line.c_str())), 0);
  EXPECT_EQ(readFile(outPath()), "tasks:\n");
  EXPECT_EQ(readFile(errPath()), "");
}

TEST_F(ExportTest, ShowsNoTextThatCouldCommandATerminal) {
  TaskRow row = quietTask(1);
  row.name = "a\x1b[31m\xc2\x9b\xe2\x80\xae\r\n";
  row.parameter = "\x07";
  database.insertTask(row);
  const std::string shown = runOnTerminal({"export"});
  EXPECT_THAT(shown, HasSubstr("name: \"a\\u001b[31m\\u009b\\u202e\\u000d\\n\"\r\n"));
  EXPECT_THAT(shown, HasSubstr("arguments: [\"\\u0007\"]"));
  EXPECT_EQ(shown.find('\x1b'), std::string::npos);
}

TEST_F(ExportTest, WritesParametersThatNoListOfArgumentsMeans) {
  for (const char* parameter : {"\"open", "a  b", " a", "it's", "a\"b c\"d", "\"\"", "a "}) {
    removeAllTasks();
    TaskRow row = quietTask(1);
    row.parameter = parameter;
    database.insertTask(row);
    const std::string text = exported();
    EXPECT_THAT(text, HasSubstr("    parameters: \"")) << parameter;
    EXPECT_THAT(text, Not(HasSubstr("arguments")));
    removeAllTasks();
    applyText(text);
    EXPECT_EQ(database.value("SELECT cron_parameter FROM kodu_cron_plugin"), parameter);
  }
}

TEST_F(ExportTest, KeepsATimeThatIsFarAhead) {
  applyText("tasks: {a: {plugin: /bin/true, every: 5m, first: 2034-05-06 07:08:09}}\n");
  EXPECT_THAT(exported(), HasSubstr("    first: 2034-05-06 07:08:09\n"));
  EXPECT_EQ(database.task(1, "cron_next_exec"), "2034-05-06 07:08:09");
}

TEST_F(ExportTest, WritesARunInProgressWithTheRhythmThatFollows) {
  TaskRow row = quietTask(1);
  row.interval = "1 hour";
  row.nextExec = "'2020-01-01 00:10:00'";
  database.insertTask(row);
  setStatus(1, "PROCESS");
  EXPECT_THAT(exported(), HasSubstr("    first: 1970-01-01 00:10:00\n"));
  database.query("SELECT kodu_task_set(1, next_run => date_trunc('minute', now()) + '30 minutes')");
  EXPECT_THAT(exported(), HasSubstr("    first: " +
                                    database.value("SELECT to_char(to_timestamp(extract(epoch FROM "
                                                   "due_after_run)::bigint % 3600) AT TIME ZONE "
                                                   "'UTC', 'YYYY-MM-DD HH24:MI:SS')"
                                                   " FROM kodu_task_state") +
                                    "\n"));
}

TEST_F(ExportTest, WorksWithoutTheFunctions) {
  database.insertTask(quietTask(1));
  database.query("DROP FUNCTION kodu_task_define, kodu_key_of");
  EXPECT_THAT(exported(), StartsWith("tasks:\n  task-1:\n"));
}

/// Draws tasks that the database accepts, with unusual texts.
class HostileTasks {
 public:
  explicit HostileTasks(unsigned seed) : engine(seed) {}

  int below(int count) { return std::uniform_int_distribution<int>(0, count - 1)(engine); }
  bool isTrue() { return below(2) == 0; }

  std::string text(int longest) {
    static const std::vector<std::string> parts = {"a",
                                                   " ",
                                                   "\"",
                                                   "'",
                                                   "\\",
                                                   "\n",
                                                   "\t",
                                                   "\r",
                                                   "\x01",
                                                   ":",
                                                   "#",
                                                   "- ",
                                                   "? ",
                                                   "{",
                                                   "[",
                                                   "&a",
                                                   "*a",
                                                   "!",
                                                   "|",
                                                   ">",
                                                   "%",
                                                   "@",
                                                   "`",
                                                   "no",
                                                   "true",
                                                   "null",
                                                   "~",
                                                   "07",
                                                   "1e3",
                                                   "$1",
                                                   "--",
                                                   "---",
                                                   "\xc3\xa9",
                                                   "...",
                                                   "\x7f",
                                                   "\x1b[31m",
                                                   ": ",
                                                   " #",
                                                   "\\u0",
                                                   ",",
                                                   "=",
                                                   "\xc2\x9b",
                                                   "x",
                                                   "\xe2\x80\xae",
                                                   "\xc2\x85",
                                                   "\x04",
                                                   "<<",
                                                   "\xe2\x80\xa8",
                                                   "\xef\xbb\xbf",
                                                   "\xf0\x9f\x98\x80",
                                                   "\\n",
                                                   "\"\"",
                                                   "''"};
    std::string result;
    for (int i = below(longest); i >= 0; --i) {
      result += parts[static_cast<std::size_t>(below(static_cast<int>(parts.size())))];
    }
    return result;
  }

  /// A call of kodu_task_add.
  std::string addition(int number) {
    static const std::vector<std::string> intervals = {
        "1 second", "59 seconds",      "90 seconds", "1 hour",   "36 hours",
        "1 day",    "7 days 1 second", "366 days",   "24:00:00", "86399 seconds"};
    static const std::vector<std::string> retryIntervals = {"2 seconds", "2.5 seconds", "1 day",
                                                            "366 days",  "120 seconds", "00:01:30"};
    const std::string path = "/" + text(6) + "/p" + (isTrue() ? text(4) : "");
    const bool isGuarded = below(4) == 0 && path.find_first_of("\"'") == std::string::npos;
    std::string call = "kodu_task_add(plugin => " + sqlLiteral(path) + ", every => '" +
                       pick(intervals) + "', file_name => " +
                       sqlLiteral(std::to_string(number) + (isTrue() ? "_$DATE.txt" : fileName()));
    call += isTrue() ? ", name => " + sqlLiteral(text(8)) : "";
    call += isTrue() ? ", parameters => " + sqlLiteral(text(40)) : "";
    call += isTrue() ? ", retries => " + std::to_string(below(4)) : "";
    call += isTrue() ? ", retry_after => '" + pick(retryIntervals) + "'" : "";
    call += isTrue() ? ", key => 'key." + std::to_string(below(1000000)) + "/" +
                           std::to_string(number) + "'"
                     : "";
    call += isTrue()
                ? ", first_run => '2034-01-01 00:00:00'::timestamptz - interval '1 second' * " +
                      std::to_string(below(1000000))
                : ", first_run => '2000-01-01'::timestamptz + interval '1 second' * " +
                      std::to_string(below(1000000));
    call += isGuarded ? ", timeout => '" + std::to_string(1 + below(86400)) + " s'" : "";
    return call + ")";
  }

 private:
  const std::string& pick(const std::vector<std::string>& choices) {
    return choices[static_cast<std::size_t>(below(static_cast<int>(choices.size())))];
  }
  std::string fileName() {
    std::string name = "$DATE";
    for (const char c : text(10)) {
      name += static_cast<unsigned char>(c) < 0x20 || c == '/' || c == '.' || c == 0x7f ? '_' : c;
    }
    // The table refuses the controls of two bytes.
    for (std::size_t at = 0; (at = name.find("\xc2\x9b")) != std::string::npos ||
                             (at = name.find("\xc2\x85")) != std::string::npos;) {
      name.erase(at, 2);
    }
    return name;
  }

  std::mt19937 engine;
};

TEST_F(ExportTest, MakesEqualTasksInAnEmptyDatabase) {
  constexpr int kTasks = 300;
  for (const unsigned seed : {1U, 2U, 3U}) {
    removeAllTasks();
    HostileTasks tasks(seed);
    for (int number = 1; number <= kTasks; ++number) {
      const std::string id = database.value("SELECT " + tasks.addition(number));
      if (tasks.below(5) == 0) {
        database.query("SELECT kodu_task_pause(" + id +
                       (tasks.isTrue() ? ")" : ", " + sqlLiteral(tasks.text(20)) + ")"));
      }
    }
    const auto before = definitions();
    const std::string text = exported();
    EXPECT_THAT(runAsAdmin({"apply", "--dry-run", writeExported(text)}).out,
                HasSubstr(", 300 unchanged\n"))
        << seed;
    removeAllTasks();
    applyText(text);
    const auto after = definitions();
    ASSERT_EQ(after.size(), before.size()) << seed;
    for (std::size_t row = 0; row < after.size(); ++row) {
      ASSERT_EQ(after[row], before[row]) << seed;
    }
    EXPECT_EQ(exported(), text) << seed;
  }
}

}  // namespace
