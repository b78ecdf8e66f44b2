// kodunotify: hands the events of koducron to a command or to an HTTP endpoint.

#include <curl/curl.h>
#include <getopt.h>

#include <cstdio>
#include <exception>
#include <memory>
#include <string>

#include "notify/config.h"
#include "notify/delivery.h"
#include "notify/say.h"
#include "notify/stopSignal.h"
#include "notify/target.h"

namespace {

enum ExitStatus { kDone = 0, kFailed = 1, kWrongUsage = 64, kWrongConfig = 78 };

constexpr const char* kHelp =
    "Usage: kodunotify [-f FILE] [--header-file FILE] [--once | --check]\n"
    "\n"
    "Delivers each event of koducron's tasks to a command or to an HTTP endpoint.\n"
    "\n"
    "  -f, --config FILE   Read this configuration (/etc/kodu/notify.yaml)\n"
    "  --header-file FILE  Send the headers in this file, one per line\n"
    "  --once              Deliver the events that are waiting, then exit\n"
    "  --check             Check the configuration, then exit\n"
    "  -h, --help          Print this help, then exit\n"
    "  --version           Print the version, then exit\n"
    "\n"
    "Exit status: 0 after SIGTERM, SIGINT, --once or a successful --check; 64 for a wrong\n"
    "command line; 78 for a configuration that cannot be used; 1 for any other failure.\n";

struct Arguments {
  std::string configFile = "/etc/kodu/notify.yaml";
  std::string headerFile;
  bool isOnce = false, isCheck = false;
  int exitStatus = -1;  // 0 and above: ends at once
};

Arguments parse(int argc, char** argv) {
  enum Long { kHeaderFile = 256, kOnce, kCheck, kVersion };
  // getopt_long takes a pointer. NOLINTNEXTLINE(modernize-avoid-c-arrays)
  static const option kOptions[] = {{"config", required_argument, nullptr, 'f'},
                                    {"header-file", required_argument, nullptr, kHeaderFile},
                                    {"once", no_argument, nullptr, kOnce},
                                    {"check", no_argument, nullptr, kCheck},
                                    {"help", no_argument, nullptr, 'h'},
                                    {"version", no_argument, nullptr, kVersion},
                                    {nullptr, 0, nullptr, 0}};
  Arguments arguments;
  opterr = 0;
  for (int letter = 0; (letter = getopt_long(argc, argv, "f:h", kOptions, nullptr)) != -1;) {
    switch (letter) {
      case 'f':
        arguments.configFile = optarg;
        break;
      case kHeaderFile:
        arguments.headerFile = optarg;
        break;
      case kOnce:
        arguments.isOnce = true;
        break;
      case kCheck:
        arguments.isCheck = true;
        break;
      case 'h':
        std::fputs(kHelp, stdout);
        arguments.exitStatus = kDone;
        return arguments;
      case kVersion:
        std::puts("kodunotify " KODU_VERSION);
        arguments.exitStatus = kDone;
        return arguments;
      default:
        say("unknown option, or an option without its value; see kodunotify --help");
        arguments.exitStatus = kWrongUsage;
        return arguments;
    }
  }
  if (optind < argc) {
    say("unexpected argument: only options are accepted; see kodunotify --help");
    arguments.exitStatus = kWrongUsage;
  }
  return arguments;
}

int runWith(const Arguments& arguments) {
  NotifyConfig config = readNotifyConfig(arguments.configFile);
  if (!arguments.headerFile.empty()) {
    config.headerFile = arguments.headerFile;
  }
  checkFiles(config);
  if (arguments.isCheck) {
    std::printf("%s is valid: reader %s, %s\n", plain(arguments.configFile).c_str(),
                config.reader.c_str(), config.url.empty() ? "to a command" : "to an HTTP endpoint");
    return kDone;
  }
  const StopSignal stop;
  const std::unique_ptr<Target> target =
      config.url.empty() ? makeCommandTarget(config) : makeHttpTarget(config);
  Delivery(config, *target, stop).run(arguments.isOnce);
  return kDone;
}

}  // namespace

int main(int argc, char** argv) {
  const Arguments arguments = parse(argc, argv);
  if (arguments.exitStatus >= 0) {
    return arguments.exitStatus;
  }
  curl_global_init(CURL_GLOBAL_DEFAULT);
  try {
    return runWith(arguments);
  } catch (const ConfigError& e) {
    say(e.what());
    return kWrongConfig;
  } catch (const std::exception& e) {
    say(e.what());
    return kFailed;
  }
}
