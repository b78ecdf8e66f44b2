#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <libpq-fe.h>

#include "notify/event.h"

/// The database has refused a statement or does not answer; the session cannot be used any more.
class DatabaseError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A session that reads the events of one reader. All members throw DatabaseError. Owned by one
/// thread.
class EventSource {
 public:
  /// Connects, and listens for notifications.
  EventSource(const std::string& conninfo, std::string readerName);

  /// Makes this session the only one that delivers for the reader; false while another one does.
  bool claim();

  /// The next events, at most `limit`; the same again until they are finished. What is returned is
  /// on the server's disk.
  std::vector<Event> next(int limit);
  /// All events up to this position are done.
  void finish(const std::string& position);
  /// Puts an event aside that could not be delivered, and finishes it.
  void bury(const Event& event, int tries, const std::string& error);

  /// Becomes readable when a notification may have arrived.
  int descriptor() const { return PQsocket(connection.get()); }
  /// Takes what has arrived.
  void drain();

 private:
  struct Finisher {
    void operator()(PGconn* session) const { PQfinish(session); }
  };
  struct Clearer {
    void operator()(PGresult* result) const { PQclear(result); }
  };
  using Result = std::unique_ptr<PGresult, Clearer>;

  Result run(const std::string& sql, const std::vector<std::string>& parameters = {});

  const std::string reader;
  std::unique_ptr<PGconn, Finisher> connection;
};
