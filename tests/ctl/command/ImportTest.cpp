#include <fmt/format.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "tests/ctl/CtlTest.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

/// koductl import, and apply of what it wrote.
class ImportTest : public CtlTest {
 protected:
  void SetUp() override {
    CtlTest::SetUp();
    database.query(readFile(projectFile("sql/calendar.sql")));
  }

  std::string path(const std::string& name) const { return daemon.directory / name; }

  CtlResult import(const std::string& format, const std::string& content,
                   const std::vector<std::string>& options = {}) const {
    writeFile(path("jobs"), content);
    std::vector<std::string> all = {"import", format, path("jobs")};
    all.insert(all.end(), options.begin(), options.end());
    return run(all);
  }
  /// Applies what an import has written; `options` of apply.
  CtlResult apply(const CtlResult& imported, std::vector<std::string> options = {}) {
    EXPECT_EQ(imported.exitCode, 0) << imported.err;
    writeFile(path("tasks.yaml"), imported.out);
    options.insert(options.begin(), {"apply", path("tasks.yaml")});
    CtlResult result = runAsAdmin(options);
    EXPECT_EQ(result.exitCode, 0) << result.err << imported.out;
    return result;
  }
};

TEST_F(ImportTest, WritesWhatApplyReads) {
  const CtlResult imported =
      import("crontab", "FOO='a b'\n*/5 * * * * /bin/echo 'x y' \\%%in\n@monthly /bin/b\n");
  EXPECT_THAT(apply(imported, {"--dry-run"}).out, HasSubstr("2 tasks to be added"));
  EXPECT_THAT(apply(imported).out, HasSubstr("2 tasks added"));
  EXPECT_EQ(apply(imported).out, "0 tasks added, 0 changed, 0 deleted, 2 unchanged\n");
  EXPECT_EQ(database.value("SELECT string_agg(cron_calendar, ',' ORDER BY cron_id)"
                           " FROM kodu_cron_plugin"),
            "*/5 * * * *,@monthly");
}

TEST_F(ImportTest, ChangesTheSameTasksInASecondImport) {
  apply(import("crontab", "0 1 * * * /bin/a\n0 2 * * * /bin/b\n", {"--set", "s"}));
  const std::string out =
      apply(import("crontab", "A=1\n0 3 * * * /bin/c\n0 4 * * * /bin/b\n", {"--set", "s"}),
            {"--prune", "--yes"})
          .out;
  EXPECT_THAT(out, AllOf(HasSubstr("~ s/b-"), HasSubstr("0 2 * * * -> 0 4 * * *")));
  EXPECT_THAT(out, HasSubstr("1 task added, 1 changed, 1 deleted, 0 unchanged\n"));
}

TEST_F(ImportTest, WritesJsonToo) {
  const CtlResult imported = import("crontab", "@daily echo 'a'\n", {"--json", "--set", "s"});
  EXPECT_EQ(parsed(imported.out)["set"], "s");
  EXPECT_EQ(parsed(imported.out)["tasks"].size(), 1U);
  EXPECT_THAT(apply(imported).out, HasSubstr("1 task added"));
}

TEST_F(ImportTest, WritesNothingWhenStrictAndALineIsLeftOut) {
  const std::string content = "@daily a\n@reboot b\n";
  const CtlResult strict = import("crontab", content, {"--strict"});
  EXPECT_EQ(strict.exitCode, 65);
  EXPECT_EQ(strict.out, "");
  EXPECT_THAT(strict.err, HasSubstr("jobs:2: left out: @reboot"));
  EXPECT_THAT(strict.err, HasSubstr("koductl: 1 line cannot be translated; nothing was written"));
  EXPECT_EQ(import("crontab", content).exitCode, 0);
  EXPECT_EQ(import("crontab", "@daily a\n", {"--strict"}).exitCode, 0);
}

TEST_F(ImportTest, TakesTheZoneOfTheMachineOrTheGivenOne) {
  EXPECT_THAT(import("crontab", "@daily a\n", {"--zone", "Asia/Tokyo"}).out,
              HasSubstr("zone: Asia/Tokyo\n"));
  environment.emplace_back("TZ=Europe/Rome");
  EXPECT_THAT(import("crontab", "@daily a\n").out, HasSubstr("zone: Europe/Rome\n"));
}

TEST_F(ImportTest, ReadsTheFilesOfADirectoryThatCronReads) {
  std::filesystem::create_directory(path("cron.d"));
  writeFile(path("cron.d/a"), "@daily root /bin/a\n");
  writeFile(path("cron.d/a.dpkg-old"), "@daily root /bin/old\n");
  writeFile(path("cron.d/.placeholder"), "x\n");
  const CtlResult imported = run({"import", "crontab", path("cron.d"), path("cron.d/a")});
  EXPECT_THAT(imported.out, AllOf(HasSubstr("  a/a-"), Not(HasSubstr("old"))));
  EXPECT_THAT(imported.err, HasSubstr("not as root\n"));
  EXPECT_THAT(imported.err, HasSubstr("\n2 tasks, 0 lines left out\n"));
}

TEST_F(ImportTest, TranslatesRowsThatThisServerWrites) {
  database.query(
      "CREATE SCHEMA cron; CREATE TABLE cron.job (jobid bigint, schedule text, command text,"
      " nodename text, nodeport int, database text, username text, active boolean, jobname text);"
      "INSERT INTO cron.job VALUES"
      " (1, '0 3 $ * *', E'DELETE FROM \\x22T\\x22\\n\\tWHERE a = \\'x,\\\\ \\' ', 'localhost', "
      "5432, 'app', 'bob',"
      " true, 'nightly'), (2, '30 seconds', 'CALL p()', '', 5432, 'app', 'bob', false, NULL)");
  const std::string psql = "psql -X -d \"" + database.adminConninfo() + "\" ";
  std::vector<std::string> written;
  for (const char* options : {"--csv -c 'TABLE cron.job'", "-c 'COPY cron.job TO STDOUT'",
                              "-c 'COPY cron.job TO STDOUT (FORMAT csv, HEADER)'"}) {
    ASSERT_EQ(std::system((psql + options + " >" + path("rows")).c_str()), 0);  // NOLINT
    const CtlResult imported = run({"import", "pg_cron", path("rows")});
    EXPECT_THAT(imported.err, HasSubstr("\n2 tasks, 0 lines left out\n"));
    written.push_back(imported.out);
  }
  EXPECT_EQ(written[0], written[1]);
  EXPECT_EQ(written[0], written[2]);
  EXPECT_THAT(apply({0, written[0], ""}).out, HasSubstr("2 tasks added"));
  EXPECT_EQ(apply({0, written[0], ""}).out, "0 tasks added, 0 changed, 0 deleted, 2 unchanged\n");
}

/// One service for each command that the package monitoring-plugins-basic defines.
TEST_F(ImportTest, TranslatesTheCommandsOfThisMachinesPlugins) {
  const std::string folder = "/etc/nagios-plugins/config";
  ASSERT_TRUE(std::filesystem::exists(folder)) << "scripts/setup installs the package";
  std::string objects = "define host {\nhost_name h\naddress 192.0.2.1\n}\n";
  long commands = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    std::istringstream lines(readFile(entry.path()));
    for (std::string line; std::getline(lines, line);) {
      std::istringstream words(line);
      std::string word;
      std::string name;
      if (words >> word >> name && word == "command_name") {
        objects += fmt::format(
            "define service {{\nhost_name h\nservice_description {0}\n"
            "check_command {0}!1!2!a b!4\n}}\n",
            name);
        ++commands;
      }
    }
  }
  EXPECT_GT(commands, 20);
  writeFile(path("objects.cfg"), objects);
  const CtlResult imported = run({"import", "nagios", folder, path("objects.cfg")});
  // One of them lacks a "$".
  EXPECT_THAT(imported.err,
              HasSubstr("check_https_auth_hostname_4: the macro $HOSTNAME' -I '$ has"));
  EXPECT_THAT(imported.err,
              HasSubstr("\n" + std::to_string(--commands) + " tasks, 1 line left out\n"));
  EXPECT_THAT(imported.out, HasSubstr("plugin: /usr/lib/nagios/plugins/check_disk"));
  EXPECT_THAT(apply(imported, {"--dry-run"}).out,
              HasSubstr(std::to_string(commands) + " tasks to be added"));
}

TEST_F(ImportTest, ReadsObjectsOfAFolderAndItsFolders) {
  std::filesystem::create_directories(path("objects/hosts"));
  writeFile(path("objects/hosts/web.cfg"),
            "define host {\nuse t\nhost_name web\ncheck_period work\n}\n");
  writeFile(path("objects/commands.cfg"),
            "define command {\ncommand_name c\ncommand_line $USER1$/c 'a' \"\"\n}\n"
            "define host {\nname t\nregister 0\ncheck_command c\nmax_check_attempts 3\n}\n"
            "define timeperiod {\ntimeperiod_name work\nmonday 09:00-17:00\n}\n");
  writeFile(path("objects/old.cfg~"), "x");
  writeFile(path("resource.cfg"), "$USER1$=/opt\n");
  const CtlResult imported = run({"import", "nagios", path("objects"), path("resource.cfg")});
  EXPECT_THAT(imported.err, HasSubstr("\n1 task, 0 lines left out\n"));
  EXPECT_THAT(imported.out, HasSubstr("exec /opt/c a \\\\0047\\\\0047"));
  EXPECT_THAT(apply(imported).out, HasSubstr("1 task added"));
  EXPECT_EQ(apply(imported).out, "0 tasks added, 0 changed, 0 deleted, 1 unchanged\n");
}

TEST_F(ImportTest, SaysWhatIsWrongWithTheCall) {
  EXPECT_EQ(run({"import", "crontab"}).exitCode, 64);
  EXPECT_EQ(run({"import", "other", "/dev/null"}).exitCode, 64);
  EXPECT_EQ(run({"import", "crontab", path("none")}).exitCode, 66);
  const CtlResult set = import("crontab", "", {"--set", "two words"});
  EXPECT_EQ(set.exitCode, 64);
  EXPECT_THAT(set.err, HasSubstr("--set: the name of a set must be one word"));
}

TEST_F(ImportTest, TranslatesTheCrontabsOfThisMachinesPackages) {
  if (!std::filesystem::exists("/etc/cron.d/e2scrub_all")) {
    GTEST_SKIP() << "e2fsprogs is not installed";
  }
  const CtlResult imported = run({"import", "crontab", "/etc/cron.d"});
  EXPECT_THAT(imported.out, HasSubstr("  e2scrub_all/"));
  EXPECT_THAT(apply(imported, {"--dry-run"}).out, HasSubstr("to be added"));
}

/// Whatever is accepted here is a calendar for the database, too.
TEST_F(ImportTest, WritesOnlyCalendarsThatTheDatabaseAccepts) {
  const std::vector<std::vector<std::string>> values = {
      {"*", "*/60", "0-59/59", "00,7,59", "5-9/2,11", "*,3"},
      {"*", "*/24", "23", "0-23"},
      {"*", "*/31", "31", "1-31/30", "*/2"},
      {"*", "jan", "DEC", "1-12/12", "jan-mar", "2"},
      {"*", "0", "7", "0-7", "sun-sat", "Mon,5-7", "*/7"}};
  std::string content;
  for (std::size_t line = 0; line < 5040; line += 13) {
    std::size_t rest = line;
    for (const auto& field : values) {
      content += field[rest % field.size()] + " ";
      rest /= field.size();
    }
    content += "/bin/a " + std::to_string(line) + "\n";
  }
  const CtlResult imported = import("crontab", content);
  EXPECT_THAT(imported.err, HasSubstr("left out: there is no such date in any year\n"));
  EXPECT_THAT(apply(imported, {"--dry-run"}).out, HasSubstr(" tasks to be added"));
}

}  // namespace
