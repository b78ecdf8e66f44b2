#pragma once

#include <optional>
#include <string>
#include <vector>

class Session;

/// On which host a task is, in a database with hosts. Times are seconds since the epoch.
struct Placement {
  std::string host;
  std::string ownHost;    // the host of this machine's configuration; "": it is none
  std::string movedFrom;  // the previous host; "": none is known
  std::optional<long> movedAt;

  /// Sentences about it, and about outputs that are on other machines.
  std::vector<std::string> sentences() const;
};

/// Nothing for a database without hosts, and for a role that may not see them.
std::optional<Placement> readPlacement(Session& session, int task);
