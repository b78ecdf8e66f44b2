#include "ctl/command/hostPlan.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <numeric>
#include <tuple>

#include "ctl/session/session.h"
#include "ctl/terminal/table.h"
#include "ctl/terminal/text.h"

namespace {

/// A host with less than this above its share is even enough.
constexpr double kTolerance = 1.02;

constexpr const char* kHosts = R"(
SELECT host, sessions > 0 AND instead IS NULL AS is_open FROM kodu_host_status ORDER BY host)";

constexpr const char* kHasSummaries = R"(
SELECT COALESCE(has_table_privilege(to_regclass('public.kodu_task_day'), 'SELECT'), FALSE)
       AS has_summaries)";

// What a run of each task takes, over its last week with runs in the summaries.
constexpr const char* kCosts = R"(
(SELECT id, sum(seconds) / NULLIF(sum(rows), 0) AS seconds FROM kodu_task_day
 WHERE reason IS NULL AND day > (SELECT max(day) FROM kodu_task_day) - 7 GROUP BY id))";
constexpr const char* kNoCosts = "(SELECT NULL::integer AS id, NULL::double precision AS seconds)";

constexpr const char* kTasks = R"(
SELECT cron_id, cron_host,
       (CASE WHEN cron_next_exec < kodu_pause_time() THEN 1 / EXTRACT(EPOCH FROM cron_interval) ELSE 0
        END)::double precision AS runs,
       cost.seconds
FROM kodu_cron_plugin LEFT JOIN {} AS cost ON id = cron_id
WHERE NOT cron_delete AND cron_id NOT IN (SELECT ping_task FROM kodu_host WHERE ping_task IS NOT NULL)
ORDER BY cron_id)";

constexpr const char* kMove =
    "CALL kodu_host_move($1, NULL, NULL, tasks => $2::integer[], targets => $3::text[],"
    " is_lent => $4::boolean)";

void add(HostLoad& load, const PlannedTask& task, int sign) {
  load.tasks += sign;
  load.runs += sign * task.runs;
  load.weight += sign * task.weight;
}

/// The places of a host's tasks, the heaviest first.
std::vector<std::size_t> heaviestOf(const HostPlan& plan, std::size_t host) {
  std::vector<std::size_t> places;
  for (std::size_t i = 0; i < plan.tasks.size(); ++i) {
    if (plan.tasks[i].host == host) {
      places.push_back(i);
    }
  }
  std::stable_sort(places.begin(), places.end(), [&](std::size_t left, std::size_t right) {
    return plan.tasks[left].weight > plan.tasks[right].weight;
  });
  return places;
}

/// The open host with the least, other than one; nothing when there is none.
std::optional<std::size_t> lightest(const HostPlan& plan, std::size_t except) {
  std::optional<std::size_t> found;
  for (std::size_t i = 0; i < plan.hosts.size(); ++i) {
    const auto rank = [&](std::size_t host) {
      return std::tuple(plan.hosts[host].then.weight, plan.hosts[host].then.tasks);
    };
    if (i != except && plan.hosts[i].isOpen && (!found || rank(i) < rank(*found))) {
      found = i;
    }
  }
  return found;
}

void give(HostPlan& plan, std::size_t task, std::size_t target) {
  add(plan.hosts[plan.targets[task]].then, plan.tasks[task], -1);
  add(plan.hosts[target].then, plan.tasks[task], 1);
  plan.targets[task] = target;
}

double shareOf(const HostPlan& plan) {
  double sum = 0;
  long count = 0;
  for (const PlannedHost& host : plan.hosts) {
    sum += host.isOpen ? host.now.weight : 0;
    count += host.isOpen ? 1 : 0;
  }
  return count > 0 ? sum / static_cast<double>(count) : 0;
}

/// Gives away what brings the host closer to its share, and the target not above the host.
void relieve(HostPlan& plan, std::size_t host, double share) {
  for (const std::size_t task : heaviestOf(plan, host)) {
    const double excess = plan.hosts[host].then.weight - share;
    const double weight = plan.tasks[task].weight;
    if (excess <= share * (kTolerance - 1) || weight <= 0) {
      return;
    }
    const auto target = lightest(plan, host);
    if (target && weight < 2 * excess &&
        plan.hosts[*target].then.weight + weight < plan.hosts[host].then.weight) {
      give(plan, task, *target);
    }
  }
}

/// Turns runs a second into busy workers, where the ledger knows what runs take.
void weigh(HostPlan& plan, const std::vector<std::optional<double>>& seconds) {
  double sum = 0;
  long known = 0;
  for (const auto& each : seconds) {
    sum += each.value_or(0);
    known += each ? 1 : 0;
  }
  plan.isMeasured = known > 0;
  const double mean = known > 0 ? sum / static_cast<double>(known) : 1;
  for (std::size_t i = 0; i < plan.tasks.size(); ++i) {
    plan.tasks[i].weight = plan.tasks[i].runs * seconds[i].value_or(mean);
  }
}

std::string list(const std::vector<std::string>& items) {
  return fmt::format("{{{}}}", fmt::join(items, ","));
}

std::string decimals(double number) {
  return fmt::format("{:.2f}", std::max(0.0, number));
}

}  // namespace

long HostPlan::moves() const {
  long count = 0;
  for (std::size_t i = 0; i < tasks.size(); ++i) {
    count += targets[i] != tasks[i].host ? 1 : 0;
  }
  return count;
}

void evenOut(HostPlan& plan) {
  const double share = shareOf(plan);
  for (std::size_t host = 0; host < plan.hosts.size(); ++host) {
    if (plan.hosts[host].isOpen) {
      relieve(plan, host, share);
    }
  }
}

void empty(HostPlan& plan, std::size_t host) {
  for (const std::size_t task : heaviestOf(plan, host)) {
    if (const auto target = lightest(plan, host)) {
      give(plan, task, *target);
    }
  }
}

HostPlan readPlan(Session& session) {
  HostPlan plan;
  std::map<std::string, std::size_t> places;
  const Rows hosts = session.query(kHosts);
  for (int row = 0; row < hosts.count(); ++row) {
    places[hosts.text(row, "host")] = plan.hosts.size();
    plan.hosts.push_back({hosts.text(row, "host"), hosts.isTrue(row, "is_open")});
  }
  const bool hasSummaries = session.query(kHasSummaries).isTrue(0, "has_summaries");
  std::vector<std::optional<double>> seconds;
  session.forEachRow(fmt::format(fmt::runtime(kTasks), hasSummaries ? kCosts : kNoCosts), {},
                     [&](Fields& fields) {
                       const int id = static_cast<int>(fields.number());
                       const std::size_t host = places.at(fields.text());
                       const double runs = std::stod(fields.text());
                       const auto cost = fields.optionalText();
                       plan.tasks.push_back({id, host, runs, 0});
                       plan.targets.push_back(host);
                       seconds.push_back(cost ? std::optional(std::stod(*cost)) : std::nullopt);
                     });
  weigh(plan, seconds);
  for (const PlannedTask& task : plan.tasks) {
    add(plan.hosts[task.host].now, task, 1);
  }
  for (PlannedHost& host : plan.hosts) {
    host.then = host.now;
  }
  return plan;
}

long carryOut(Session& session, const HostPlan& plan, bool isLent) {
  long moved = 0;
  for (std::size_t host = 0; host < plan.hosts.size(); ++host) {
    std::vector<std::string> ids;
    std::vector<std::string> targets;
    for (std::size_t i = 0; i < plan.tasks.size(); ++i) {
      if (plan.tasks[i].host == host && plan.targets[i] != host) {
        ids.push_back(std::to_string(plan.tasks[i].id));
        targets.push_back('"' + plan.hosts[plan.targets[i]].name + '"');
      }
    }
    if (!ids.empty()) {
      moved += session
                   .query(kMove, {plan.hosts[host].name, list(ids), list(targets),
                                  isLent ? "true" : "false"})
                   .number(0, "moved");
    }
  }
  return moved;
}

void printPlan(const HostPlan& plan) {
  using Align = Table::Align;
  Table table({{"HOST"},
               {"TASKS", Align::kRight},
               {"THEN", Align::kRight},
               {"RUNS/S", Align::kRight},
               {"THEN", Align::kRight},
               {"BUSY", Align::kRight},
               {"THEN", Align::kRight}});
  const auto busy = [&](const HostLoad& load) {
    return plan.isMeasured ? decimals(load.weight) : std::string("-");
  };
  for (const PlannedHost& host : plan.hosts) {
    table.add({host.name, grouped(host.now.tasks), grouped(host.then.tasks),
               decimals(host.now.runs), decimals(host.then.runs), busy(host.now), busy(host.then)});
  }
  table.print();
}
