#include "db/pgConnectionPool.h"

#include <algorithm>
#include <iostream>
#include <memory>
#include <utility>

#include "core/posixLock.h"
#include "db/PostgresqlException.h"
#include "db/pgSafeThread.h"

namespace {

/// Opens `count` connections. When one fails, the others are closed on the way out.
std::vector<pgSafeThread*> openConnections(const std::string& conninfo, int count) {
  std::vector<std::unique_ptr<pgSafeThread>> opened;
  opened.reserve(static_cast<std::size_t>(std::max(count, 0)));
  for (int i = 0; i < count; ++i) {
    opened.push_back(std::make_unique<pgSafeThread>(conninfo));
  }
  std::vector<pgSafeThread*> connections;
  connections.reserve(opened.size());
  for (auto& connection : opened) {
    connections.push_back(connection.release());
  }
  return connections;
}

}  // namespace

pgConnectionPool::pgConnectionPool(std::string conninfo, int count)
    : connections(openConnections(conninfo, count)), connectionString(std::move(conninfo)) {
  pthread_mutex_init(&poolMutex, nullptr);
  pthread_mutex_init(&waitMutex, nullptr);
}

pgConnectionPool::pgConnectionPool(std::string host, int port, std::string dbname, std::string user,
                                   std::string password, int count)
    : pgConnectionPool(conninfoOf(host, port, dbname, user) + " password=" + password, count) {}

// NOLINTNEXTLINE(bugprone-exception-escape): a lock that fails here is a fault to stop at.
pgConnectionPool::~pgConnectionPool() {
  {
    const PosixLock lock(poolMutex);
    for (const pgSafeThread* connection : connections) {
      delete connection;
    }
  }
  pthread_mutex_destroy(&poolMutex);
  pthread_mutex_destroy(&waitMutex);
}

pgSafeThread* pgConnectionPool::getNextConnection() {
  const PosixLock lock(poolMutex);
  if (nextConnection >= connections.size()) {
    nextConnection = 0;
  }
  return connections[nextConnection++];
}

int pgConnectionPool::getNextConnectionID() {
  const PosixLock lock(poolMutex);
  return static_cast<int>(nextConnection);
}

int pgConnectionPool::getConnectionNumber() {
  const PosixLock lock(poolMutex);
  return static_cast<int>(connections.size());
}

int pgConnectionPool::getWaitRequest() {
  const PosixLock lock(waitMutex);
  return waitRequest;
}

void pgConnectionPool::enableDebugMode(bool isEnabled) {
  debug = isEnabled;
}

void pgConnectionPool::Trace(std::string text) {
  if (debug) {
    std::cout << text + "\n" << std::flush;
  }
}

std::string pgConnectionPool::getClientEncoding() {
  return getNextConnection()->getClientEncoding();
}

void pgConnectionPool::prepareRequest(std::string name, std::string sql, int nParams) {
  // Held for the whole loop, over the connections' own locks: no turn is given away between two
  // connections, so no thread meets a pool that knows the statement on some of them only.
  const PosixLock lock(poolMutex);
  for (pgSafeThread* connection : connections) {
    connection->prepareRequest(name, sql, nParams);
  }
}

void pgConnectionPool::prepareRequest(std::string name, std::string sql) {
  prepareRequest(std::move(name), std::move(sql), 0);
}

template <typename Statement>
PGresult* pgConnectionPool::runOnNext(const Statement& statement) {
  PGresult* result = statement(*getNextConnection());
  if (debug) {
    Trace("   [ " + std::to_string(static_cast<std::int32_t>(nextConnection - 1)) +
          " ] exec status: " + PQresStatus(PQresultStatus(result)));
  }
  return result;
}

PGresult* pgConnectionPool::executeRequest(std::string sql) {
  return runOnNext([&](pgSafeThread& connection) { return connection.executeRequest(sql); });
}

PGresult* pgConnectionPool::executeParamRequest(std::string sql, std::vector<std::string> params) {
  return runOnNext(
      [&](pgSafeThread& connection) { return connection.executeParamRequest(sql, params); });
}

PGresult* pgConnectionPool::executePrepareRequest(std::string name) {
  return runOnNext(
      [&](pgSafeThread& connection) { return connection.executePrepareRequest(name); });
}

PGresult* pgConnectionPool::executePrepareRequest(std::string name,
                                                  std::vector<std::string> params) {
  return runOnNext(
      [&](pgSafeThread& connection) { return connection.executePrepareRequest(name, params); });
}
