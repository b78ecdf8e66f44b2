#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

struct DaemonConfig;

/// As whom, and where, the daemon with a configuration works on this machine.
struct DaemonIdentity {
  std::optional<pid_t> pid;  // nothing when it does not run here; the rest is a guess then
  uid_t uid = 0;
  gid_t gid = 0;
  std::vector<gid_t> groups;
  mode_t umask = 022;
  std::string directory = "/";  // its working directory, or this when that cannot be read
  bool isKnown = true;          // false when it does not run and nothing but the guess names root

  /// "kodu", or the number of a user without a name.
  std::string userName() const;
  /// True when this process can look with the daemon's rights: as root, or as the same user.
  bool canBeTaken() const;
  /// Before anything is run or deleted: throws Failure (kNotPermitted) when root would do it with
  /// its own rights because of a guess.
  void requireKnown() const;
};

/// The identity of the running daemon with this configuration: the service manager's process for
/// it, else the one process that writes its log, each with the daemon's executable. Where none
/// runs, that of the user who owns the log, else the output directory; else the caller's own.
///
/// Throws Failure (kNotPermitted) when two processes could be the daemon, when the service runs
/// another program, or when the daemon has more than one user.
DaemonIdentity findDaemon(const DaemonConfig& config);

/// While it lives, this process has the daemon's rights on files, when it can take them; otherwise
/// it changes nothing. For single-threaded use; do not nest.
class AsDaemon {
 public:
  explicit AsDaemon(const DaemonIdentity& identity);
  ~AsDaemon();
  AsDaemon(const AsDaemon&) = delete;
  AsDaemon& operator=(const AsDaemon&) = delete;

 private:
  bool isTaken = false;
  gid_t ownGroup = 0;
  std::vector<gid_t> ownGroups;
};

/// Takes the daemon's user, groups, directory and mode mask for good. Throws Failure
/// (kNotPermitted) when this user may not.
void becomeDaemonUser(const DaemonIdentity& identity);
