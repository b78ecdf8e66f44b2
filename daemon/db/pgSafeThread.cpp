#include "db/pgSafeThread.h"

#include <mutex>
#include <utility>

#include "core/posixLock.h"
#include "db/PostgresqlException.h"

namespace {

bool hasSucceeded(const PGresult* result) {
  const ExecStatusType status = PQresultStatus(result);
  return status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK;
}

std::vector<const char*> valuesOf(const std::vector<std::string>& params) {
  std::vector<const char*> values;
  values.reserve(params.size());
  for (const std::string& param : params) {
    values.push_back(param.c_str());
  }
  return values;
}

}  // namespace

std::string conninfoOf(const std::string& host, int port, const std::string& dbname,
                       const std::string& user) {
  return "host=" + host + " port=" + std::to_string(port) + " dbname=" + dbname + " user=" + user;
}

pgSafeThread::pgSafeThread(std::string conninfo) : connectionString(std::move(conninfo)) {
  connect("\n");
}

pgSafeThread::pgSafeThread(std::string host, int port, std::string dbname, std::string user,
                           std::string password) {
  const std::string withoutPassword = conninfoOf(host, port, dbname, user);
  connectionString = withoutPassword + " password=" + password;
  connect("\n" + withoutPassword);
}

void pgSafeThread::connect(const std::string& failureTail) {
  connection = PQconnectdb(connectionString.c_str());
  if (PQstatus(connection) == CONNECTION_OK) {
    pthread_mutex_init(&mutex, nullptr);
    return;
  }
  const std::string message = PQerrorMessage(connection) + failureTail;
  PQfinish(connection);
  throw PostgresqlException(message);
}

pgSafeThread::~pgSafeThread() {
  PQfinish(connection);
  pthread_mutex_destroy(&mutex);
}

std::string pgSafeThread::getClientEncoding() {
  const PosixLock statementLock(mutex);
  const std::lock_guard wireLock(wire);
  return pg_encoding_to_char(PQclientEncoding(connection));
}

template <typename Call>
PGresult* pgSafeThread::run(const char* failurePrefix, MessageSource source, const Call& call) {
  PGresult* result = nullptr;
  std::string message = failurePrefix;
  {
    const PosixLock statementLock(mutex);
    const std::lock_guard wireLock(wire);
    result = call();
    if (hasSucceeded(result)) {
      return result;
    }
    message += source == MessageSource::kConnection ? PQerrorMessage(connection)
                                                    : PQresultErrorMessage(result);
  }
  PQclear(result);
  throw PostgresqlException(message);
}

PGresult* pgSafeThread::executeRequest(std::string sql) {
  return run("execute failed:  ", MessageSource::kConnection,
             [&] { return PQexec(connection, sql.c_str()); });
}

PGresult* pgSafeThread::executeParamRequest(std::string sql, std::vector<std::string> params) {
  const auto values = valuesOf(params);
  return run("Execute failed:  ", MessageSource::kResult, [&] {
    return PQexecParams(connection, sql.c_str(), static_cast<int>(values.size()), nullptr,
                        values.data(), nullptr, nullptr, 0);
  });
}

void pgSafeThread::prepareRequest(std::string name, std::string sql, int nParams) {
  PQclear(run("prepare failed:  ", MessageSource::kConnection,
              [&] { return PQprepare(connection, name.c_str(), sql.c_str(), nParams, nullptr); }));
}

void pgSafeThread::prepareRequest(std::string name, std::string sql) {
  prepareRequest(std::move(name), std::move(sql), 0);
}

PGresult* pgSafeThread::executePrepareRequest(std::string name, std::vector<std::string> params) {
  const auto values = valuesOf(params);
  return run("Exec prepareRequest failed:  ", MessageSource::kResult, [&] {
    return PQexecPrepared(connection, name.c_str(), static_cast<int>(values.size()), values.data(),
                          nullptr, nullptr, 0);
  });
}

PGresult* pgSafeThread::executePrepareRequest(std::string name) {
  return executePrepareRequest(std::move(name), {});
}
