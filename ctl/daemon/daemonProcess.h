#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

struct DaemonConfig;

/// The user, groups and directory of the daemon with a configuration on this machine.
struct DaemonIdentity {
  std::optional<pid_t> pid;  // nothing when it does not run here; the rest is a guess then
  uid_t uid = 0;
  gid_t gid = 0;
  std::vector<gid_t> groups;
  mode_t umask = 022;
  std::string directory = "/";  // its working directory; "/" when that cannot be read
  bool isService = false;       // it is the process of the service manager's unit
  bool isKnown = true;          // false when it does not run and only the guess names root

  /// "kodu", or the number of a user without a name.
  std::string userName() const;
  /// True when this process can take the daemon's rights: as root or as the same user.
  bool canBeTaken() const;
  /// Call it before anything is run or deleted. Throws Failure (kNotPermitted) when root would act
  /// with its own rights because of a guess.
  void requireKnown() const;
};

/// The identity of the running daemon with this configuration: the service manager's process, else
/// the only process with the daemon's executable that writes its log. When none runs, the identity
/// of the owner of the log, else of the output directory, else of the caller.
///
/// Throws Failure (kNotPermitted) when two processes could be the daemon, when the service runs
/// another program, or when the daemon has more than one user.
DaemonIdentity findDaemon(const DaemonConfig& config);

/// During its lifetime this process has the daemon's rights on files if it can take them; otherwise
/// its rights do not change. For single-threaded use; do not nest.
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

/// Takes the daemon's user, groups, directory and mode mask permanently. Throws Failure
/// (kNotPermitted) when this user may not.
void becomeDaemonUser(const DaemonIdentity& identity);
