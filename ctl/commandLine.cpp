#include "ctl/commandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <string>
#include <vector>

#include "core/globals.h"
#include "ctl/commands.h"
#include "ctl/failure.h"

namespace {

/// The parser with everything it fills.
class Parser {
 public:
  Parser() {
    app.require_subcommand(1);
    app.fallthrough();
    app.get_formatter()->column_width(28);
    addCommonOptions();
    addReadingCommands();
  }

  Request parse(std::vector<std::string> arguments) {
    splitPluginArguments(arguments);
    std::reverse(arguments.begin(), arguments.end());  // as the library wants them
    try {
      app.parse(arguments);
    } catch (const CLI::ParseError& e) {
      request.run = nullptr;
      request.exitCode = app.exit(e) == 0 ? kDone : kWrongUsage;
    }
    return request;
  }

 private:
  void addCommonOptions() {
    options.configFile = pathToConfigFile;
    app.add_option("-f,--config", options.configFile, "The daemon's main INI file")
        ->option_text("FILE (" + options.configFile + ")");
    app.add_option("--user", options.user,
                   "Connect as this role, with its password from PGPASSWORD or ~/.pgpass")
        ->option_text("ROLE");
    app.add_flag("--json", options.asJson, "Print data as JSON");
    app.set_version_flag("--version", std::string("koductl " KODU_VERSION));
  }

  CLI::App* addCommand(const char* name, const char* description, int (*command)(const Options&)) {
    CLI::App* sub = app.add_subcommand(name, description);
    sub->fallthrough();
    sub->callback([this, command] { request.run = command; });
    return sub;
  }

  /// A command about one task.
  CLI::App* addTaskCommand(const char* name, const char* description,
                           int (*command)(const Options&)) {
    CLI::App* sub = addCommand(name, description, command);
    sub->add_option("ID", options.id, "The task's id")->required()->check(CLI::NonNegativeNumber);
    return sub;
  }

  void addReadingCommands() {
    CLI::App* status = addCommand("status", "List the tasks", runStatus);
    status->add_flag("--failed", options.onlyFailed, "Only tasks that fail");
    status->add_flag("--late", options.onlyLate, "Only tasks that should have begun by now");
    status->add_flag("--watch", options.watch, "Show it anew each second, until Ctrl-C");

    addTaskCommand("show", "Show all that is known of a task", runShow);

    CLI::App* history = addTaskCommand("history", "List a task's failed runs", runHistory);
    history->add_option("-n,--count", options.count, "At most so many, the latest")
        ->option_text("COUNT (20)")
        ->check(CLI::PositiveNumber);

    CLI::App* output = addTaskCommand("output", "Print what a task's last run said", runOutput);
    output->add_option("ARCHIVED", options.archived,
                       "A failed run instead: its number or file name in history");
    output->add_flag("--follow", options.follow, "Print each run's output, until Ctrl-C");

    addCommand("check", "Look for what keeps daemon and tasks from working", runCheck);
  }

  /// Before the library sees them: it would join what stands behind "--" to its own positionals.
  void splitPluginArguments(std::vector<std::string>& arguments) {
    const auto separator = std::find(arguments.begin(), arguments.end(), "--");
    if (separator != arguments.end()) {
      options.pluginArguments = std::vector<std::string>(separator + 1, arguments.end());
      arguments.erase(separator, arguments.end());
    }
  }

  Request request;
  Options& options = request.options;
  CLI::App app{"Shows and changes the tasks of koducron", "koductl"};
};

}  // namespace

Request parseCommandLine(int argc, const char* const* argv) {
  return Parser().parse(std::vector<std::string>(argv + 1, argv + argc));
}
