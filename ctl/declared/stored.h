#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "ctl/declared/definition.h"

class Session;
struct Selection;

/// A task of the database, as it would be declared.
struct StoredTask {
  int id = 0;
  std::string key, set;  // set "": none
  Definition definition;
  bool isPaused = false;
  std::string pauseReason;
  std::optional<long> pausedUntil;  // seconds since the epoch; nothing: until it is resumed
  std::optional<long>
      due;       // of the next run, seconds since the epoch; of a paused one after resume
  long now = 0;  // the server's clock
};

/// The path of koduguard that a task with a time limit gets in this database.
std::string readGuard(Session& session);

/// The tasks with one of these keys or of this set; "" is no set. Neither tasks that are being
/// deleted nor those that the daemon does not run because of their plugin_type.
std::vector<StoredTask> readStored(Session& session, const std::vector<std::string>& keys,
                                   const std::string& set, const std::string& guard);

/// Calls `use` for each selected task of this set ("": any), by its key in the order of bytes,
/// whatever the order of the selection. Holds no snapshot of the tables meanwhile, and only some of
/// the tasks. Throws Failure: kNotFound for an id that is none, and as requireValid().
void forEachStored(Session& session, const Selection& selection, const std::string& set,
                   const std::string& guard, const std::function<void(const StoredTask&)>& use);
