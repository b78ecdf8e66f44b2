// What a person changes with the console: with this person's rights, and noted in the audit.

#include <fmt/format.h>

#include <string>

#include "ctl/session/moment.h"
#include "ctl/session/session.h"
#include "web/console.h"
#include "web/secret.h"

namespace {

/// An empty text stands for none.
constexpr const char* kChange =
    "SELECT kodu_web_change($1, $2::int, nullif($3, ''), nullif($4, '')::timestamptz)";

/// What tasks/7/pause asks for.
struct Change {
  std::string action;
  int id = 0;
};

Change changeIn(const std::string& path) {
  constexpr std::string_view kOfTask = "tasks/";
  const auto slash = path.rfind('/');
  const std::string action = path.substr(std::min(slash, path.size() - 1) + 1);
  if (path.starts_with(kOfTask) && slash > kOfTask.size() &&
      (action == "pause" || action == "resume" || action == "run")) {
    if (const auto id = taskIdOf(path.substr(kOfTask.size(), slash - kOfTask.size()))) {
      return {action, *id};
    }
  }
  throw Refusal(404, "There is no such page.");
}

}  // namespace

void Console::requireOwnPage(const Visit& visit, const Caller& caller) const {
  if (!caller.session) {
    throw Refusal(401, "Log in first.");
  }
  requireSameOrigin(visit);
  if (!isSameSecret(visit.request.header("X-Kodu-Token"), caller.session->token)) {
    throw Refusal(403, "The request lacks the session's token: load the page again.");
  }
}

HttpResponse Console::change(const Visit& visit, const std::string& path, const Caller& caller) {
  requireOwnPage(visit, caller);
  const Change wanted = changeIn(path);
  if (options.isReadOnly) {
    throw Refusal(403, "This console changes nothing: it was started with --read-only.");
  }
  if (!caller.mayChange) {
    throw Refusal(403, fmt::format("The role {} may not change tasks. An administrator of the "
                                   "database allows it with GRANT kodu_admin.",
                                   caller.role));
  }
  std::optional<std::string> reason, until;
  if (wanted.action == "pause") {
    const Json::Value body = objectIn(visit.request);
    reason = textIn(body, "reason");
    until = textIn(body, "until");
  }
  constexpr std::size_t kLongest = 1000;
  if (reason.value_or("").size() > kLongest || until.value_or("").size() > kLongest) {
    throw Refusal(400, "The reason is too long: write at most 1,000 characters.");
  }
  pool.run(caller.role, Access::kChange, [&](Session& session) {
    const auto moment = momentOf(session, until, MomentRule::kNextOrDuration);
    session.query(kChange, {wanted.action, std::to_string(wanted.id), reason.value_or(""),
                            moment.value_or("")});
  });
  watcher->tellChange(wanted.id);
  Json::Value done;
  done["done"] = true;
  return jsonAnswer(done);
}
