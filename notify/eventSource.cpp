#include "notify/eventSource.h"

#include <utility>

namespace {

// Later values in the operator's string count. A server that hangs is noticed within a minute.
constexpr const char* kDefaults =
    "connect_timeout=10 keepalives_idle=30 keepalives_interval=10 keepalives_count=3"
    " tcp_user_timeout=60000 application_name=kodu_notify ";

std::string firstLine(const std::string& text) {
  return text.substr(0, text.find('\n'));
}

Json::Value parsed(const std::string& text) {
  Json::Value value;
  std::string error;
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  if (!reader->parse(text.data(), text.data() + text.size(), &value, &error) || !value.isObject()) {
    throw DatabaseError(
        "the server has returned an event that is not a JSON object: is it a "
        "database of koducron?");
  }
  return value;
}

}  // namespace

EventSource::EventSource(const std::string& conninfo, std::string readerName)
    : reader(std::move(readerName)), connection(PQconnectdb((kDefaults + conninfo).c_str())) {
  if (PQstatus(connection.get()) != CONNECTION_OK) {
    throw DatabaseError(firstLine(PQerrorMessage(connection.get())));
  }
  PQsetNoticeProcessor(
      connection.get(), [](void*, const char*) {}, nullptr);
  // What is delivered has to be remembered: not to wait for the disk would save nothing here.
  run("SELECT set_config('statement_timeout', '60s', FALSE), set_config('search_path', 'public',"
      " FALSE), set_config('client_encoding', 'UTF8', FALSE), set_config('synchronous_commit', "
      "'on',"
      " FALSE), set_config('jit', 'off', FALSE)");
  run("LISTEN kodu_run");
}

bool EventSource::claim() {
  const Result result =
      run("SELECT pg_try_advisory_lock(hashtext('kodunotify'), hashtext($1))", {reader});
  return std::string(PQgetvalue(result.get(), 0, 0)) == "t";
}

std::vector<Event> EventSource::next(int limit) {
  const Result result = run(R"(SELECT "position", event::text FROM kodu_events($1, $2::integer))",
                            {reader, std::to_string(limit)});
  std::vector<Event> events;
  for (int row = 0; row < PQntuples(result.get()); ++row) {
    Event event{PQgetvalue(result.get(), row, 0), PQgetvalue(result.get(), row, 1), {}};
    event.fields = parsed(event.text);
    events.push_back(std::move(event));
  }
  return events;
}

void EventSource::finish(const std::string& position) {
  run("SELECT kodu_events_done($1, $2)", {reader, position});
}

void EventSource::bury(const Event& event, int tries, const std::string& error) {
  run("SELECT kodu_events_bury($1, $2, $3::json, $4::integer, $5)",
      {reader, event.position, event.text, std::to_string(tries), error});
}

void EventSource::drain() {
  if (PQconsumeInput(connection.get()) != 1) {
    throw DatabaseError(firstLine(PQerrorMessage(connection.get())));
  }
  while (PGnotify* notification = PQnotifies(connection.get())) {
    PQfreemem(notification);
  }
}

EventSource::Result EventSource::run(const std::string& sql,
                                     const std::vector<std::string>& parameters) {
  std::vector<const char*> values;
  values.reserve(parameters.size());
  for (const std::string& parameter : parameters) {
    values.push_back(parameter.c_str());
  }
  Result result(PQexecParams(connection.get(), sql.c_str(), static_cast<int>(values.size()),
                             nullptr, values.data(), nullptr, nullptr, 0));
  const ExecStatusType status = PQresultStatus(result.get());
  if (status != PGRES_TUPLES_OK && status != PGRES_COMMAND_OK) {
    throw DatabaseError(firstLine(PQerrorMessage(connection.get())));
  }
  return result;
}
