// koductl host: shows the hosts of sql/hosts.sql, adds and removes them, and gives tasks of one to
// another.

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "ctl/command/commands.h"
#include "ctl/command/hostPlan.h"
#include "ctl/command/hostWatch.h"
#include "ctl/failure.h"
#include "ctl/files/regularFile.h"
#include "ctl/options.h"
#include "ctl/session/session.h"
#include "ctl/session/transaction.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/table.h"
#include "ctl/terminal/text.h"

namespace {

constexpr const char* kHasHosts = R"(
SELECT COALESCE(has_table_privilege(to_regclass('public.kodu_host_status'), 'SELECT'), FALSE)
       AS has_hosts)";

constexpr const char* kStatus = R"(
SELECT host, is_default, tasks, running, late_seconds, leaving, sessions, listens, silent_seconds,
       instead, lent
FROM kodu_host_status ORDER BY host)";

constexpr const char* kMayCall =
    "SELECT has_function_privilege(oid, 'EXECUTE') AS allowed, current_user AS role FROM pg_proc "
    "WHERE proname = $1 AND pronamespace = 'public'::regnamespace";

/// The longest line of a password file.
constexpr std::size_t kMostPassword = 1000;

/// How long a daemon may take to answer.
constexpr std::chrono::seconds kPatience{10};
constexpr std::chrono::milliseconds kPause{200};

void requireHosts(Session& session) {
  if (!session.query(kHasHosts).isTrue(0, "has_hosts")) {
    throw Failure(kRefused,
                  "the database has no hosts that this role may read: load sql/hosts.sql as the "
                  "owner of the tables, or connect as another role with --user");
  }
}

void requireRight(Session& session, const char* function, const char* who) {
  const Rows answer = session.query(kMayCall, {function});
  if (!answer.isTrue(0, "allowed")) {
    throw Failure(kNotPermitted,
                  fmt::format("role {} may not do this: connect as {} with --user ROLE; its "
                              "password comes from PGPASSWORD or ~/.pgpass",
                              answer.text(0, "role"), who));
  }
}

/// What an action needs: 0 to 2 names.
struct Action {
  const char* name;
  std::size_t hosts;
  const char* example;
};

constexpr std::array kActions = {Action{"list", 0, "koductl host list"},
                                 Action{"status", 0, "koductl host status"},
                                 Action{"add", 1, "koductl host add kodu_b"},
                                 Action{"remove", 1, "koductl host remove kodu_b"},
                                 Action{"takeover", 2, "koductl host takeover kodu kodu_b"},
                                 Action{"move", 2, "koductl host move kodu kodu_b"},
                                 Action{"drain", 1, "koductl host drain kodu"},
                                 Action{"return", 1, "koductl host return kodu"},
                                 Action{"balance", 0, "koductl host balance"},
                                 Action{"default", 1, "koductl host default kodu_b"},
                                 Action{"watch", 0, "koductl host watch"}};

/// A takeover by all hosts names none of them.
bool isSpread(const Options& options) {
  return options.isSpread && options.hostAction == "takeover";
}

void checkArguments(const Options& options) {
  for (const Action& action : kActions) {
    const std::size_t hosts = options.hosts.size() + (isSpread(options) ? 1 : 0);
    if (options.hostAction == action.name && hosts != action.hosts) {
      throw Failure(kWrongUsage,
                    fmt::format("host {} needs {}, as in {}", action.name,
                                counted(static_cast<long>(action.hosts), "host"), action.example));
    }
  }
  if (options.hostTasks && options.hostAction != "move") {
    throw Failure(kWrongUsage, "only host move has a number of tasks");
  }
  if (options.isSpread && options.hostAction != "takeover" && options.hostAction != "watch") {
    throw Failure(kWrongUsage, "only host takeover and host watch have --spread");
  }
  if (options.isReturning && options.hostAction != "watch") {
    throw Failure(kWrongUsage, "only host watch has --return");
  }
  if (!options.passwordFile.empty() && options.hostAction != "add") {
    throw Failure(kWrongUsage, "only host add has a password");
  }
}

/// The row of a host in kStatus.
int rowOf(const Rows& status, const std::string& host) {
  for (int row = 0; row < status.count(); ++row) {
    if (status.text(row, "host") == host) {
      return row;
    }
  }
  throw Failure(kNotFound,
                fmt::format("there is no host {}; koductl host list lists the hosts", host));
}

/// The first line of the file.
std::string passwordIn(const std::string& path) {
  std::string password = readRegularFile(path, kMostPassword);
  password.resize(std::min(password.find('\n'), password.size()));
  if (password.empty()) {
    throw Failure(kRefused, fmt::format("the first line of {} has no password", path));
  }
  return password;
}

void add(Session& session, const Options& options) {
  requireRight(session, "kodu_host_add", "a superuser or the owner of the tables");
  const std::string password = options.passwordFile.empty() ? "" : passwordIn(options.passwordFile);
  Transaction transaction(session, kEndWithoutKoductl);
  session.query("SELECT kodu_host_add($1)", {options.hosts[0]});
  if (!password.empty()) {
    session.setPassword(options.hosts[0], password);
  }
  if (!options.isDryRun) {
    transaction.commit();
  }
}

void remove(Session& session, const Options& options) {
  requireRight(session, "kodu_host_remove", "a superuser or the owner of the tables");
  Transaction transaction(session, kEndWithoutKoductl);
  session.query("SELECT kodu_host_remove($1)", {options.hosts[0]});
  if (!options.isDryRun) {
    transaction.commit();
  }
}

/// Asks the daemons of the hosts until they are known to listen. False when one is not in time.
bool awaitListeners(Session& session, const std::vector<std::string>& hosts) {
  const auto end = std::chrono::steady_clock::now() + kPatience;
  const auto listens = [&](const std::string& host) {
    return session.query("SELECT kodu_host_hear($1) AS listens", {host}).isTrue(0, "listens");
  };
  while (std::count_if(hosts.begin(), hosts.end(), listens) < static_cast<long>(hosts.size())) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    std::this_thread::sleep_for(kPause);
  }
  return true;
}

/// The hosts except one whose daemons are connected.
std::vector<std::string> connectedHosts(const Rows& status, const std::string& except) {
  std::vector<std::string> hosts;
  for (int row = 0; row < status.count(); ++row) {
    const std::string host = status.text(row, "host");
    if (host != except && status.number(row, "sessions") > 0) {
      hosts.push_back(host);
    }
  }
  return hosts;
}

/// Waits for the daemons that are to take tasks: for the one that is named, or for all.
void awaitTargets(Session& session, const Options& options, const Rows& status) {
  if (options.isSpread) {
    awaitListeners(session, connectedHosts(status, options.hosts[0]));
  } else if (!awaitListeners(session, {options.hosts[1]})) {
    throw Failure(kRefused, fmt::format("the daemon of the host {} does not answer; nothing was "
                                        "changed: start it, or name another host",
                                        options.hosts[1]));
  }
}

/// The tasks that were given away, or would be. Nothing of a takeover can be tried: it ends
/// sessions.
long takeOver(Session& session, const Options& options) {
  requireRight(session, "kodu_host_takeover", "a member of kodu_admin");
  const std::string& dead = options.hosts[0];
  const Rows status = session.query(kStatus);
  const int row = rowOf(status, dead);
  if (!options.isSpread) {
    rowOf(status, options.hosts[1]);
  }
  if (options.isDryRun) {
    return status.number(row, "tasks");
  }
  if (status.number(row, "sessions") > 0 && !options.isConfirmed) {
    throw Failure(
        kRefused,
        fmt::format("a daemon of the host {} is connected, and a takeover ends it and the "
                    "runs in progress: use koductl host move, or --yes if it hangs",
                    dead));
  }
  awaitTargets(session, options, status);
  return session
      .query("SELECT kodu_host_takeover($1, NULLIF($2, '')) AS tasks",
             {dead, options.isSpread ? "" : options.hosts[1]})
      .number(0, "tasks");
}

long move(Session& session, const Options& options) {
  requireRight(session, "kodu_host_move", "a member of kodu_admin");
  const Rows status = session.query(kStatus);
  const int row = rowOf(status, options.hosts[0]);
  rowOf(status, options.hosts[1]);
  if (options.isDryRun) {
    const long tasks = status.number(row, "tasks");
    return std::min(options.hostTasks.value_or(tasks), tasks);
  }
  return session
      .query("CALL kodu_host_move($1, $2, NULLIF($3, '')::bigint)",
             {options.hosts[0], options.hosts[1],
              options.hostTasks ? std::to_string(*options.hostTasks) : ""})
      .number(0, "moved");
}

/// What an action did, or would do.
struct Outcome {
  std::optional<long> tasks;  // how many it gave away
  std::optional<HostPlan> plan;
};

Outcome drain(Session& session, const Options& options) {
  requireRight(session, "kodu_host_drain", "a member of kodu_admin");
  const std::string& host = options.hosts[0];
  const Rows status = session.query(kStatus);
  const int row = rowOf(status, host);
  if (!options.isDryRun) {
    awaitListeners(session, connectedHosts(status, host));
    session.query("SELECT kodu_host_drain($1)", {host});
  }
  Outcome outcome{0, readPlan(session)};
  empty(*outcome.plan, static_cast<std::size_t>(row));  // both are in the order of the names
  outcome.tasks = options.isDryRun ? outcome.plan->moves() : carryOut(session, *outcome.plan, true);
  return outcome;
}

Outcome balance(Session& session, const Options& options) {
  requireRight(session, "kodu_host_drain", "a member of kodu_admin");
  Outcome outcome{0, readPlan(session)};
  evenOut(*outcome.plan);
  outcome.tasks =
      options.isDryRun ? outcome.plan->moves() : carryOut(session, *outcome.plan, false);
  return outcome;
}

/// Gives a host back what others have taken over from it, or got as it was drained.
long giveBack(Session& session, const Options& options) {
  requireRight(session, "kodu_host_lent_tasks", "the role of the host or a member of kodu_admin");
  const std::string& host = options.hosts[0];
  const Rows status = session.query(kStatus);
  const int row = rowOf(status, host);
  if (options.isDryRun) {
    return status.number(row, "lent");
  }
  if (!status.isNull(row, "instead")) {
    requireRight(session, "kodu_host_reopen", "a member of kodu_admin");
    session.query("SELECT kodu_host_reopen($1)", {host});
  }
  const Rows lent = session.query("SELECT source, tasks FROM kodu_host_lent_tasks($1)", {host});
  long moved = 0;
  for (int i = 0; i < lent.count(); ++i) {
    moved +=
        session
            .query("CALL kodu_host_move($1, $2, NULL, tasks => $3::integer[], is_lent => TRUE)",
                   {lent.text(i, "source"), host, lent.text(i, "tasks")})
            .number(0, "moved");
  }
  return moved;
}

void makeDefault(Session& session, const Options& options) {
  requireRight(session, "kodu_host_set_default", "a member of kodu_admin");
  rowOf(session.query(kStatus), options.hosts[0]);
  if (!options.isDryRun) {
    session.query("SELECT kodu_host_set_default($1)", {options.hosts[0]});
  }
}

Outcome carryOut(Session& session, const Options& options) {
  if (options.hostAction == "add") {
    add(session, options);
  } else if (options.hostAction == "remove") {
    remove(session, options);
  } else if (options.hostAction == "takeover") {
    return {takeOver(session, options), {}};
  } else if (options.hostAction == "move") {
    return {move(session, options), {}};
  } else if (options.hostAction == "drain") {
    return drain(session, options);
  } else if (options.hostAction == "balance") {
    return balance(session, options);
  } else if (options.hostAction == "return") {
    return {giveBack(session, options), {}};
  } else if (options.hostAction == "default") {
    makeDefault(session, options);
  }
  return {};
}

std::string wordOf(const Rows& status, int row) {
  if (!status.isNull(row, "instead")) {
    return "drained, new tasks go to " + status.text(row, "instead");
  }
  if (status.number(row, "sessions") == 0) {
    return "not connected";
  }
  return status.isTrue(row, "listens") ? "listens" : "connected";
}

void printTable(const Rows& status) {
  using Align = Table::Align;
  Table table({{"HOST"},
               {"TASKS", Align::kRight},
               {"RUNNING", Align::kRight},
               {"LATE", Align::kRight},
               {"LEAVING", Align::kRight},
               {"LENT", Align::kRight},
               {"DAEMON"}});
  for (int row = 0; row < status.count(); ++row) {
    const long late = status.number(row, "late_seconds");
    table.add({status.text(row, "host") + (status.isTrue(row, "is_default") ? " (default)" : ""),
               grouped(status.number(row, "tasks")), grouped(status.number(row, "running")),
               late > 2 ? durationText(late) : "-", grouped(status.number(row, "leaving")),
               grouped(status.number(row, "lent")), wordOf(status, row)});
  }
  table.print();
}

/// What the action did, in one line.
std::string doneText(const Options& options, std::optional<long> tasks) {
  const std::string& action = options.hostAction;
  const bool isDry = options.isDryRun;
  const std::string host = options.hosts.empty() ? "" : "the host " + options.hosts[0];
  if (action == "add" || action == "remove") {
    const std::string verb = action == "add" ? "add" : "remove";
    return fmt::format("{} {}", isDry ? "would " + verb : verb + (action == "add" ? "ed" : "d"),
                       host);
  }
  if (action == "default") {
    return fmt::format("new tasks {} to {}", isDry ? "would go" : "go", host);
  }
  if (action == "balance" || action == "drain") {
    return fmt::format("{} {}", isDry ? "would move" : "moved", counted(*tasks, "task"));
  }
  const std::string verb = isDry ? "would give at most" : "gave";
  if (action == "return") {
    return fmt::format("{} {} back to {}", verb, counted(*tasks, "task"), host);
  }
  return fmt::format("{} {} of {} to {}", verb, counted(*tasks, "task"), host,
                     options.isSpread ? "all hosts that listen" : "the host " + options.hosts[1]);
}

void printForPeople(const Options& options, const Rows& status, const Outcome& outcome) {
  if (options.hostAction == "list") {
    for (int row = 0; row < status.count(); ++row) {
      print("{}\n", status.text(row, "host"));
    }
    return;
  }
  if (options.hostAction == "status") {
    printTable(status);
    return;
  }
  if (outcome.plan) {
    printPlan(*outcome.plan);
  }
  print("{}\n", doneText(options, outcome.tasks));
  if (outcome.plan && *outcome.tasks < outcome.plan->moves()) {
    print("{} stayed, because their runs take long or they changed: call it again\n",
          counted(outcome.plan->moves() - *outcome.tasks, "task"));
  }
}

Json::Value jsonOf(const HostLoad& load, bool isMeasured) {
  Json::Value json;
  json["tasks"] = Json::Int64{load.tasks};
  json["runs_per_second"] = std::max(0.0, load.runs);
  json["busy_workers"] = isMeasured ? Json::Value(std::max(0.0, load.weight)) : Json::Value();
  return json;
}

Json::Value jsonOf(const HostPlan& plan) {
  Json::Value hosts(Json::arrayValue);
  for (const PlannedHost& host : plan.hosts) {
    Json::Value json;
    json["host"] = host.name;
    json["now"] = jsonOf(host.now, plan.isMeasured);
    json["then"] = jsonOf(host.then, plan.isMeasured);
    hosts.append(json);
  }
  return hosts;
}

void printAsJson(const Options& options, const Rows& status, const Outcome& outcome) {
  Json::Value json;
  json["dry_run"] = options.isDryRun;
  json["tasks"] = jsonNumber(outcome.tasks);
  json["plan"] = outcome.plan ? jsonOf(*outcome.plan) : Json::Value();
  json["hosts"] = Json::Value(Json::arrayValue);
  for (int row = 0; row < status.count(); ++row) {
    Json::Value host;
    host["host"] = status.text(row, "host");
    for (const char* column : {"is_default", "listens"}) {
      host[column] = status.isTrue(row, column);
    }
    for (const char* column : {"tasks", "running", "late_seconds", "leaving", "sessions", "lent"}) {
      host[column] = Json::Int64{status.number(row, column)};
    }
    host["instead"] = jsonText(status.optionalText(row, "instead"));
    host["silent_seconds"] = jsonNumber(status.optionalNumber(row, "silent_seconds"));
    json["hosts"].append(host);
  }
  printJson(json);
}

}  // namespace

int runHost(const Options& options) {
  checkArguments(options);
  if (options.hostAction == "watch") {
    return watchHosts(options);
  }
  Options own = options;
  if (const std::string& action = options.hostAction;
      action == "move" || action == "drain" || action == "balance" || action == "return") {
    own.statementTimeout = 0;  // it waits for runs, and has a limit of its own
  }
  Session session(own);
  requireHosts(session);
  const Outcome outcome = carryOut(session, options);
  const Rows status = session.query(kStatus);
  if (options.asJson) {
    printAsJson(options, status, outcome);
  } else {
    printForPeople(options, status, outcome);
  }
  return kDone;
}
