// koduweb: the web console of koducron.

#include <clocale>
#include <csignal>
#include <memory>
#include <stdexcept>

#include "common/http/server.h"
#include "ctl/failure.h"
#include "ctl/session/config.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/zone.h"
#include "web/console.h"
#include "web/options.h"
#include "web/pageFiles.h"
#include "web/pool.h"
#include "web/watcher.h"

namespace {

constexpr std::size_t kPoolSessions = 8;  // ten with the two of the watcher

Options sessionOptions(const WebOptions& options) {
  Options session = options.session;
  session.applicationName = "kodu_web";
  session.connectTimeout = 2;
  session.statementTimeout = 10;
  session.lockTimeout = 2;
  session.namesLockHolders = false;  // by a further connection
  return session;
}

HttpLimits limits() {
  HttpLimits limits;
  limits.connections = 1000;
  limits.headerBytes = 16384;
  // No request needs more. Bodies are accepted before the login, from each of the 1,000 clients.
  limits.bodyBytes = 65536;
  limits.idle = std::chrono::seconds(10);
  limits.handlers = 16;
  return limits;
}

void reportState(Pool& pool, const std::string& problem) {
  pool.report(problem.empty() ? "the database answers" : "no answer from the database: " + problem);
}

int serve(const WebOptions& options) {
  useZone("UTC");
  // A database that is away is shown; a file that cannot be read is a mistake.
  readConfig(options.session.configFile, options.session.user);
  Pool pool(sessionOptions(options), kPoolSessions);
  Console console(options, pool, PageFiles(options.pageDirectory));
  HttpServer server(
      options.listen, [&](const HttpRequest& request) { return console.answer(request); }, limits(),
      options.tls);
  printError("koduweb: listening on {} port {}\n", options.listen.host, server.port());
  // It publishes to clients of the server, so it ends first.
  Watcher watcher(
      pool, console.viewers(), {}, [&](const auto& people) { console.usePeople(people); },
      [&](const std::string& problem) { reportState(pool, problem); });
  console.watcher = &watcher;
  console.connections = [&] { return server.connections(); };
  server.run();
  return kDone;
}

int fail(const std::string& reason, int exitCode) {
  printError("koduweb: {}\n", reason);
  return exitCode;
}

}  // namespace

int main(int argc, char* argv[]) {
  std::setlocale(LC_CTYPE, "C.UTF-8");
  std::signal(SIGPIPE, SIG_IGN);  // a journal that is gone is no reason to end
  const WebRequest request = parseWebOptions(argc, argv);
  if (!request.isToRun) {
    return request.exitCode;
  }
  try {
    return serve(request.options);
  } catch (const Failure& e) {
    return fail(e.what(), e.exitCode);
  } catch (const std::runtime_error& e) {
    return fail(e.what(), kNoDatabase);
  }
}
