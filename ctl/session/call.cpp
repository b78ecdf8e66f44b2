#include "ctl/session/call.h"

#include <fmt/format.h>

#include <utility>

#include "ctl/failure.h"

namespace {

// NULL when there is no such function.
constexpr const char* kMayCall = R"(
SELECT bool_or(has_function_privilege(oid, 'EXECUTE')) AS allowed, current_user AS role
FROM pg_proc WHERE proname = $1 AND pronamespace = 'public'::regnamespace)";

const char* fileOf(const std::string& function) {
  for (const auto& [prefix, file] : {std::pair("kodu_ledger_", "ledger.sql"),
                                     {"kodu_events_", "events.sql"},
                                     {"kodu_metric_", "metrics.sql"},
                                     {"kodu_window_", "windows.sql"}}) {
    if (function.starts_with(prefix)) {
      return file;
    }
  }
  return "functions.sql";
}

void requireRightTo(Session& session, const std::string& function) {
  const Rows answer = session.query(kMayCall, {function});
  if (answer.isNull(0, "allowed")) {
    throw Failure(kRefused, fmt::format("the database has no function {}: load sql/{} as its owner",
                                        function, fileOf(function)));
  }
  if (!answer.isTrue(0, "allowed")) {
    throw Failure(kNotPermitted,
                  fmt::format("role {} may not do this: connect as a member of kodu_admin with "
                              "--user ROLE; its password comes from PGPASSWORD or ~/.pgpass",
                              answer.text(0, "role")));
  }
}

}  // namespace

Call& Call::with(const std::string& name, const std::string& type,
                 const std::optional<std::string>& value) {
  if (value) {
    values.push_back(*value);
    arguments +=
        fmt::format("{}{} => ${}::{}", arguments.empty() ? "" : ", ", name, values.size(), type);
  }
  return *this;
}

Call& Call::with(const std::string& name, std::optional<int> value) {
  return value ? with(name, "integer", std::to_string(*value)) : *this;
}

// Checked first, because the server's own message is in its language.
void Call::requireRight(Session& session) const {
  requireRightTo(session, function);
}

void Call::runForEach(Session& session, const std::vector<int>& ids) const {
  std::vector<std::string> all = values;
  all.push_back(fmt::format("{{{}}}", fmt::join(ids, ",")));
  session.query(fmt::format("SELECT count({}(task => id{}{})) FROM unnest(${}::int[]) AS id",
                            function, arguments.empty() ? "" : ", ", arguments, all.size()),
                all);
}

Rows Call::run(Session& session) const {
  requireRight(session);
  return session.query(fmt::format("SELECT * FROM {}({}) AS result", function, arguments), values);
}
