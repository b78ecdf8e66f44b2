#include "ctl/command/deadEvents.h"

#include <string>

#include <json/json.h>

#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/call.h"
#include "ctl/session/session.h"
#include "ctl/terminal/jsonList.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/text.h"

namespace {

constexpr const char* kHasDead = R"(
SELECT COALESCE(has_table_privilege(to_regclass('public.kodu_event_dead'), 'SELECT'), FALSE)
       AS has_dead)";

constexpr const char* kFields = R"(
SELECT floor(EXTRACT(EPOCH FROM died AT TIME ZONE 'UTC'))::bigint, event ->> 'event',
       (event ->> 'task')::bigint, event ->> 'name', key, reader, tries, error)";

constexpr const char* kJson = R"(
SELECT json_build_object('reader', reader, 'tries', tries, 'error', error,
                         'died', kodu_event_time(died), 'event', event)::text)";

constexpr const char* kFrom = R"(
FROM kodu_event_dead
WHERE reader = COALESCE(NULLIF($1, ''), reader)
ORDER BY died, length(key), key)";

void printOne(Fields& fields) {
  const long died = fields.number();
  const std::string event = fields.text();
  const long id = fields.number();
  const auto name = fields.optionalText();
  const std::string key = fields.text();
  const std::string reader = fields.text();
  const long tries = fields.number();
  print("{}  {:<11}  {:>7}  {}  key {} of {}, {}: {}\n", timeText(died), event, id,
        oneLine(name.value_or("(deleted)")), oneLine(key), oneLine(reader),
        counted(tries, "attempt"), oneLine(fields.text()));
}

}  // namespace

int printDeadEvents(const Options& options) {
  Session session(options);
  if (!session.query(kHasDead).isTrue(0, "has_dead")) {
    throw Failure(kRefused,
                  "the database has no undelivered events that this role may read: load "
                  "sql/events.sql as the owner of the tables, or connect as another role with "
                  "--user");
  }
  JsonList list;
  const char* columns = options.asJson ? kJson : kFields;
  session.forEachRow(std::string(columns) + kFrom, {options.reader}, [&](Fields& fields) {
    if (options.asJson) {
      list.add(escapedJson(fields.text()));
    } else {
      printOne(fields);
    }
  });
  if (options.asJson) {
    list.end();
  }
  return kDone;
}

int redeliverEvents(const Options& options) {
  Session session(options);
  Call call("kodu_events_redeliver");
  call.with("reader", "text", options.reader);
  if (options.redelivery != "all") {
    call.with("key", "text", options.redelivery);
  }
  const long count = call.run(session).number(0, "result");
  if (options.asJson) {
    Json::Value json;
    json["redelivered"] = Json::Int64(count);
    printJson(json);
  } else {
    print("{} will be delivered again\n", counted(count, "event"));
  }
  return kDone;
}
