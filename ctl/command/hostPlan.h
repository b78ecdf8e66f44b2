#pragma once

#include <optional>
#include <string>
#include <vector>

class Session;

/// A task as a plan needs it. weight: what it costs its host, in any unit; 0 for a paused one.
struct PlannedTask {
  int id;
  std::size_t host;  // its place among the hosts
  double runs;       // a second, as expected
  double weight;
};

/// What a host has, before the plan or after it.
struct HostLoad {
  long tasks = 0;
  double runs = 0;  // a second
  double weight = 0;
};

struct PlannedHost {
  std::string name;
  bool isOpen;  // it can get tasks
  HostLoad now = {}, then = {};
};

/// Which tasks go from which host to which other.
struct HostPlan {
  std::vector<PlannedHost> hosts;
  std::vector<PlannedTask> tasks;
  std::vector<std::size_t> targets;  // of each task: its host, or another one
  bool isMeasured = false;  // a weight is the number of busy workers, else the runs a second

  long moves() const;
};

/// Moves tasks from open hosts with more than their share to those with less, the heaviest first,
/// and as few as possible.
void evenOut(HostPlan& plan);
/// Moves all tasks of a host, given by its place, to the open ones among the others, so that these
/// become even.
void empty(HostPlan& plan, std::size_t host);

/// Hosts and tasks as they are; `sessions` tells which are open. What a task's run costs comes from
/// the ledger where it is loaded: a task without runs counts like the average one.
HostPlan readPlan(Session& session);

/// Moves the tasks, host after host. Returns how many have been moved. is_lent: `host return`
/// brings them back. Throws Failure when a daemon does not answer; earlier hosts have given theirs
/// then.
long carryOut(Session& session, const HostPlan& plan, bool isLent);

/// A table of the hosts with what each has and would have.
void printPlan(const HostPlan& plan);
