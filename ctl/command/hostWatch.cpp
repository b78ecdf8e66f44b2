#include "ctl/command/hostWatch.h"

#include <fmt/format.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/session.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/text.h"

namespace {

constexpr const char* kWatch =
    "SELECT dead, target, tasks FROM kodu_host_watch(make_interval(secs => $1::integer), $2)";
constexpr const char* kPause =
    "SELECT ceil(1000 * kodu_host_watch_pause(make_interval(secs => $1::integer)))::bigint AS "
    "milliseconds";
constexpr const char* kMayWatch = R"(
SELECT COALESCE(has_function_privilege(oid, 'EXECUTE'), FALSE) AS allowed, current_user AS role
FROM (SELECT to_regprocedure('public.kodu_host_watch(interval, boolean)')::oid AS oid) AS watch)";

// The host's daemon works, and has done so for a while: one that keeps failing gets nothing.
constexpr const char* kMayFetch = R"(
SELECT host FROM kodu_host_status
WHERE host = current_user AND lent > 0 AND listens AND instead IS NULL
  AND (SELECT max(began) FROM kodu_host_sessions() AS session WHERE session.host = current_user)
      < now() - interval '30 seconds')";

constexpr int kCallsBetweenFetches = 10;  // to count what is lent takes longer than a call
constexpr int kShortestBreak = 1000, kLongestBreak = 8000;  // milliseconds between two connections

volatile std::sig_atomic_t isStopping = 0;

/// The call in progress ends first; a second signal does not wait for it.
void stop(int) {
  if (isStopping != 0) {
    _exit(kDone);
  }
  isStopping = 1;
}

/// Waits for this time or until the signal.
void pause(int milliseconds) {
  if (isStopping == 0) {
    poll(nullptr, 0, milliseconds);
  }
}

void requireWatch(Session& session) {
  const Rows answer = session.query(kMayWatch);
  if (!answer.isTrue(0, "allowed")) {
    throw Failure(
        kRefused,
        fmt::format("the database has no hosts that role {} may watch: load sql/hosts.sql "
                    "as the owner of the tables, or connect as the role of a daemon",
                    answer.text(0, "role")));
  }
}

/// "kodu_b (300) and kodu_c (300)", or the name alone of one.
std::string targetsText(const std::map<std::string, long>& tasksOf) {
  std::string text;
  std::size_t place = 0;
  for (const auto& [host, tasks] : tasksOf) {
    text += place == 0 ? "" : place + 1 == tasksOf.size() ? " and " : ", ";
    text += tasksOf.size() == 1 ? host : fmt::format("{} ({})", host, grouped(tasks));
    ++place;
  }
  return text;
}

/// One line for each host that was taken over.
void report(const Rows& rows) {
  std::map<std::string, std::map<std::string, long>> takeovers;
  for (int row = 0; row < rows.count(); ++row) {
    takeovers[rows.text(row, "dead")][rows.text(row, "target")] = rows.number(row, "tasks");
  }
  for (const auto& [dead, tasksOf] : takeovers) {
    long tasks = 0;
    for (const auto& target : tasksOf) {
      tasks += target.second;
    }
    printError("koductl: the host {} is silent: {} taken over by {}\n", dead,
               counted(tasks, "task"), targetsText(tasksOf));
  }
}

/// A koductl of its own that gives the host back what it has lent: that takes longer than the watch
/// may pause. One at a time.
class Fetch {
 public:
  explicit Fetch(const Options& given) : options(given) {}

  bool isRunning() {
    if (child > 0 && waitpid(child, nullptr, WNOHANG) == child) {
      child = 0;
    }
    return child > 0;
  }

  void start(const std::string& host) {
    std::vector<std::string> words = {"koductl", "-f", options.configFile};
    if (!options.user.empty()) {
      words.insert(words.end(), {"--user", options.user});
    }
    words.insert(words.end(), {"host", "return", host});
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words) {
      arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    if (posix_spawn(&child, "/proc/self/exe", nullptr, nullptr, arguments.data(), environ) != 0) {
      child = 0;
    }
  }

 private:
  const Options& options;
  pid_t child = 0;
};

/// The service: one session, and another one when it is lost.
class Watch {
 public:
  explicit Watch(Options given) : options(std::move(given)) {
    options.applicationName = "kodu_watch";
    options.connectTimeout = 5;
  }

  void run() {
    while (isStopping == 0) {
      try {
        call();
      } catch (const Failure& e) {
        if (isFirst && e.exitCode != kNoDatabase) {
          throw;
        }
        endSession(e.what());
      }
    }
  }

 private:
  void call() {
    if (!session) {
      connect();
    }
    const std::string seconds = std::to_string(options.deadAfter);
    const Rows takeovers = session->query(kWatch, {seconds, options.isSpread ? "true" : "false"});
    noteSuccess();
    report(takeovers);
    fetch();
    pause(static_cast<int>(session->query(kPause, {seconds}).number(0, "milliseconds")));
  }

  void fetch() {
    if (!options.isReturning || ++calls % kCallsBetweenFetches != 0 || fetcher.isRunning()) {
      return;
    }
    const Rows lender = session->query(kMayFetch);
    if (lender.count() > 0) {
      fetcher.start(lender.text(0, "host"));
    }
  }

  void connect() {
    session.emplace(options, SchemaRule::kAnyVersion);
    requireWatch(*session);
    isFirst = false;
  }

  void noteSuccess() {
    if (!isWatching) {
      printError("koductl: watching the hosts\n");
    }
    isWatching = true;
    problem.clear();
    breakTime = kShortestBreak;
  }

  /// A problem is said once, however often it recurs.
  void endSession(const std::string& reason) {
    session.reset();
    isWatching = false;
    if (reason != problem) {
      printError("koductl: the hosts are not watched: {}\n", reason);
      problem = reason;
    }
    pause(breakTime);
    breakTime = std::min(2 * breakTime, kLongestBreak);
  }

  Options options;
  Fetch fetcher{options};
  int calls = 0;
  std::optional<Session> session;
  bool isFirst = true;  // no session has shown yet that the watch is possible
  bool isWatching = false;
  std::string problem;
  int breakTime = kShortestBreak;
};

}  // namespace

int watchHosts(const Options& options) {
  for (const int signal : {SIGTERM, SIGINT}) {
    struct sigaction action {};
    action.sa_handler = stop;
    sigaction(signal, &action, nullptr);
  }
  std::signal(SIGPIPE, SIG_IGN);  // a journal that is gone is no reason to end
  Watch(options).run();
  return kDone;
}
