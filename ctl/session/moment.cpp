#include "ctl/session/moment.h"

#include "ctl/session/session.h"
#include "ctl/terminal/zone.h"

namespace {

// The server reads the text as a number of units, as a time of day, or as a time. The text for
// infinity is empty: the functions of the database refuse that time by its own name.
constexpr const char* kMoment = R"(
SELECT COALESCE(NULLIF(to_char(CASE
           WHEN $2 = 't' AND $1 ~* '^( *[0-9.]+ *(s|secs?|seconds?|m|mins?|minutes?|h|hours?|d|days?|w|weeks?))+ *$'
               THEN now() + $1::interval
           WHEN $1 ~ '^ *[0-9]{1,2}:[0-9]{2}(:[0-9]{2})? *$'
               THEN CASE WHEN ('today ' || $1)::timestamptz > now() THEN ('today ' || $1)::timestamptz
                         ELSE ('tomorrow ' || $1)::timestamptz END
           ELSE $1::timestamptz END AT TIME ZONE 'UTC', 'YYYY-MM-DD"T"HH24:MI:SS"Z"'), ''), $1) AS moment)";

void setZone(Session& session, const std::string& zone) {
  session.query("SELECT set_config('timezone', $1, false)", {zone});
}

}  // namespace

std::optional<std::string> momentOf(Session& session, const std::optional<std::string>& text,
                                    bool mayBeDuration) {
  if (!text) {
    return std::nullopt;
  }
  setZone(session, zoneName());
  std::string moment = session.query(kMoment, {*text, mayBeDuration ? "t" : "f"}).text(0, "moment");
  setZone(session, "UTC");  // as all other statements expect it
  return moment;
}
