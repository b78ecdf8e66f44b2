// Who may use the console: logins, sessions and where a request comes from.

#include <fmt/format.h>

#include <chrono>
#include <string>
#include <string_view>

#include "ctl/failure.h"
#include "ctl/session/config.h"
#include "ctl/session/session.h"
#include "web/console.h"
#include "web/password.h"
#include "web/people.h"

namespace {

constexpr const char* kCookie = "kodu_session";

std::string cookieText(const std::string& value, bool isEncrypted) {
  return fmt::format("{}={}; Path=/; HttpOnly; SameSite=Strict{}{}", kCookie, value,
                     isEncrypted ? "; Secure" : "", value.empty() ? "; Max-Age=0" : "");
}

/// Counts itself while it exists.
class Counted {
 public:
  explicit Counted(std::atomic<int>& number) : place(++number), count(number) {}
  ~Counted() { --count; }
  Counted(const Counted&) = delete;
  Counted& operator=(const Counted&) = delete;

  const int place;

 private:
  std::atomic<int>& count;
};

}  // namespace

Console::Caller Console::callerOf(const HttpRequest& request) {
  const std::string cookie = cookieOf(request, kCookie);
  if (const auto session = sessions.use(cookie, std::chrono::steady_clock::now())) {
    return {session->role, session, session->mayChange && !options.isReadOnly};
  }
  if (!options.anonymous.empty() && isAnonymousAllowed) {
    return {options.anonymous, std::nullopt, false};
  }
  throw Refusal(401, "Log in first.");
}

void Console::requireSameOrigin(const Visit& visit) const {
  const std::string expected =
      (visit.isEncrypted ? "https://" : "http://") + visit.request.header("Host");
  if (visit.request.header("Origin") != expected) {
    throw Refusal(403, "The request does not come from a page of this console: its Origin is not " +
                           expected + ".");
  }
}

HttpResponse Console::login(const Visit& visit) {
  if (!visit.request.header("Origin").empty()) {
    requireSameOrigin(visit);
  }
  const Json::Value body = objectIn(visit.request);
  const std::string role = textIn(body, "role").value_or("");
  requirePassword(visit, role, textIn(body, "password").value_or(""));
  const Person person = personOf(role);
  if (!person.isAllowed) {
    throw Refusal(403, fmt::format("The role {} may not use the console. An administrator of the "
                                   "database allows it with SELECT kodu_web_allow('{}').",
                                   role, role));
  }
  const bool mayChange = person.mayChange && !options.isReadOnly;
  const auto begun = sessions.begin(role, person.mayChange, std::chrono::steady_clock::now());
  Json::Value json;
  json["role"] = role;
  json["may_change"] = mayChange;
  json["token"] = begun.session.token;
  HttpResponse response = jsonAnswer(json);
  response.headers.emplace_back("Set-Cookie", cookieText(begun.cookie, visit.isEncrypted));
  return response;
}

void Console::requirePassword(const Visit& visit, const std::string& role,
                              const std::string& password) {
  constexpr int kMostChecks = 3;  // each takes a thread, and a connection of the database
  const Counted check(passwordChecks);
  if (check.place > kMostChecks) {
    throw Refusal(503, "Many logins are being checked. Try again in a moment.");
  }
  if (!failedLogins.begin(visit.address, role, std::chrono::steady_clock::now())) {
    ++refusedLogins;
    throw Refusal(429, "Too many logins have failed. Try again in a minute.");
  }
  std::string reason;
  const auto config = readConfig(options.session.configFile, options.session.user);
  const PasswordCheck result = checkPassword(config, role, password, reason);
  if (result == PasswordCheck::kWrong) {
    ++refusedLogins;
    throw Refusal(401, "The role or the password is wrong.");
  }
  failedLogins.succeed(visit.address, role);
  if (result == PasswordCheck::kNoDatabase) {
    pool.report("a login could not be checked: " + reason);
    throw Refusal(503,
                  "The database does not answer, so the password cannot be checked. Try again "
                  "in a moment.");
  }
  if (result == PasswordCheck::kNotAsked) {
    ++refusedLogins;
    pool.report(
        fmt::format("the login of {} was refused: the server lets this role in without a "
                    "password; pg_hba.conf must ask for one",
                    role));
    throw Refusal(403,
                  "The database does not ask this role for a password, so it cannot log in here.");
  }
}

HttpResponse Console::logout(const Visit& visit) {
  const Caller caller = callerOf(visit.request);
  requireOwnPage(visit, caller);
  sessions.end(caller.session->id);
  feed->end(caller.session->id);
  HttpResponse response{204, ""};
  response.headers.emplace_back("Set-Cookie", cookieText("", visit.isEncrypted));
  return response;
}

HttpResponse Console::showSession(const Caller& caller) const {
  Json::Value json;
  json["role"] = caller.role;
  json["may_change"] = caller.mayChange;
  json["token"] = caller.session ? caller.session->token : "";
  json["anonymous"] = !caller.session;
  json["read_only"] = options.isReadOnly;
  return jsonAnswer(json);
}

/// With the console's own rights.
Person Console::personOf(const std::string& role) {
  Watcher::People people;
  pool.run("none", Access::kRead, [&](Session& session) { people = readPeople(session); });
  return people[role];
}

void Console::usePeople(const Watcher::People& people) {
  const auto isAllowed = [&](const std::string& role) {
    const auto found = people.find(role);
    return found != people.end() && found->second.isAllowed;
  };
  for (const std::string& role : sessions.roles()) {
    if (isAllowed(role)) {
      sessions.setMayChange(role, people.at(role).mayChange);
    } else {
      endSessionsOf(role);
    }
  }
  isAnonymousAllowed = isAllowed(options.anonymous);
  sessions.endOld(std::chrono::steady_clock::now());
  // Also of sessions that made room for newer ones, or ended just before their stream began.
  feed->endWhere([&](const std::string& key) {
    return key.empty() ? !isAnonymousAllowed.load() : !sessions.contains(key);
  });
}

void Console::endSessionsOf(const std::string& role) {
  for (const std::string& id : sessions.endOf(role)) {
    feed->end(id);
  }
}
