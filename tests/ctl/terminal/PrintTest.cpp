#include "ctl/terminal/print.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "common/plainText.h"
#include "tests/ctl/CtlTest.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

// An escape, a C1 control, DEL, an override of the direction, and a byte of invalid UTF-8.
const std::string kNasty = "\x1b[31m \u009b31m \x7f \u202e\u2067 \xff";
const std::string kNastyUtf8 = kNasty.substr(0, kNasty.size() - 1);

/// The codes of the unsafe characters in printed text. Newlines and tabs are safe, and so is the
/// carriage return with which a terminal ends lines.
std::string unsafeIn(std::string_view text) {
  std::string found;
  while (!text.empty()) {
    const Utf8Character first = firstUtf8Character(text);
    if (isUnsafe(first.code) && first.code != '\n' && first.code != '\t' && first.code != '\r') {
      found += fmt::format("{:x} ", static_cast<unsigned>(first.code));
    }
    text.remove_prefix(first.bytes);
  }
  return found;
}

/// How koductl prints names, outputs and messages that contain control sequences.
class PrintTest : public CtlTest {
 protected:
  void SetUp() override {
    CtlTest::SetUp();
    writeFile(daemon.logPath(), "");  // its owner counts as the daemon's user
  }

  /// A task whose name, plugin, arguments and file contain control sequences; its run has failed.
  TaskRow nastyTask() const {
    TaskRow row = quietTask(7);
    row.name = kNastyUtf8;
    row.path = writePlugin(daemon.directory / ("plugin" + kNastyUtf8),
                           R"(printf '%b' 'said \033[31m\n'; printf '%b' 'to err \033[31m\n' >&2)");
    row.parameter = R"(-m ")" + kNastyUtf8 + R"(")";
    row.logFile = "out" + kNastyUtf8 + "$DATE.txt";
    return row;
  }
  void insertNastyTask() const {
    // An earlier version of the schema accepts such a row.
    database.takeAnyRow();
    database.insertTask(nastyTask());
    setStatus(7, "FAILED");
    writeOutput("out" + kNastyUtf8 + "last.txt", kNasty + "\n");
    addFailure(7, 30, "x" + kNastyUtf8, kNasty + "\n");
  }
};

TEST_F(PrintTest, WritesNoControlCharacterToATerminal) {
  insertNastyTask();
  const std::vector<std::vector<std::string>> commands = {{"status"},
                                                          {"status", "--output"},
                                                          {"show", "7"},
                                                          {"explain", "7"},
                                                          {"check"},
                                                          {"history", "7"},
                                                          {"output", "7"},
                                                          {"output", "7", "1"},
                                                          {"test", "7"},
                                                          {"output", "7", kNasty},
                                                          {"forecast"},
                                                          {kNasty},
                                                          {"show", "7", kNasty},
                                                          {"status", "--" + kNasty},
                                                          {"status", "--user", kNastyUtf8},
                                                          {"-f", kNasty, "status"},
                                                          {"add", kNasty, "--every", kNasty}};
  for (const auto& command : commands) {
    const std::string text = runOnTerminal(command);
    EXPECT_NE(text, "");
    EXPECT_EQ(unsafeIn(text), "") << testing::PrintToString(command) << "\n" << text;
  }
}

TEST_F(PrintTest, WritesControlCharactersToAFileOnlyInPluginOutput) {
  insertNastyTask();
  for (const auto& command : std::vector<std::vector<std::string>>{
           {"status", "--output"}, {"show", "7"}, {"explain", "7"}, {"check"}, {"history", "7"}}) {
    const CtlResult result = run(command);
    EXPECT_EQ(unsafeIn(result.out + result.err), "") << testing::PrintToString(command);
  }
  EXPECT_EQ(run({"output", "7"}).out, kNasty + "\n");
  const CtlResult rerun = run({"test", "7"});
  EXPECT_THAT(rerun.out, StartsWith("said \x1b[31m\n"));
  EXPECT_EQ(rerun.err, "to err \x1b[31m\n");
}

TEST_F(PrintTest, EscapesControlCharactersInJson) {
  insertNastyTask();
  for (const auto& command : std::vector<std::vector<std::string>>{{"status"},
                                                                   {"show", "7"},
                                                                   {"explain", "7"},
                                                                   {"check"},
                                                                   {"history", "7"},
                                                                   {"output", "7"},
                                                                   {"test", "7"}}) {
    std::vector<std::string> asJson = command;
    asJson.emplace_back("--json");
    const std::string text = run(asJson).out;
    EXPECT_EQ(unsafeIn(text), "") << testing::PrintToString(command);
    parsed(text);
  }
  EXPECT_EQ(parsed(run({"show", "7", "--json"}).out)["name"].asString(), kNastyUtf8);
  EXPECT_EQ(parsed(run({"output", "7", "--json"}).out)["output"].asString(), kNastyUtf8 + " \n");
}

TEST_F(PrintTest, ShowsNoControlCharacterOfAServerMessage) {
  replaceRunNow("plpgsql",
                "BEGIN RAISE NOTICE E'noted \\x1b[31m'; RAISE EXCEPTION E'refused \\u009b31m'"
                " USING HINT = E'a hint \\x7f'; END");
  database.insertTask(quietTask(7));
  const CtlResult result = runAsAdmin({"run", "7"});
  EXPECT_EQ(result.exitCode, 65);
  EXPECT_EQ(result.err, "koductl: noted ?[31m\nkoductl: refused ?31m\nhint: a hint ?\n");
}

TEST_F(PrintTest, ShowsNoControlCharacterOfAConnectionError) {
  database.query(
      "UPDATE pg_database SET datcollversion = E'\\x1b[31m'"
      " WHERE datname = current_database()");
  const CtlResult result = run({"status"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.err, StartsWith("koductl: WARNING:  database \""));
  EXPECT_EQ(unsafeIn(result.err), "");
}

TEST_F(PrintTest, KeepsTwoSpacesAfterAColonInAMessage) {
  replaceRunNow("plpgsql", "BEGIN RAISE NOTICE 'all of this:  is the message'; END");
  database.insertTask(quietTask(7));
  EXPECT_EQ(runAsAdmin({"run", "7"}).err, "koductl: all of this:  is the message\n");
}

TEST_F(PrintTest, CutsAFirstLineBetweenCharacters) {
  database.insertTask(quietTask(7));
  setStatus(7, "OK");
  writeOutput("out_7_last.txt", "a" + std::string(400, 'x').replace(238, 3, "日"));
  EXPECT_THAT(run({"status", "--output"}).out, HasSubstr("a" + std::string(238, 'x') + "\n"));
}

/// The exit status of koductl with its outputs redirected by a shell.
class RefusedOutputTest : public PrintTest {
 protected:
  int statusOf(const std::string& arguments, const std::string& redirections) const {
    const std::string command = "timeout 20 " + program() + " -f " + daemon.mainConfig() + " " +
                                arguments + " " + redirections;
    return exitStatusOf(
        std::system(command.c_str()));  // NOLINT(cert-env33-c,concurrency-mt-unsafe)
  }
};

TEST_F(RefusedOutputTest, EndsAWatchingCommand) {
  database.insertTask(quietTask(7));
  setStatus(7, "OK");
  writeOutput("out_7_last.txt", "fine\n");
  for (const char* command : {"status --watch", "status --watch --json", "output 7 --follow"}) {
    EXPECT_EQ(statusOf(command, ">/dev/full 2>&-"), 74) << command;
  }
}

TEST_F(RefusedOutputTest, FailsTheHelp) {
  for (const char* command : {"--help", "--version", "status --help"}) {
    EXPECT_EQ(statusOf(command, ">/dev/full 2>&-"), 74) << command;
  }
}

TEST_F(RefusedOutputTest, ExitsWithItsStatusWhenErrorsCannotBePrinted) {
  for (const char* where : {"2>&-", "2>/dev/full", ">&- 2>&-"}) {
    EXPECT_EQ(statusOf("show 99", where), 66) << where;
    EXPECT_EQ(statusOf("nonsense", where), 64) << where;
  }
}

TEST_F(PrintTest, IsTheOnlyWayOut) {
  for (const auto& entry : std::filesystem::recursive_directory_iterator(projectFile("ctl"))) {
    const std::string name = entry.path().filename();
    const bool isSource = name.ends_with(".cpp") || name.ends_with(".h");
    const bool isShipped = entry.path().parent_path().filename() != "reference";
    if (!isSource || !isShipped || name.starts_with("print.")) {
      continue;
    }
    const std::string source = readFile(entry.path());
    for (const char* other :
         {"fmt::print", "std::cout", "std::cerr", "printf(", "fputs(", "fputc(", "fwrite("}) {
      EXPECT_THAT(source, Not(HasSubstr(other))) << name;
    }
  }
}

}  // namespace
