#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include <json/json.h>

#include "common/http/feed.h"
#include "web/overview.h"
#include "web/people.h"

class Pool;
class Session;

/// How a watcher works.
struct WatcherLimits {
  std::chrono::milliseconds every{1000};         // from one look at the database to the next
  std::chrono::milliseconds peopleEvery{20000};  // the same of the roles that may log in
  std::chrono::milliseconds silence{5000};       // without an answer: the database is silent
  std::chrono::milliseconds interest{60000};     // the overview is read for so long after a request
};

/// Looks at the database once for all viewers, by two sessions in threads of its own: one reads
/// what has changed, each second; the other one reads all tasks, less often where that takes long.
/// A third thread tells the viewers that the console is alive, and when the database or the daemon
/// is not.
class Watcher {
 public:
  using Clock = std::chrono::steady_clock;
  using People = std::map<std::string, Person>;

  /// Publishes to `viewers`. `useRoles` gets the roles that may log in whenever they were read, and
  /// `reporter` a line when the database ceases to answer, and "" when it answers again.
  Watcher(Pool& sessions, HttpFeed& viewers, const WatcherLimits& wantedLimits,
          std::function<void(const People&)> useRoles,
          std::function<void(const std::string&)> reporter);
  /// Waits for the statements in progress.
  ~Watcher();
  Watcher(const Watcher&) = delete;
  Watcher& operator=(const Watcher&) = delete;

  /// The overview, read since it has last been asked for. Throws Failure (kNoDatabase) when the
  /// database is silent, or does not answer in ten seconds. Any thread.
  Json::Value overview();
  /// Call it when a viewer comes, so that the next look is at once. Any thread.
  void beginWatch();
  /// Tells all viewers at once that a person has changed a task. Any thread.
  void tellChange(int id);
  /// Whether the last look was answered, and not too long ago. Any thread.
  bool isDatabaseUp() const;

 private:
  /// The daemon as its sessions show it; seconds since the epoch.
  struct Daemon {
    long sessions = 0;
    std::optional<long> since, lastSign;
    long workers = 0;
  };

  void watchChanges(const std::stop_token& stop);
  void countTasks(const std::stop_token& stop);
  void tellViewers(const std::stop_token& stop);

  void look(Session& session);
  void lookAtPeople(Session& session);
  void noteAnswer(const std::string& failure);
  bool isWatched() const;
  bool isAnswering() const;
  void forgetCounts();
  bool isDaemonSilent() const;
  Json::Value silence() const;
  std::string greeting() const;
  Json::Value daemonJson() const;
  void rest(const std::stop_token& stop, Clock::duration time);

  Pool& pool;
  HttpFeed& feed;
  const WatcherLimits limits;
  const std::function<void(const People&)> usePeople;
  const std::function<void(const std::string&)> report;

  mutable std::mutex mutex;
  std::condition_variable_any changed;
  Clock::time_point askedAt;         // guarded by mutex: when the overview was
  Clock::time_point answeredAt;      // guarded by mutex: when the database did last
  long answeredTime = 0;             // guarded by mutex: the same since the epoch
  bool isUp = true;                  // guarded by mutex
  std::optional<Daemon> daemon;      // guarded by mutex
  std::optional<TaskCounts> counts;  // guarded by mutex
  Json::Value day;                   // guarded by mutex
  std::string problem;               // guarded by mutex: the last that was reported
  std::string place;                 // of the changes; of the thread that reads them
  Clock::time_point peopleAt;        // of the same thread

  std::jthread changes, counter, teller;  // end first
};
