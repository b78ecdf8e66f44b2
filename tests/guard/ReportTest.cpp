#include "guard/report.h"

#include <unistd.h>

#include <array>
#include <csignal>
#include <string>

#include <gtest/gtest.h>

#include "guard/capture.h"
#include "guard/options.h"
#include "guard/watch.h"
#include "tests/support/outputOf.h"

namespace {

constexpr int kTerminated = SIGTERM;  // a status of waitpid
constexpr int kCoreDumped = SIGSEGV | 0x80;

constexpr int exited(int code) {
  return code << 8;
}

/// How a run ended, and the report about it.
struct ReportCase {
  const char* name;
  Outcome outcome;
  std::string output, errors;
  std::string report;
  int code;
};

/// The report about a run of "/p" with a limit of ten bytes and 7 seconds.
class ReportTest : public testing::Test {
 protected:
  static void fill(Capture& capture, const std::string& text) {
    ASSERT_EQ(capture.open(10), 0);
    ASSERT_EQ(write(capture.writeEnd(), text.data(), text.size()),
              static_cast<ssize_t>(text.size()));
    capture.closeWriteEnd();
    capture.drain();
  }
  void expectReport(const ReportCase& test) {
    Capture output;
    Capture errors;
    fill(output, test.output);
    fill(errors, test.errors);
    int code = -1;
    EXPECT_EQ(outputOf([&] { code = report(options, test.outcome, output, errors); }), test.report)
        << test.name;
    EXPECT_EQ(code, test.code) << test.name;
  }
  ReportTest() {
    options.timeLimitSeconds = 7;
    options.outputLimit = 10;
    options.plugin = plugin.data();
  }

  Options options;

 private:
  std::string path = "/p";
  std::array<char*, 2> plugin = {path.data(), nullptr};
};

Outcome ended(int status) {
  return {.status = status, .hasEnded = true};
}
Outcome timedOut(bool hasSurvivors = false) {
  return {.status = kTerminated,
          .hasEnded = !hasSurvivors,
          .hasTimedOut = true,
          .hasSurvivors = hasSurvivors};
}

TEST_F(ReportTest, PassesOutputAndCodeOfAPluginThatEnds) {
  for (const ReportCase& test :
       {ReportCase{"success", ended(exited(0)), "fine\n", "", "fine\n", 0},
        ReportCase{"a failure", ended(exited(2)), "bad\n", "", "bad\n", 2},
        ReportCase{"the largest code", ended(exited(255)), "x", "", "x", 255},
        ReportCase{"no newline at the end", ended(exited(0)), "a\nb", "", "a\nb", 0},
        ReportCase{"a newline alone", ended(exited(0)), "\n", "", "\n", 0},
        ReportCase{"one quote", ended(exited(0)), "'", "", "'", 0}}) {
    expectReport(test);
  }
}

TEST_F(ReportTest, AddsStandardErrorOnALineOfItsOwn) {
  for (const ReportCase& test :
       {ReportCase{"after a newline", ended(exited(0)), "a\n", "b\n", "a\nb\n", 0},
        ReportCase{"after an incomplete line", ended(exited(1)), "a", "b", "a\nb", 1},
        ReportCase{"without output", ended(exited(2)), "", "b\n", "b\n", 2},
        ReportCase{"after two quotes", ended(exited(2)), "''", "b\n", "''\nb\n", 2}}) {
    expectReport(test);
  }
}

TEST_F(ReportTest, ReportsAPluginThatPrintsNothing) {
  for (const ReportCase& test :
       {ReportCase{"success", ended(exited(0)), "", "", "/p printed nothing, exit code 0\n", 0},
        ReportCase{"a failure", ended(exited(3)), "", "", "/p printed nothing, exit code 3\n", 3},
        ReportCase{"two quotes", ended(exited(1)), "''", "", "/p printed nothing, exit code 1\n",
                   1}}) {
    expectReport(test);
  }
}

TEST_F(ReportTest, NamesTheSignalThatEndedThePlugin) {
  expectReport({"TERM", ended(kTerminated), "a", "",
                "UNKNOWN - /p was terminated by SIGTERM (signal 15)\na", 3});
  expectReport({"SEGV, with a core file", ended(kCoreDumped), "", "",
                "UNKNOWN - /p was terminated by SIGSEGV (signal 11)\n", 3});
  expectReport({"a real-time signal", ended(SIGRTMIN), "", "",
                "UNKNOWN - /p was terminated by SIGRT (signal " + std::to_string(SIGRTMIN) + ")\n",
                3});
}

TEST_F(ReportTest, ReportsTheTimeLimit) {
  expectReport({"without output", timedOut(), "", "", "UNKNOWN - timed out after 7 s\n", 3});
  expectReport({"with both", timedOut(), "a", "b", "UNKNOWN - timed out after 7 s\na\nb", 3});
}

TEST_F(ReportTest, ReportsASignalToTheGuardBeforeTheTimeLimit) {
  Outcome outcome = timedOut();
  outcome.interruptedBy = SIGINT;
  expectReport({"both", outcome, "a\n", "", "UNKNOWN - interrupted by SIGINT\na\n", 3});
}

TEST_F(ReportTest, ReturnsUnknownEvenIfAnInterruptedPluginExitsNormally) {
  Outcome outcome = ended(exited(0));
  outcome.interruptedBy = SIGTERM;
  expectReport(
      {"exit 0 on TERM", outcome, "bye\n", "", "UNKNOWN - interrupted by SIGTERM\nbye\n", 3});
  outcome = ended(exited(0));
  outcome.hasTimedOut = true;
  expectReport({"exit 0 at the limit", outcome, "", "", "UNKNOWN - timed out after 7 s\n", 3});
}

TEST_F(ReportTest, MarksOutputBeyondTheLimit) {
  const std::string rest = " dropped; -o sets the limit]\n";
  expectReport({"exactly the limit", ended(exited(0)), "123456789\n", "", "123456789\n", 0});
  expectReport({"one byte more", ended(exited(0)), "1234567890x", "",
                "1234567890\n[koduguard: output cut at 10 bytes, 1" + rest, 0});
  expectReport({"standard error does not fit", ended(exited(1)), "12345678", "abcd",
                "12345678\nab\n[koduguard: output cut at 10 bytes, 2" + rest, 1});
  expectReport({"no room for standard error", ended(exited(1)), "123456789\n", "abcd",
                "123456789\n[koduguard: output cut at 10 bytes, 4" + rest, 1});
  expectReport({"both too long", timedOut(), "1234567890xx", "abcdefghijyyy",
                "UNKNOWN - timed out after 7 s\n1234567890\n"
                "[koduguard: output cut at 10 bytes, 15" +
                    rest,
                3});
}

TEST_F(ReportTest, ReportsProcessesThatKeptTheOutputOpen) {
  Outcome outcome = ended(exited(0));
  outcome.leftProcesses = true;
  expectReport({"with output", outcome, "a", "",
                "a\n[koduguard: ended processes that kept the output open after the plugin had "
                "ended]\n",
                0});
  expectReport({"without output", outcome, "", "",
                "/p printed nothing, exit code 0\n[koduguard: ended processes that kept the output "
                "open after the plugin had ended]\n",
                0});
}

TEST_F(ReportTest, ReportsOnlySurvivorsWhenSomeProcessesCouldNotBeEnded) {
  Outcome outcome = timedOut(true);
  outcome.leftProcesses = true;
  expectReport({"survivors", outcome, "a\n", "",
                "UNKNOWN - timed out after 7 s\na\n[koduguard: some processes of the plugin could "
                "not be ended; find them with ps]\n",
                3});
}

}  // namespace
