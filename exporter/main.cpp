// koduexporter: serves the metrics of koducron to Prometheus.

#include <algorithm>
#include <clocale>
#include <csignal>
#include <memory>
#include <stdexcept>

#include "common/http/server.h"
#include "ctl/failure.h"
#include "ctl/session/config.h"
#include "ctl/terminal/print.h"
#include "exporter/monitor.h"
#include "exporter/options.h"
#include "exporter/pages.h"

namespace {

void reportState(const std::string& problem) {
  if (problem.empty()) {
    printError("koduexporter: the database answers\n");
  } else {
    printError("koduexporter: no answer from the database: {}\n", problem);
  }
}

int serve(const ExporterOptions& options) {
  // A database that is away is a metric; a file that cannot be read is a mistake.
  readConfig(options.session.configFile, options.session.user);
  MonitorLimits limits;
  limits.countEvery = options.countEvery;
  limits.collectEvery = std::min(limits.collectEvery, options.countEvery);
  std::unique_ptr<Monitor> monitor;
  const Scrape scrape = [&monitor](std::chrono::milliseconds limit) {
    return monitor->scrape(Monitor::Clock::now() + limit);
  };
  HttpServer server(options.listen, [&](const HttpRequest& request) {
    return exporterPage(request, scrape, options.timeout);
  });
  printError("koduexporter: listening on {} port {}\n", options.listen.host, server.port());
  // After the line above: a session that connects captures what is written to standard error.
  monitor = std::make_unique<Monitor>(options.session, limits, reportState);
  server.run();
  return kDone;
}

int fail(const std::string& reason, int exitCode) {
  printError("koduexporter: {}\n", reason);
  return exitCode;
}

}  // namespace

int main(int argc, char* argv[]) {
  std::setlocale(LC_CTYPE, "C.UTF-8");
  std::signal(SIGPIPE, SIG_IGN);  // a journal that is gone is no reason to end
  const ExporterRequest request = parseExporterOptions(argc, argv);
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
