// koductl health: whether the daemon works, in the convention of monitoring plugins: one line, with
// performance data behind "|"; exit status 0 OK, 1 WARNING, 2 CRITICAL, 3 UNKNOWN.

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <csignal>
#include <optional>
#include <string>

#include "ctl/command/commands.h"
#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/session.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/printable.h"
#include "ctl/terminal/terminal.h"
#include "ctl/terminal/text.h"

namespace {

enum State { kOk = 0, kWarning = 1, kCritical = 2, kUnknown = 3 };
constexpr std::array<const char*, 4> kWords = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};

/// In seconds, except the number of failures.
struct Thresholds {
  long warnOverdue = 0, criticalOverdue = 0, warnProcess = 0, timeout = 0;
  std::optional<long> warnFailures;
};

/// What the database says; ages in seconds.
struct Figures {
  long tasks = 0, overdue = 0, oldest = 0, stuck = 0, longest = 0, failures = 0, sessions = 0,
       daemons = 0;
  std::optional<long> unwritten;  // rows of the ledger; nothing without one
  long unpruned = 0;              // since the ledger was pruned, or switched on
  long calendars = 0;             // tasks whose calendar sets no time
  long windows = 0;               // maintenance windows whose calendar sets none
};

constexpr long kDay = 86400;

// The schema's views define late, running and daemon.
constexpr const char* kFigures = R"(
SELECT count(*) AS tasks,
       count(*) FILTER (WHERE late_seconds > $1::bigint) AS overdue,
       coalesce(max(late_seconds), 0) AS oldest,
       count(*) FILTER (WHERE running AND due_seconds > $2::bigint) AS stuck,
       coalesce(max(due_seconds) FILTER (WHERE running), 0) AS longest,
       (SELECT count(*) FROM kodu_cron_error
        WHERE cron_date > now() AT TIME ZONE 'UTC' - interval '1 hour') AS failures,
       (SELECT sessions FROM kodu_daemon_state) AS sessions,
       (SELECT daemons FROM kodu_daemon_state) AS daemons
FROM kodu_task_state WHERE plugin_type = 'cron' AND NOT deleting)";

constexpr const char* kLedger = R"(
SELECT kodu_ledger_unwritten() AS unwritten,
       CASE WHEN is_on THEN floor(EXTRACT(EPOCH FROM now() AT TIME ZONE 'UTC'
                                                     - greatest(pruned_at, switched_on)))
            ELSE 0 END::bigint AS unpruned
FROM kodu_ledger_state)";

/// A message in one line without the sign that begins the performance data.
std::string lineOf(const std::string& message) {
  std::string line = oneLine(message);
  std::replace(line.begin(), line.end(), '|', ' ');
  return line;
}

/// A whole number, as the name of the option says.
long numberOf(const char* option, const std::string& text) {
  long number = -1;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || number < 0 ||
      number > 999999999) {
    throw Failure(kWrongUsage, fmt::format("{} takes a whole number, not '{}'", option, text));
  }
  return number;
}

Thresholds thresholdsOf(const Options& options) {
  Thresholds limits;
  limits.warnOverdue = numberOf("-w", options.warnOverdue);
  limits.criticalOverdue = numberOf("-c", options.criticalOverdue);
  limits.warnProcess = numberOf("-p", options.warnProcess);
  limits.timeout = std::max(1L, numberOf("-t", options.answerTimeout));
  if (options.warnFailures) {
    limits.warnFailures = numberOf("-e", *options.warnFailures);
  }
  return limits;
}

Figures readFigures(const Options& options, const Thresholds& limits) {
  Options own = options;
  own.applicationName = "kodu_healthcheck";
  constexpr long kLongest = 2147483;  // the server counts milliseconds
  own.connectTimeout = static_cast<int>(std::min(limits.timeout, kLongest));
  own.statementTimeout = *own.connectTimeout;
  own.lockTimeout = own.statementTimeout;
  Session session(own, SchemaRule::kAnyVersion);
  session.makeReadOnly();
  const Rows row = session.query(
      kFigures, {std::to_string(limits.warnOverdue), std::to_string(limits.warnProcess)});
  Figures found{row.number(0, "tasks"),    row.number(0, "overdue"), row.number(0, "oldest"),
                row.number(0, "stuck"),    row.number(0, "longest"), row.number(0, "failures"),
                row.number(0, "sessions"), row.number(0, "daemons"), std::nullopt};
  if (session.query("SELECT to_regclass('kodu_ledger_state') IS NOT NULL AS is_there")
          .isTrue(0, "is_there")) {
    const Rows ledger = session.query(kLedger);
    found.unwritten = ledger.number(0, "unwritten");
    found.unpruned = ledger.number(0, "unpruned");
  }
  if (session.query("SELECT to_regclass('kodu_calendar_fault') IS NOT NULL AS is_there")
          .isTrue(0, "is_there")) {
    found.calendars =
        session.query("SELECT count(*) AS faults FROM kodu_calendar_fault").number(0, "faults");
  }
  if (session.query("SELECT to_regclass('kodu_window_fault') IS NOT NULL AS is_there")
          .isTrue(0, "is_there")) {
    found.windows =
        session.query("SELECT count(*) AS faults FROM kodu_window_fault").number(0, "faults");
  }
  return found;
}

/// The state with the problems that led to it.
class Judgement {
 public:
  void raise(State least, const std::string& problem) {
    state = std::max(state, least);
    problems += (problems.empty() ? "" : ", ") + problem;
  }

  State state = kOk;
  std::string problems;
};

Judgement judgementOf(const Figures& found, const Thresholds& limits) {
  Judgement judgement;
  if (found.stuck > 0) {
    judgement.raise(kWarning, fmt::format("{} in PROCESS for more than {} s (longest {} s)",
                                          found.stuck, limits.warnProcess, found.longest));
  }
  if (limits.warnFailures && found.failures > *limits.warnFailures) {
    judgement.raise(kWarning, fmt::format("{} failed runs within the last hour", found.failures));
  }
  if (found.daemons > 1) {
    judgement.raise(kWarning,
                    fmt::format("{} daemons are connected: only one may run", found.daemons));
  }
  if (found.oldest > limits.criticalOverdue || found.overdue > 0) {
    judgement.raise(found.oldest > limits.criticalOverdue ? kCritical : kWarning,
                    fmt::format("{} overdue (oldest {} s)", found.overdue, found.oldest));
  }
  if (found.unwritten.value_or(0) > 0) {
    judgement.raise(kWarning,
                    fmt::format("{} rows of the ledger could not be written", *found.unwritten));
  }
  if (found.unpruned > kDay) {
    judgement.raise(kWarning, fmt::format("the ledger was last pruned {} s ago: see ops/ledger",
                                          found.unpruned));
  }
  if (found.calendars > 0) {
    judgement.raise(kWarning, fmt::format("{} with a calendar that sets no time: see koductl check",
                                          counted(found.calendars, "task")));
  }
  if (found.windows > 0) {
    judgement.raise(kWarning, fmt::format("{} with a calendar that sets no time: see koductl check",
                                          counted(found.windows, "maintenance window")));
  }
  if (found.sessions == 0) {
    judgement.raise(kCritical, "no session of the daemon");
  }
  return judgement;
}

std::string performanceData(const Figures& found, const Thresholds& limits) {
  return fmt::format(
      "tasks={} overdue={} oldest_overdue={}s;{};{};0 in_process_too_long={} "
      "longest_in_process={}s;{};;0 failures_last_hour={};{};;0 sessions={}{}",
      found.tasks, found.overdue, found.oldest, limits.warnOverdue, limits.criticalOverdue,
      found.stuck, found.longest, limits.warnProcess, found.failures,
      limits.warnFailures ? std::to_string(*limits.warnFailures) : "", found.sessions,
      found.unwritten ? fmt::format(" ledger_unwritten={};0;;0", *found.unwritten) : "");
}

Json::Value toJson(const Figures& found, const Judgement& judgement) {
  Json::Value json;
  json["state"] = kWords.at(judgement.state);
  json["problems"] = judgement.problems;
  json["tasks"] = Json::Int64{found.tasks};
  json["overdue"] = Json::Int64{found.overdue};
  json["oldest_overdue"] = Json::Int64{found.oldest};
  json["in_process_too_long"] = Json::Int64{found.stuck};
  json["longest_in_process"] = Json::Int64{found.longest};
  json["failures_last_hour"] = Json::Int64{found.failures};
  json["sessions"] = Json::Int64{found.sessions};
  json["daemons"] = Json::Int64{found.daemons};
  json["ledger_unwritten"] = jsonNumber(found.unwritten);
  json["calendar_faults"] = Json::Int64{found.calendars};
  json["window_faults"] = Json::Int64{found.windows};
  return json;
}

int report(const Options& options, const Figures& found, const Thresholds& limits) {
  const Judgement judgement = judgementOf(found, limits);
  if (options.asJson) {
    printJson(toJson(found, judgement));
  } else {
    print("KODUCRON {} - {} tasks, {} | {}\n", kWords.at(judgement.state), found.tasks,
          judgement.problems.empty() ? "none overdue" : judgement.problems,
          performanceData(found, limits));
  }
  return judgement.state;
}

/// Without figures: only the state and the reason.
std::string failureText(const Options& options, State state, const std::string& reason) {
  if (!options.asJson) {
    return fmt::format("KODUCRON {} - {}\n", kWords.at(state), lineOf(reason));
  }
  Json::Value json;
  json["state"] = kWords.at(state);
  json["problems"] = reason;
  return printedJson(json) + "\n";
}

int reportFailure(const Options& options, State state, const std::string& reason) {
  print("{}", Styled(failureText(options, state, reason)));
  return state;
}

std::string lateAnswer;  // written before the signal can come

/// A monitoring system wants an answer in time, whatever hangs: the name service, the server in the
/// middle of its own answer, a file system.
void answerInTime(const Options& options, const Thresholds& limits) {
  lateAnswer = failureText(options, kCritical,
                           fmt::format("the database does not answer within {} s", limits.timeout));
  std::signal(SIGALRM, [](int) {
    [[maybe_unused]] const auto written =
        write(STDOUT_FILENO, lateAnswer.data(), lateAnswer.size());
    _exit(kCritical);
  });
  // The time of a connection, of an answer, and of finding out who holds a lock.
  alarm(static_cast<unsigned>(2 * limits.timeout + 5));
}

/// Notices of the server would stand before the line: some monitoring systems join both outputs.
void silenceErrors() {
  const int nothing = open("/dev/null", O_WRONLY | O_CLOEXEC);
  dup2(nothing, STDERR_FILENO);
  close(nothing);
}

/// A file that cannot be read is no evidence about the daemon.
bool isAboutConfig(const Failure& failure) {
  return failure.exitCode == kWrongConfig || failure.exitCode == kWrongUsage ||
         (failure.exitCode == kNotPermitted && failure.sqlState.empty());
}

}  // namespace

int runHealth(const Options& options) {
  try {
    const Thresholds limits = thresholdsOf(options);
    silenceErrors();
    answerInTime(options, limits);
    const int exitCode = report(options, readFigures(options, limits), limits);
    flushOutput();
    alarm(0);
    return exitCode;
  } catch (const Failure& e) {
    alarm(0);
    return isAboutConfig(e)
               ? reportFailure(options, kUnknown, e.what())
               : reportFailure(options, kCritical,
                               fmt::format("the database does not answer within {} s: {}",
                                           options.answerTimeout, e.what()));
  }
}
