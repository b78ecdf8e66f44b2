#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "ctl/options.h"

class Session;

/// The console may not take the role any more.
class RoleRefused : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// What a transaction may do.
enum class Access { kRead, kChange };

/// The console's sessions in the database, each for one transaction at a time. Any thread may call
/// any member.
class Pool {
 public:
  static constexpr std::size_t kMostWaiting = 3;  // for a session; more are refused at once

  /// Connects with `given` when a session is needed, at most `most` at a time.
  Pool(Options given, std::size_t most);
  ~Pool();
  Pool(const Pool&) = delete;
  Pool& operator=(const Pool&) = delete;

  /// Calls `work` in a transaction with the rights of the role, and commits. The name of the
  /// session names the role meanwhile. Throws Failure, kNoDatabase also when all sessions are busy
  /// for five seconds, or others wait for one; RoleRefused; and what `work` throws. Nothing has
  /// been changed then.
  void run(const std::string& role, Access access, const std::function<void(Session&)>& work);

  /// A session of the caller's own, which is not one of the pool. Throws Failure.
  std::unique_ptr<Session> connect(int statementSeconds);

  /// Prints a line on standard error while no session captures it.
  void report(const std::string& line);

 private:
  struct Borrowed;

  std::unique_ptr<Session> begin(Access access);
  std::unique_ptr<Session> takeIdle();
  void giveBack(std::unique_ptr<Session> session);
  void awaitTurn();
  void endTurn();

  const Options options;
  const std::size_t limit;

  std::mutex connecting;  // a session that connects captures standard error
  std::chrono::steady_clock::time_point failedAt;  // guarded by connecting
  std::string failure;                             // guarded by connecting; "": the last one worked

  std::mutex mutex;
  std::condition_variable freed;
  std::size_t busy = 0, waiting = 0;           // guarded by mutex
  std::vector<std::unique_ptr<Session>> idle;  // guarded by mutex
};
