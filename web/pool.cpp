#include "web/pool.h"

#include <fmt/format.h>

#include <utility>

#include "ctl/failure.h"
#include "ctl/session/session.h"
#include "ctl/terminal/print.h"

namespace {

constexpr std::chrono::seconds kPatience{5};
// After a connection has failed, those who wait for their turn need not try the same.
constexpr std::chrono::seconds kRest{1};

// Local to the transaction. A console that was stopped must not keep rows from the daemon.
constexpr const char* kBecome =
    "SELECT set_config('client_min_messages', 'warning', true),"
    " set_config('idle_in_transaction_session_timeout', '5s', true),"
    " set_config('application_name', $1, true), set_config('role', $2, true)";

/// Other errors say nothing of the role: a lock, or a server that has no memory.
bool isRefusal(const Failure& failure) {
  constexpr const char* kNoRight = "42501";
  constexpr const char* kNoRole = "22023";  // there is none of this name
  return failure.sqlState == kNoRight || failure.sqlState == kNoRole;
}

void become(Session& session, const std::string& role) {
  try {
    session.query(kBecome, {"kodu_web " + role, role});
  } catch (const Failure& e) {
    if (isRefusal(e)) {
      throw RoleRefused(e.what());
    }
    throw;
  }
}

}  // namespace

/// A session within a transaction. It goes back to the pool only when that has ended.
struct Pool::Borrowed {
  Pool& pool;
  std::unique_ptr<Session> session;
  bool isOpen = true;  // the transaction

  ~Borrowed() {
    try {
      if (isOpen) {
        session->query("ROLLBACK");
      }
      pool.giveBack(std::move(session));
    } catch (const Failure&) {
      session.reset();  // lost, and the transaction with it
    }
  }
};

Pool::Pool(Options given, std::size_t most) : options(std::move(given)), limit(most) {}
Pool::~Pool() = default;

void Pool::run(const std::string& role, Access access, const std::function<void(Session&)>& work) {
  awaitTurn();
  struct Turn {
    Pool& pool;
    ~Turn() { pool.endTurn(); }
  } const turn{*this};
  Borrowed borrowed{*this, begin(access)};
  become(*borrowed.session, role);
  work(*borrowed.session);
  borrowed.session->query("COMMIT");
  borrowed.isOpen = false;
}

/// Begins a transaction. A session that was lost since its last one is replaced.
std::unique_ptr<Session> Pool::begin(Access access) {
  const char* statement = access == Access::kRead ? "BEGIN READ ONLY" : "BEGIN";
  while (std::unique_ptr<Session> session = takeIdle()) {
    try {
      session->query(statement);
      return session;
    } catch (const Failure&) {
      continue;
    }
  }
  std::unique_ptr<Session> session = connect(options.statementTimeout);
  session->query(statement);
  return session;
}

std::unique_ptr<Session> Pool::connect(int statementSeconds) {
  Options own = options;
  own.statementTimeout = statementSeconds;
  const std::lock_guard lock(connecting);
  if (!failure.empty() && std::chrono::steady_clock::now() - failedAt < kRest) {
    throw Failure(kNoDatabase, failure);
  }
  try {
    auto session = std::make_unique<Session>(own);
    failure.clear();
    return session;
  } catch (const Failure& e) {
    failure = e.what();
    failedAt = std::chrono::steady_clock::now();
    throw;
  }
}

void Pool::report(const std::string& line) {
  const std::lock_guard lock(connecting);
  printError("koduweb: {}\n", line);
}

std::unique_ptr<Session> Pool::takeIdle() {
  const std::lock_guard lock(mutex);
  if (idle.empty()) {
    return nullptr;
  }
  std::unique_ptr<Session> session = std::move(idle.back());
  idle.pop_back();
  return session;
}

void Pool::giveBack(std::unique_ptr<Session> session) {
  const std::lock_guard lock(mutex);
  idle.push_back(std::move(session));
}

void Pool::awaitTurn() {
  std::unique_lock lock(mutex);
  // Who waits keeps a thread from requests that need no database.
  const bool mayWait = busy < limit || waiting < kMostWaiting;
  ++waiting;
  const bool isFree =
      freed.wait_for(lock, mayWait ? kPatience : kPatience.zero(), [this] { return busy < limit; });
  --waiting;
  if (!isFree) {
    throw Failure(kNoDatabase, "all connections of the console to the database are busy");
  }
  ++busy;
}

void Pool::endTurn() {
  {
    const std::lock_guard lock(mutex);
    --busy;
  }
  freed.notify_one();
}
