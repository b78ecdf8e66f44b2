#include "exporter/options.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "core/globals.h"
#include "ctl/failure.h"
#include "ctl/terminal/print.h"

namespace {

int printParseError(const CLI::App& app, const CLI::ParseError& e) {
  if (e.get_exit_code() == 0) {
    std::ostringstream text;
    const int exitCode = app.exit(e, text);
    print("{}", text.str());
    return exitCode;
  }
  printError("koduexporter: {}; see koduexporter --help\n", e.what());
  return kWrongUsage;
}

}  // namespace

ExporterRequest parseExporterOptions(int argc, const char* const* argv) {
  ExporterRequest request;
  ExporterOptions& options = request.options;
  options.session.configFile = pathToConfigFile;
  std::string address = "127.0.0.1:9464";
  int timeout = static_cast<int>(options.timeout.count() / 1000);
  int countEvery = static_cast<int>(options.countEvery.count() / 1000);
  CLI::App app{"Serve the metrics of koducron to Prometheus, at /metrics", "koduexporter"};
  app.add_option("-f,--config", options.session.configFile,
                 "Read the daemon's main INI file from FILE; it names the database file")
      ->option_text(fmt::format("FILE ({})", options.session.configFile));
  app.add_option("--user", options.session.user,
                 "Connect to the database as ROLE, such as kodu_monitor; its password comes from "
                 "PGPASSWORD or ~/.pgpass. If the database file cannot be read, the environment "
                 "names the database: PGHOST, PGPORT and PGDATABASE, or PGSERVICE")
      ->option_text("ROLE (the role of the daemon)");
  app.add_option("--listen", address,
                 "Listen on this IP address and port; port 0 selects a free port")
      ->option_text(fmt::format("ADDRESS:PORT ({})", address));
  app.add_option("--timeout", timeout,
                 "Answer a scrape within SECONDS, even if the database does not answer")
      ->option_text(fmt::format("SECONDS ({})", timeout))
      ->check(CLI::Range(1, 600));
  app.add_option(
         "--count-every", countEvery,
         "Read all tasks every SECONDS, or less often if reading takes more than a twentieth "
         "of this time")
      ->option_text(fmt::format("SECONDS ({})", countEvery))
      ->check(CLI::Range(1, 3600));
  app.set_help_flag("-h,--help", "Print help and exit");
  app.set_version_flag("--version", "koduexporter " KODU_VERSION, "Print the version and exit");
  try {
    app.parse(argc, argv);
    options.listen = parseHttpAddress(address);
    options.timeout = std::chrono::seconds(timeout);
    options.countEvery = std::chrono::seconds(countEvery);
    request.isToRun = true;
  } catch (const CLI::ParseError& e) {
    request.exitCode = printParseError(app, e);
  } catch (const std::invalid_argument& e) {
    printError("koduexporter: --listen: {}\n", e.what());
    request.exitCode = kWrongUsage;
  }
  return request;
}
