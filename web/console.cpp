#include "web/console.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <string_view>
#include <utility>

#include "ctl/failure.h"
#include "ctl/session/session.h"
#include "web/taskPages.h"

namespace {

constexpr const char* kApi = "/api/v1/";
constexpr const char* kLogIn = "Log in first.";

// Nothing but what this server sends, and no code within a document.
constexpr const char* kPolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data:; "
    "connect-src 'self'; base-uri 'none'; form-action 'self'; frame-ancestors 'none'; "
    "require-trusted-types-for 'script'; trusted-types 'none'";

void addProtection(HttpResponse& response) {
  for (const auto& [name, value] : {std::pair{"Content-Security-Policy", kPolicy},
                                    {"X-Content-Type-Options", "nosniff"},
                                    {"X-Frame-Options", "DENY"},
                                    {"Referrer-Policy", "no-referrer"},
                                    {"Cross-Origin-Opener-Policy", "same-origin"},
                                    {"Cross-Origin-Resource-Policy", "same-origin"}}) {
    response.headers.emplace_back(name, value);
  }
}

/// How many headers have this name.
long countOf(const HttpRequest& request, std::string_view name) {
  return std::ranges::count_if(request.headers, [&](const auto& header) {
    return std::ranges::equal(header.first, name, [](unsigned char a, unsigned char b) {
      return std::tolower(a) == std::tolower(b);
    });
  });
}

HttpResponse methodRefusal(const char* allowed) {
  HttpResponse refusal = errorAnswer(405, fmt::format("This address answers {} alone.", allowed));
  refusal.headers.emplace_back("Allow", allowed);
  return refusal;
}

unsigned statusOf(const Failure& failure) {
  if (failure.sqlState == "42704") {  // of kodu_task_lock: no such task
    return 404;
  }
  if (failure.sqlState == "55000") {  // it is paused, or being deleted
    return 409;
  }
  switch (failure.exitCode) {
    case kNoDatabase:
      return 503;
    case kNotPermitted:
      return 403;
    case kNotFound:
      return 404;
    default:
      return 400;
  }
}

/// The first line tells what is wrong; the others are for users of koductl.
std::string sentenceOf(const Failure& failure) {
  const std::string text = failure.what();
  const std::string line = text.substr(0, std::min(text.find('\n'), text.find("; ")));
  return failure.exitCode == kNoDatabase
             ? fmt::format("The database does not answer: {}. Try again in a moment.", line)
             : text;
}

}  // namespace

Console::Console(WebOptions given, Pool& databaseSessions, PageFiles pageFiles)
    : options(std::move(given)), pool(databaseSessions), pages(std::move(pageFiles)) {}

HttpResponse Console::answer(const HttpRequest& request) {
  ++requests;
  HttpResponse response;
  try {
    response = route(visitOf(request));
  } catch (const Refusal& e) {
    response = errorAnswer(e.status, e.what());
  } catch (const Failure& e) {
    response = errorAnswer(statusOf(e), sentenceOf(e));
  } catch (const RoleRefused&) {
    response = errorAnswer(401, kLogIn);
  }
  addProtection(response);
  return response;
}

Console::Visit Console::visitOf(const HttpRequest& request) const {
  Visit visit{request, request.peer, options.tls.has_value()};
  if (options.trustedProxies.contains(request.peer)) {
    // A client can send such a header too, so the last address counts, which the proxy has added.
    // Of several headers, the proxy's is not known: it may be the first or the last.
    if (countOf(request, "X-Forwarded-For") > 1 || countOf(request, "X-Forwarded-Proto") > 1) {
      throw Refusal(400, "The proxy must pass on one X-Forwarded-For and one X-Forwarded-Proto.");
    }
    std::string list = request.header("X-Forwarded-For");
    list.erase(0, list.rfind(',') + 1);
    std::erase(list, ' ');
    visit.address = list.empty() ? request.peer : list;
    visit.isEncrypted = request.header("X-Forwarded-Proto") == "https";
  }
  return visit;
}

HttpResponse Console::route(const Visit& visit) {
  const HttpRequest& request = visit.request;
  if (countOf(request, "Host") != 1) {
    throw Refusal(400, "A request needs one Host header.");
  }
  if (request.path.starts_with(kApi)) {
    return answerApi(visit, request.path.substr(std::string_view(kApi).size()));
  }
  if (request.method != "GET" && request.method != "HEAD") {
    return methodRefusal("GET, HEAD");
  }
  if (request.path == "/healthz") {
    return {200, "koduweb is running.\n"};
  }
  if (request.path == "/metrics") {
    return metrics();
  }
  const auto file = pages.answer(request);
  return file ? *file : HttpResponse{404, "There is no such page.\n"};
}

HttpResponse Console::answerApi(const Visit& visit, const std::string& path) {
  const bool isPost = visit.request.method == "POST";
  if (path == "login" || path == "logout") {
    if (!isPost) {
      return methodRefusal("POST");
    }
    return path == "login" ? login(visit) : logout(visit);
  }
  const Caller caller = callerOf(visit.request);
  try {
    if (visit.request.method == "GET") {
      return read(visit, path, caller);
    }
    if (isPost) {
      return change(visit, path, caller);
    }
  } catch (const RoleRefused&) {
    endSessionsOf(caller.role);
    throw;
  }
  return methodRefusal("GET, POST");
}

HttpResponse Console::read(const Visit& visit, const std::string& path, const Caller& caller) {
  if (path == "session") {
    return showSession(caller);
  }
  if (path == "overview") {
    return jsonAnswer(watcher->overview());
  }
  if (path == "stream") {
    return stream(caller);
  }
  const QueryValues values = queryValues(visit.request.query);
  const auto answered = [&](const auto& page) {
    std::string text;
    pool.run(caller.role, Access::kRead, [&](Session& session) { text = page(session); });
    return jsonAnswer(text);
  };
  if (path == "tasks") {
    return answered([&](Session& session) { return tasksPage(session, values); });
  }
  if (path == "tasks/count") {
    return answered([&](Session& session) { return countPage(session, values); });
  }
  constexpr std::string_view kOfTask = "tasks/";
  const std::string rest = path.starts_with(kOfTask) ? path.substr(kOfTask.size()) : "";
  const auto slash = std::min(rest.find('/'), rest.size());
  const std::string page = rest.substr(slash);
  if (const auto id = taskIdOf(rest.substr(0, slash))) {
    if (page.empty()) {
      return answered([&](Session& session) { return taskPage(session, *id); });
    }
    if (page == "/history") {
      return answered([&](Session& session) { return historyPage(session, *id, values); });
    }
    if (page == "/logs") {
      return answered([&](Session& session) { return logsPage(session, *id, values); });
    }
    if (page == "/next") {
      return answered([&](Session& session) { return nextPage(session, *id); });
    }
  }
  throw Refusal(404, "There is no such page.");
}

HttpResponse Console::stream(const Caller& caller) {
  watcher->beginWatch();
  HttpResponse response{200, ": koducron\n\n", "text/event-stream"};
  response.headers.emplace_back("Cache-Control", "no-store");
  response.headers.emplace_back("X-Accel-Buffering", "no");  // nginx would collect the events
  response.feed = feed;
  response.feedKey = caller.session ? caller.session->id : "";
  return response;
}

HttpResponse Console::metrics() const {
  const auto figure = [](const char* name, const char* type, const char* help, auto value) {
    return fmt::format("# HELP koduweb_{0} {2}\n# TYPE koduweb_{0} {1}\nkoduweb_{0} {3}\n", name,
                       type, help, value);
  };
  return {200,
          figure("database_up", "gauge", "Whether the database answers.",
                 watcher->isDatabaseUp() ? 1 : 0) +
              figure("connections", "gauge", "Open connections of clients.", connections()) +
              figure("viewers", "gauge", "Streams of events that are open.", feed->count()) +
              figure("sessions", "gauge", "Sessions of persons.", sessions.count()) +
              figure("requests_total", "counter", "Requests that were answered.", requests.load()) +
              figure("refused_logins_total", "counter", "Logins that were refused.",
                     refusedLogins.load()),
          "text/plain; version=0.0.4; charset=utf-8"};
}
