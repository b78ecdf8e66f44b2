#include "ctl/session/moment.h"

#include "ctl/session/session.h"
#include "ctl/terminal/zone.h"

namespace {

// The server reads the text as a number of units, as a time of day, or as a time. $2 is the sign of
// a duration; "" where it is none. The text for infinity is empty: the functions of the database
// refuse that time by its own name.
constexpr const char* kMoment = R"(
SELECT COALESCE(NULLIF(to_char(CASE
           WHEN $2 <> '' AND $1 ~* '^( *[0-9.]+ *(s|secs?|seconds?|m|mins?|minutes?|h|hours?|d|days?|w|weeks?))+ *$'
               THEN now() + ($2 || '1')::int * $1::interval
           WHEN $1 ~ '^ *[0-9]{1,2}:[0-9]{2}(:[0-9]{2})? *$'
               THEN (SELECT CASE $2 WHEN '-' THEN max(moment) FILTER (WHERE moment <= now())
                            ELSE min(moment) FILTER (WHERE moment > now()) END
                     FROM (SELECT (day || ' ' || $1)::timestamptz AS moment
                           FROM unnest(ARRAY['yesterday', 'today', 'tomorrow']) AS day) AS moments)
           ELSE $1::timestamptz END AT TIME ZONE 'UTC', 'YYYY-MM-DD"T"HH24:MI:SS"Z"'), ''), $1) AS moment)";

const char* signOf(MomentRule rule) {
  switch (rule) {
    case MomentRule::kNextOrDuration:
      return "+";
    case MomentRule::kLastOrDuration:
      return "-";
    case MomentRule::kNext:
      break;
  }
  return "";
}

void setZone(Session& session, const std::string& zone) {
  session.query("SELECT set_config('timezone', $1, false)", {zone});
}

}  // namespace

std::optional<std::string> momentOf(Session& session, const std::optional<std::string>& text,
                                    MomentRule rule) {
  if (!text) {
    return std::nullopt;
  }
  setZone(session, zoneName());
  std::string moment = session.query(kMoment, {*text, signOf(rule)}).text(0, "moment");
  setZone(session, "UTC");  // as all other statements expect it
  return moment;
}
