#pragma once

#include <map>
#include <string>
#include <vector>

using Words = std::vector<std::string>;

/// Calls of each command, by its name, the plainest first; those of `top` and others as far as they
/// get without a terminal. The commands of a new kind are added here:
/// InterruptTest.KnowsEveryCommand finds a command that is missing. There are tasks from 1 on;
/// `declared` is a file for apply, `metrics` one that metrics may write.
inline std::map<std::string, std::vector<Words>> callsOfEveryCommand(const std::string& declared,
                                                                     const std::string& metrics) {
  return {
      {"status", {{"status"}, {"status", "--json"}, {"status", "--watch"}}},
      {"top", {{"top", "--json"}}},
      {"ids", {{"ids", "--names"}}},
      {"show", {{"show", "1"}}},
      {"explain", {{"explain", "1"}}},
      {"next", {{"next", "1"}}},
      {"history", {{"history", "1"}}},
      {"account", {{"account"}}},
      {"events", {{"events"}, {"events", "-f"}}},
      {"logs", {{"logs", "1"}, {"logs", "-f"}, {"logs", "-f", "--failed"}}},
      {"test", {{"test", "1"}}},
      {"daemon", {{"daemon"}}},
      {"check", {{"check"}}},
      {"health", {{"health"}}},
      {"metrics", {{"metrics"}, {"metrics", "--output", metrics}}},
      {"add", {{"add", "/bin/true", "--every", "1h", "--key", "mine"}}},
      {"set", {{"set", "--all", "--every", "2h", "--metrics", "--yes"}}},
      {"pause", {{"pause", "--all", "--yes"}}},
      {"resume", {{"resume", "--all", "--yes"}}},
      {"run", {{"run", "--all", "--yes"}, {"run", "1", "--wait"}}},
      {"delete", {{"delete", "--all", "--yes"}}},
      {"undelete", {{"undelete", "--all", "--yes"}}},
      {"export", {{"export"}, {"export", "--json"}}},
      {"import", {{"import", "crontab", "/etc/debian_version"}}},  // a line that is no job
      {"apply", {{"apply", declared}, {"apply", declared, "--dry-run"}}},
      {"forecast", {{"forecast"}}},
      {"stagger", {{"stagger"}, {"stagger", "--apply"}}},
      {"prune", {{"prune", "--older-than", "1s"}}},
      {"ledger", {{"ledger"}}},
      {"host", {{"host"}}},
      {"window", {{"window"}}},
      {"schema", {{"schema"}, {"schema", "upgrade", "--dry-run"}}},
      {"repair", {{"repair"}}},
      {"output", {{"output", "1"}, {"output", "1", "--follow"}}},
  };
}
