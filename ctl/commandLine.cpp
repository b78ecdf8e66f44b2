#include "ctl/commandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <string>
#include <vector>

#include "core/globals.h"
#include "ctl/commands.h"
#include "ctl/failure.h"
#include "ctl/print.h"

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
    addChangingCommands();
    addPlanningCommands();
    addSchemaCommand();
  }

  Request parse(std::vector<std::string> arguments) {
    splitPluginArguments(arguments);
    std::reverse(arguments.begin(), arguments.end());  // as the library wants them
    try {
      app.parse(arguments);
      refuseStrayArguments();
    } catch (const CLI::ParseError& e) {
      request.run = nullptr;
      request.exitCode = explain(e);
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
    addTimeout("--lock-timeout", options.lockTimeout, "Wait so long for a lock; 0: for ever");
    addTimeout("--statement-timeout", options.statementTimeout,
               "Wait so long for a statement; 0: for ever");
    app.add_flag("--json", options.asJson, "Print data as JSON");
    app.set_version_flag("--version", std::string("koductl " KODU_VERSION));
  }

  void addTimeout(const char* name, int& seconds, const char* description) {
    app.add_option(name, seconds, description)
        ->option_text("SECONDS (" + std::to_string(seconds) + ")")
        ->check(CLI::Range(0, 86400));
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
    sub->add_option("ID", options.id, "The task's id")
        ->required()
        ->check(CLI::Range(0, 2147483647));
    return sub;
  }

  void addReadingCommands() {
    CLI::App* status = addCommand("status", "List the tasks", runStatus);
    status->add_flag("--failed", options.onlyFailed, "Only tasks that fail");
    status->add_flag("--late", options.onlyLate, "Only tasks that should have begun by now");
    status->add_flag("--output", options.withOutput, "Show what the last runs said first");
    status->add_flag("--watch", options.watch, "Show it anew each second, until Ctrl-C");

    addTaskCommand("show", "Show all that is known of a task", runShow);
    addTaskCommand("explain", "Say in sentences what goes on with a task", runExplain);

    CLI::App* history = addTaskCommand("history", "List a task's failed runs", runHistory);
    history->add_option("-n,--count", options.count, "At most so many, the latest")
        ->option_text("COUNT (20)")
        ->check(CLI::Range(1, 1000000));

    CLI::App* output = addTaskCommand("output", "Print what a task's last run said", runOutput);
    output->add_option("ARCHIVED", options.archived,
                       "A failed run instead: its number or file name in history");
    output->add_flag("--follow", options.follow, "Print each run's output, until Ctrl-C");

    addTaskCommand("rerun", "Run a task's plugin as the daemon does, and change nothing", runRerun);
    CLI::App* check =
        addCommand("check", "Look for what keeps daemon and tasks from working", runCheck);
    check->add_flag("--quick", options.isQuick, "Look at no single task");
  }

  void addChangingCommands() {
    CLI::App* add = addCommand("add", "Add a task: add PLUGIN --every 5m -- ARGUMENTS", runAdd);
    add->add_option("PLUGIN", options.plugin, "Its name in the catalogue, or its path")->required();
    addDefinition(add);
    add->get_option("--every")->required();
    add->add_option("--first", options.next, "The first run (a moment ahead)");
    add->add_option("--timeout", options.timeout, "End a run after this, by koduguard");

    CLI::App* set = addTaskCommand("set", "Change a task: set ID --every 5m -- ARGUMENTS", runSet);
    set->add_option("--plugin", options.plugin, "Name or path");
    addDefinition(set);
    set->add_option("--next", options.next, "The next run");
    takesPluginArguments = {add, set};

    CLI::App* pause = addTaskCommand("pause", "Keep a task from running", runPause);
    pause->add_option("--reason", options.reason, "Kept with the pause");
    addTaskCommand("resume", "Let a paused task run again", runResume);
    addTaskCommand("run", "Run a task now", runRun);
    CLI::App* remove = addTaskCommand("delete", "Delete a task and its files", runDelete);
    remove->add_flag("--yes", options.isConfirmed, "Do not ask");
  }

  /// What add and set share.
  void addDefinition(CLI::App* sub) {
    sub->add_option("--name", options.name, "What the task is called");
    sub->add_option("--every", options.every, "Its interval, as 90s, 5m, 1h");
    sub->add_option("--retries", options.retries, "Retries of a failed run")
        ->check(CLI::Range(0, 1000000));
    sub->add_option("--retry-after", options.retryAfter, "From a run's due time to its retry's");
    sub->add_option("--file", options.fileName, "Output file, with $DATE and $SERVICEID");
  }

  void addPlanningCommands() {
    CLI::App* forecast = addCommand("forecast", "Tell what is due in the next hours", runForecast);
    forecast->add_option("HOURS", options.hours, "How far to look (1)");
    forecast->add_option("--run-seconds", options.runSeconds, "What a run takes (1)");
    forecast->add_option("--took", options.took, "What a task's run takes, as 7=12.5; repeatable")
        ->expected(1)
        ->take_all();

    CLI::App* stagger = addCommand("stagger", "Propose times that spread the tasks", runStagger);
    stagger->add_flag("--apply", options.apply, "Set them");
    stagger->add_option("--longest", options.longest, "Leave longer intervals alone (1 hour)");

    CLI::App* prune = addCommand("prune", "Delete old history and archived outputs", runPrune);
    prune->add_option("--older-than", options.olderThan, "As 30d")->required();
  }

  void addSchemaCommand() {
    CLI::App* schema =
        addCommand("schema", "Show the version of the database's tables, or upgrade", runSchema);
    schema
        ->add_option("ACTION", options.schemaAction,
                     "upgrade: bring them to the version of this koductl")
        ->check(CLI::IsMember({"upgrade"}));
    schema->add_flag("--dry-run", options.isDryRun, "Try the whole upgrade, then take it back");
    schema->add_option("--wait", options.waitSeconds, "Try so long while others use the tables")
        ->option_text("SECONDS (60)")
        ->check(CLI::Range(0, 86400));
    schema
        ->add_option("--connect", options.connection,
                     "A connection as libpq reads it, instead of the INI file's")
        ->option_text("CONNINFO");
  }

  /// Before the library sees them: it would join what stands behind "--" to its own positionals.
  void splitPluginArguments(std::vector<std::string>& arguments) {
    const auto separator = std::find(arguments.begin(), arguments.end(), "--");
    if (separator != arguments.end()) {
      options.pluginArguments = std::vector<std::string>(separator + 1, arguments.end());
      arguments.erase(separator, arguments.end());
    }
  }

  /// Prints help, version or what is wrong with the command line.
  int explain(const CLI::ParseError& e) {
    const std::vector<std::string> unknown = app.remaining();
    if (app.get_subcommands().empty() && !unknown.empty()) {
      printError("koductl: there is no command {}; koductl --help lists them\n",
                 oneLine(unknown.front()));
      return kWrongUsage;
    }
    if (e.get_exit_code() == 0) {
      return app.exit(e);
    }
    const auto commands = app.get_subcommands();
    printError("koductl: {}; koductl {}--help tells more\n", oneLine(e.what()),
               commands.empty() ? "" : commands.front()->get_name() + " ");
    return kWrongUsage;
  }

  void refuseStrayArguments() const {
    const bool isTaken = std::any_of(takesPluginArguments.begin(), takesPluginArguments.end(),
                                     [](const CLI::App* sub) { return sub->parsed(); });
    if (options.pluginArguments && !isTaken) {
      throw CLI::ArgumentMismatch("only add and set take a plugin's arguments behind --");
    }
  }

  Request request;
  Options& options = request.options;
  CLI::App app{"Shows and changes the tasks of koducron", "koductl"};
  std::vector<const CLI::App*> takesPluginArguments;
};

}  // namespace

Request parseCommandLine(int argc, const char* const* argv) {
  return Parser().parse(std::vector<std::string>(argv + 1, argv + argc));
}
