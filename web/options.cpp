#include "web/options.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <sstream>
#include <stdexcept>
#include <vector>

#include <boost/asio/ip/address.hpp>

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
  printError("koduweb: {}; see koduweb --help\n", e.what());
  return kWrongUsage;
}

/// Throws std::invalid_argument.
std::string addressIn(const std::string& text) {
  boost::system::error_code error;
  const auto address = boost::asio::ip::make_address(text, error);
  if (error) {
    throw std::invalid_argument(fmt::format("--trusted-proxy: '{}' is not an IP address", text));
  }
  return address.to_string();
}

/// Passwords must not cross a network in clear text.
void requireProtection(const WebOptions& options) {
  if (!options.tls && options.trustedProxies.empty() &&
      !boost::asio::ip::make_address(options.listen.host).is_loopback()) {
    throw std::invalid_argument(
        fmt::format("--listen: passwords would cross the network to {} without encryption: give "
                    "--tls-certificate and --tls-key, or --trusted-proxy for a proxy that has them",
                    options.listen.host));
  }
}

}  // namespace

WebRequest parseWebOptions(int argc, const char* const* argv) {
  WebRequest request;
  WebOptions& options = request.options;
  options.session.configFile = pathToConfigFile;
  options.session.user = "kodu_web";
  std::string address = fmt::format("{}:{}", options.listen.host, options.listen.port);
  std::vector<std::string> proxies;
  HttpTls tls;
  CLI::App app("Serves the web console of koducron.");
  app.add_option("-f,--config", options.session.configFile,
                 "Read the daemon's main INI file from FILE; it names the database file. If that "
                 "cannot be read, PGHOST, PGPORT and PGDATABASE or PGSERVICE name the database. "
                 "The password of the role kodu_web comes from PGPASSWORD or ~/.pgpass")
      ->option_text(fmt::format("FILE ({})", options.session.configFile));
  app.add_option("--listen", address,
                 "Listen on this IP address and port; port 0 selects a free port")
      ->option_text(fmt::format("ADDRESS:PORT ({})", address));
  app.add_option("--page", options.pageDirectory, "Serve the files of the page from DIR")
      ->option_text(fmt::format("DIR ({})", options.pageDirectory));
  auto* certificate = app.add_option("--tls-certificate", tls.certificateFile,
                                     "Serve HTTPS with the certificate and its chain in FILE (PEM)")
                          ->option_text("FILE");
  auto* key = app.add_option("--tls-key", tls.keyFile, "The certificate's key is in FILE (PEM)")
                  ->option_text("FILE");
  certificate->needs(key);
  key->needs(certificate);
  app.add_option("--trusted-proxy", proxies,
                 "Believe X-Forwarded-For and X-Forwarded-Proto of requests from ADDRESS; can be "
                 "given several times")
      ->option_text("ADDRESS");
  app.add_option("--anonymous", options.anonymous,
                 "Show everything to everybody, with the rights of ROLE to read, for wall displays")
      ->option_text("ROLE");
  app.add_flag("--read-only", options.isReadOnly, "Refuse all changes");
  app.set_help_flag("-h,--help", "Print help and exit");
  app.set_version_flag("--version", "koduweb " KODU_VERSION, "Print the version and exit");
  try {
    app.parse(argc, argv);
    options.listen = parseHttpAddress(address);
    for (const std::string& proxy : proxies) {
      options.trustedProxies.insert(addressIn(proxy));
    }
    if (!tls.certificateFile.empty()) {
      options.tls = tls;
    }
    requireProtection(options);
    request.isToRun = true;
  } catch (const CLI::ParseError& e) {
    request.exitCode = printParseError(app, e);
  } catch (const std::invalid_argument& e) {
    printError("koduweb: {}\n", e.what());
    request.exitCode = kWrongUsage;
  }
  return request;
}
