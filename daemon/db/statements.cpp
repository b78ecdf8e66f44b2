#include "db/statements.h"

#include "db/pgSafeThread.h"

namespace {

constexpr const char* kTaskQuery =
    "SELECT cron_id, plugin_name, cron_plugin_id, EXTRACT(EPOCH FROM cron_interval) as interval, "
    "cron_status, cron_last_exec, FLOOR(EXTRACT(EPOCH FROM cron_next_exec)) as nextexec,"
    "\tcron_log_file,cron_retries, EXTRACT(EPOCH FROM cron_retries_interval) as retries_interval,  "
    "plugin_path,cron_parameter"
    "\tFROM public.kodu_cron_plugin"
    "\tJOIN kodu_plugins ON plugin_id = cron_plugin_id"
    "\tWHERE plugin_type='cron'";

/// The ids in decimal, in the list's order, separated by ",".
std::string commaSeparated(const std::vector<int>& ids) {
  std::string text;
  for (const int id : ids) {
    text += std::to_string(id) + ",";
  }
  text.pop_back();
  return text;
}

}  // namespace

void prepareNamedStatements(pgSafeThread& connection) {
  for (const NamedStatement& statement : kNamedStatements) {
    connection.prepareRequest(statement.name, statement.sql, statement.nParams);
  }
}

std::string taskQuery(const std::vector<int>* ids) {
  if (ids == nullptr) {
    return std::string(kTaskQuery) + ";";
  }
  if (ids->empty()) {
    // All tasks again, and no ";": it is part of the list, which is absent. Tested by
    // LoaderTest.LoadsEveryTaskAgainWithAnEmptyList and TaskQueryTest.HasNoEndingWithAnEmptyList.
    return kTaskQuery;
  }
  return std::string(kTaskQuery) + " AND cron_id IN (" + commaSeparated(*ids) + ");";
}
