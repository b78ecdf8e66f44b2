#include "ctl/task/placement.h"

#include <fmt/format.h>

#include "core/iniConfig.h"
#include "ctl/session/session.h"
#include "ctl/terminal/text.h"

namespace {

constexpr const char* kHasHosts = R"(
SELECT COALESCE(has_table_privilege(to_regclass('public.kodu_task_host'), 'SELECT'), FALSE)
       AS has_hosts)";

constexpr const char* kPlacement = R"(
SELECT host, moved_from, floor(EXTRACT(EPOCH FROM moved_at))::bigint AS moved_at,
       (SELECT own.host FROM kodu_host AS own WHERE own.host = $2) AS own_host
FROM kodu_task_host WHERE id = $1)";

}  // namespace

std::vector<std::string> Placement::sentences() const {
  std::vector<std::string> texts;
  if (!ownHost.empty() && ownHost != host) {
    texts.push_back(fmt::format(
        "It runs on the host {}, and its files are there, not on this machine, which is "
        "the host {}.",
        host, ownHost));
  } else {
    texts.push_back(fmt::format("It runs on the host {}.", host));
  }
  if (!movedFrom.empty() && movedAt) {
    texts.push_back(
        fmt::format("It came from the host {} at {}; the outputs of earlier runs are on the "
                    "machine of that host.",
                    movedFrom, zonedTime(*movedAt)));
  }
  return texts;
}

std::optional<Placement> readPlacement(Session& session, int task) {
  if (!session.query(kHasHosts).isTrue(0, "has_hosts")) {
    return std::nullopt;
  }
  const Rows row = session.query(kPlacement, {std::to_string(task), trim(session.config.user)});
  if (row.count() == 0) {
    return std::nullopt;
  }
  return Placement{row.text(0, "host"), row.text(0, "own_host"), row.text(0, "moved_from"),
                   row.optionalNumber(0, "moved_at")};
}
