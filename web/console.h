#pragma once

#include <atomic>
#include <functional>
#include <optional>
#include <string>

#include "common/http/server.h"
#include "web/failedLogins.h"
#include "web/options.h"
#include "web/pageFiles.h"
#include "web/pool.h"
#include "web/request.h"
#include "web/watcher.h"
#include "web/webSessions.h"

/// What the console answers: the files of the page, and the paths below /api/v1/. The server calls
/// answer() in several threads at once.
class Console {
 public:
  Console(WebOptions given, Pool& databaseSessions, PageFiles pageFiles);

  HttpResponse answer(const HttpRequest& request);

  /// Ends the sessions of roles that may not log in any more; of the others, takes over what they
  /// may do.
  void usePeople(const Watcher::People& people);

  /// The streams of all viewers.
  HttpFeed& viewers() { return *feed; }
  /// Set before the server runs.
  Watcher* watcher = nullptr;
  std::function<std::size_t()> connections;

 private:
  /// Who asks.
  struct Caller {
    std::string role;
    std::optional<WebSession> session;  // nothing: anonymous
    bool mayChange = false;
  };
  /// A request, and what a trusted proxy says about it.
  struct Visit {
    const HttpRequest& request;
    std::string address;
    bool isEncrypted = false;
  };

  HttpResponse route(const Visit& visit);
  HttpResponse answerApi(const Visit& visit, const std::string& path);
  HttpResponse read(const Visit& visit, const std::string& path, const Caller& caller);
  HttpResponse change(const Visit& visit, const std::string& path, const Caller& caller);
  HttpResponse login(const Visit& visit);
  HttpResponse logout(const Visit& visit);
  HttpResponse showSession(const Caller& caller) const;
  HttpResponse stream(const Caller& caller);
  HttpResponse metrics() const;

  Visit visitOf(const HttpRequest& request) const;
  Caller callerOf(const HttpRequest& request);
  /// Throws Refusal.
  void requireSameOrigin(const Visit& visit) const;
  void requireOwnPage(const Visit& visit, const Caller& caller) const;
  void requirePassword(const Visit& visit, const std::string& role, const std::string& password);
  Person personOf(const std::string& role);
  void endSessionsOf(const std::string& role);

  const WebOptions options;
  Pool& pool;
  const PageFiles pages;
  const std::shared_ptr<HttpFeed> feed = std::make_shared<HttpFeed>();
  WebSessions sessions;
  FailedLogins failedLogins;
  std::atomic<int> passwordChecks = 0;           // in progress
  std::atomic<bool> isAnonymousAllowed = false;  // until the roles are read
  std::atomic<long> requests = 0, refusedLogins = 0;
};
