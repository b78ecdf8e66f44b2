#include "ctl/commandLine.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "core/globals.h"
#include "ctl/command/commands.h"
#include "ctl/failure.h"
#include "ctl/help.h"
#include "ctl/terminal/print.h"

namespace {

constexpr const char* kPluginArgument = "ARGUMENT";

/// The text of an option: "COUNT (20)".
std::string valueWithDefault(const std::string& value, const std::string& standard) {
  return fmt::format("{} ({})", value, standard);
}

/// The parser and the request that it fills. This is the only place that defines commands and
/// options: help, man page, documentation and completions are generated from it.
///
/// Descriptions are sentences without a full stop; details of a command are in its footer. An
/// option with a value has the text "VALUE" or "VALUE (DEFAULT)". Completion goes by the value's
/// name: FILE and PLUGIN are paths, ID is a task's id.
class Parser {
 public:
  Parser() {
    app.require_subcommand(1);
    app.fallthrough();
    app.formatter_fn([](const CLI::App* command, const std::string&, CLI::AppFormatMode) {
      return helpText(describe(*command));
    });
    app.footer(
        "koductl COMMAND --help describes a command. Commands that change tasks or plan need "
        "--user with a member of kodu_admin. Intervals and times have the syntax of PostgreSQL: "
        "90s, 5m or 1 day, and 2026-12-01 08:00 or tomorrow. Times are UTC.");
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
      request.exitCode = reportParseError(e);
    }
    return request;
  }

  CommandDescription description() const { return describe(app); }

 private:
  void addCommonOptions() {
    options.configFile = pathToConfigFile;
    app.add_option("-f,--config", options.configFile,
                   "Read the daemon's main INI file from FILE; it names the database file and the "
                   "folder of the output files")
        ->option_text(valueWithDefault("FILE", options.configFile));
    app.add_option("--user", options.user,
                   "Connect to the database as ROLE; the password comes from PGPASSWORD or "
                   "~/.pgpass; where the database file cannot be read, the database comes from "
                   "PGHOST, PGPORT and PGDATABASE or from PGSERVICE")
        ->option_text("ROLE (the role of the daemon)");
    addTimeout("--lock-timeout", options.lockTimeout,
               "Wait at most SECONDS for a lock; 0 sets no limit");
    addTimeout("--statement-timeout", options.statementTimeout,
               "Wait at most SECONDS for a statement; 0 sets no limit");
    app.add_flag("--json", options.asJson, "Print data as JSON");
    app.set_help_flag("-h,--help", "Print help and exit; after a command, help for this command");
    app.set_version_flag("--version", std::string("koductl " KODU_VERSION),
                         "Print the version and exit");
  }

  void addTimeout(const char* name, int& seconds, const char* description) {
    app.add_option(name, seconds, description)
        ->option_text(valueWithDefault("SECONDS", std::to_string(seconds)))
        ->check(CLI::Range(0, 86400));
  }

  /// A command of the present group.
  CLI::App* addCommand(const char* name, const char* description, int (*command)(const Options&)) {
    CLI::App* sub = app.add_subcommand(name, description);
    sub->group(group);
    sub->fallthrough();
    sub->callback([this, command] { request.run = command; });
    return sub;
  }

  /// A command about one task.
  CLI::App* addTaskCommand(const char* name, const char* description,
                           int (*command)(const Options&)) {
    CLI::App* sub = addCommand(name, description, command);
    sub->add_option("ID", options.id, "Id of the task; koductl status lists the ids")
        ->required()
        ->check(CLI::Range(0, 2147483647));
    return sub;
  }

  void addReadingCommands() {
    group = "Show tasks";
    addStatus();
    addTaskCommand("show", "Show everything that is known about a task", runShow)
        ->footer(
            "This includes its plugin and arguments, interval, status, due times, retries, "
            "failures "
            "and files.");
    addTaskCommand("explain", "Explain in sentences what a task does, and why", runExplain)
        ->footer(
            "The sentences say when the task was due, what it waits for, how many retries are "
            "used and since when it has been failing. They also say whether its plugin can be run, "
            "whether its output can be written and which rule set its next run.");
    addOutputs();
    CLI::App* check =
        addCommand("check", "Find what prevents the daemon or its tasks from working", runCheck);
    check->add_flag("--quick", options.isQuick, "Skip the checks of single tasks");
    check->footer(
        "The INI files, the log, the folders, the connection, the rights in the database and "
        "every task are checked. The ten tasks that are due next are listed. The exit status "
        "is 0 without findings, 1 with warnings only, and 2 with errors.");
  }

  void addStatus() {
    CLI::App* status = addCommand("status", "List the tasks", runStatus);
    status->footer(
        "A task is late when its run was due more than two seconds ago and has not started.");
    status->add_flag("--failed", options.onlyFailed, "List only tasks that are failing");
    status->add_flag("--late", options.onlyLate, "List only tasks that are late");
    status->add_flag("--output", options.withOutput,
                     "Show the first line of each task's last output");
    status->add_flag("--watch", options.watch, "Refresh the list every second until Ctrl-C");
  }

  /// Commands about the runs of a task.
  void addOutputs() {
    CLI::App* history =
        addTaskCommand("history", "List the failed runs of a task, the latest first", runHistory);
    history->add_option("-n,--count", options.count, "List at most COUNT runs")
        ->option_text(valueWithDefault("COUNT", std::to_string(options.count)))
        ->check(CLI::Range(1, 1000000));

    CLI::App* output = addTaskCommand("output", "Print the output of a task's last run", runOutput);
    output->footer("With --follow and --json, each output is one JSON object.");
    output->add_option("ARCHIVED", options.archived,
                       "Print the output of this failed run instead: its number or its file name, "
                       "as koductl history lists them");
    output->add_flag("--follow", options.follow, "Print the output of each new run until Ctrl-C");

    addTaskCommand("rerun", "Run a task's plugin as the daemon does, without changing anything",
                   runRerun)
        ->footer(
            "The plugin gets the arguments, the user, the folder and the empty environment that "
            "the daemon gives it. Its output is followed by the return code and by the differences "
            "from the stored output. The exit status is the return code.");
  }

  void addChangingCommands() {
    group = "Change tasks";
    addAdd();
    addSet();
    CLI::App* pause =
        addTaskCommand("pause", "Keep a task from running until it is resumed", runPause);
    pause->footer(
        "A run in progress is completed first, with its retries. A restart of the daemon does not "
        "end the pause.");
    pause->add_option("--reason", options.reason, "Record the reason of the pause")
        ->option_text("TEXT");
    addTaskCommand("resume", "Let a paused task run again", runResume);
    addTaskCommand("run", "Run a task now", runNow)
        ->footer(
            "The run is due in three seconds. If a run is in progress, the new run follows it. "
            "Later "
            "runs follow at the interval of the task.");
    CLI::App* remove =
        addTaskCommand("delete", "Delete a task, its files and its history", runDelete);
    remove->footer(
        "The daemon deletes them within four minutes. If a run is in progress, the four minutes "
        "begin when it ends.");
    remove->add_flag("--yes", options.isConfirmed, "Do not ask for confirmation");
  }

  void addAdd() {
    CLI::App* add = addCommand("add", "Add a task", runAdd);
    add->footer(
        "The daemon runs PLUGIN every INTERVAL with the arguments that follow --. A plugin that "
        "cannot be run on this machine causes a warning.");
    add->add_option("PLUGIN", options.plugin,
                    "Name of the plugin in the catalogue, or path of its program")
        ->required();
    addDefinition(add);
    add->get_option("--every")->required();
    add->add_option("--first", options.next, "Time of the first run")
        ->option_text("TIME (in 3 seconds)");
    add->add_option("--timeout", options.timeout,
                    "End a run after this time, by running the plugin through koduguard")
        ->option_text("INTERVAL (no limit)");
  }

  void addSet() {
    CLI::App* set = addTaskCommand("set", "Change a task", runSet);
    set->footer(
        "Settings that are not given do not change. The arguments that follow -- replace all "
        "arguments of the plugin; -- alone removes them. The time limit of a task does not "
        "change.");
    set->add_option("--plugin", options.plugin, "Run another plugin: its name or path")
        ->option_text("PLUGIN");
    addDefinition(set);
    set->add_option("--next", options.next, "Time of the next run; later runs follow from it")
        ->option_text("TIME");
  }

  /// What add and set share.
  void addDefinition(CLI::App* sub) {
    sub->add_option("--name", options.name,
                    "Name of the task; a new task has the name of its plugin")
        ->option_text("TEXT");
    sub->add_option("--every", options.every,
                    "Interval of the runs, such as 90s, 5m or 1h: whole seconds, at most 366 days")
        ->option_text("INTERVAL");
    sub->add_option("--retries", options.retries,
                    "Number of retries after a failed run; a new task has 1")
        ->option_text("COUNT")
        ->check(CLI::Range(0, 1000000));
    sub->add_option("--retry-after", options.retryAfter,
                    "Time from a run's due time to that of its retry; a new task has 120s")
        ->option_text("INTERVAL");
    sub->add_option("--file", options.fileName,
                    "Name of the output file, with $DATE; a new task has $SERVICEID_$DATE.txt")
        ->option_text("NAME");
    // Described only: splitPluginArguments reads these, and the parser gives none to an argument
    // that expects none.
    sub->add_option(kPluginArgument)
        ->description("Argument of the plugin; it cannot be empty or contain a quote")
        ->expected(0);
  }

  void addPlanningCommands() {
    group = "Plan and clean up";
    CLI::App* forecast = addCommand(
        "forecast", "Show the runs that are due in the next hours and the workers they need",
        runForecast);
    forecast->add_option("HOURS", options.hours, "How many hours to look ahead, at most 168")
        ->option_text(valueWithDefault("HOURS", options.hours));
    forecast
        ->add_option("--run-seconds", options.runSeconds, "Assume that each run takes this long")
        ->option_text(valueWithDefault("SECONDS", options.runSeconds));
    forecast
        ->add_option(
            "--took", options.took,
            "Assume that the runs of task ID take this long, such as 7=12.5; can be repeated")
        ->option_text("ID=SECONDS")
        ->expected(1)
        ->allow_extra_args(false)
        ->take_all();

    CLI::App* stagger = addCommand(
        "stagger", "Propose times that spread tasks of equal interval evenly", runStagger);
    stagger->footer(
        "Paused tasks are not moved, nor are tasks whose next run is more than one interval "
        "ahead.");
    stagger->add_flag("--apply", options.apply, "Set the proposed times");
    stagger->add_option("--longest", options.longest, "Do not move tasks with a longer interval")
        ->option_text(valueWithDefault("INTERVAL", options.longest));

    CLI::App* prune = addCommand(
        "prune", "Delete old history and the archived outputs that belong to it", runPrune);
    prune->footer(
        "Files are deleted before rows, so a second call completes an interrupted one. Run it as "
        "the daemon's user or as root: it needs the right to delete the daemon's files. "
        "Without this right it deletes nothing.");
    prune
        ->add_option("--older-than", options.olderThan,
                     "Delete what is older than this, such as 30d")
        ->option_text("INTERVAL")
        ->required();
  }

  void addSchemaCommand() {
    CLI::App* schema = addCommand(
        "schema", "Show the version of the database's tables, or upgrade them", runSchema);
    schema->footer(
        "The exit status is 0 if the tables have the version of this koductl, 1 if they are older "
        "and 2 if they are newer. All other commands refuse newer tables. An upgrade is one "
        "transaction, and the daemon may keep running. Only the owner of the tables or a superuser "
        "can upgrade them.");
    schema
        ->add_option("ACTION", options.schemaAction,
                     "With upgrade, bring the tables to the version of this koductl")
        ->check(CLI::IsMember({"upgrade"}));
    schema->add_flag("--dry-run", options.isDryRun, "Perform the upgrade, then roll it back");
    schema
        ->add_option("--wait", options.waitSeconds,
                     "Try for SECONDS while other sessions use the tables")
        ->option_text(valueWithDefault("SECONDS", std::to_string(options.waitSeconds)))
        ->check(CLI::Range(0, 86400));
    schema
        ->add_option("--connect", options.connection,
                     "Connect with the libpq connection string CONNINFO instead of the INI file; "
                     "the password "
                     "comes from PGPASSWORD or ~/.pgpass")
        ->option_text("CONNINFO");
  }

  /// Called before the library parses them: it would take the arguments after "--" as its own
  /// positionals.
  void splitPluginArguments(std::vector<std::string>& arguments) {
    const auto separator = std::find(arguments.begin(), arguments.end(), "--");
    if (separator != arguments.end()) {
      options.pluginArguments = std::vector<std::string>(separator + 1, arguments.end());
      arguments.erase(separator, arguments.end());
    }
  }

  /// Prints help, version or the error of the command line.
  int reportParseError(const CLI::ParseError& e) {
    const std::vector<std::string> unknown = app.remaining();
    if (app.get_subcommands().empty() && !unknown.empty()) {
      printError("koductl: unknown command {}; koductl --help lists the commands\n",
                 oneLine(unknown.front()));
      return kWrongUsage;
    }
    if (e.get_exit_code() == 0) {
      std::ostringstream text;
      const int exitCode = app.exit(e, text);
      print("{}", Styled(text.str()));
      return exitCode;
    }
    const auto commands = app.get_subcommands();
    printError("koductl: {}; see koductl {}--help\n", oneLine(e.what()),
               commands.empty() ? "" : commands.front()->get_name() + " ");
    return kWrongUsage;
  }

  void refuseStrayArguments() const {
    const auto commands = app.get_subcommands();
    const bool isTaken = std::any_of(commands.begin(), commands.end(), [](const CLI::App* sub) {
      return sub->get_option_no_throw(kPluginArgument) != nullptr;
    });
    if (options.pluginArguments && !isTaken) {
      throw CLI::ArgumentMismatch("only add and set accept plugin arguments after --");
    }
  }

  Request request;
  Options& options = request.options;
  CLI::App app{"Show and change the tasks of koducron", "koductl"};
  const char* group = "";  // of the commands that are added
};

}  // namespace

Request parseCommandLine(int argc, const char* const* argv) {
  return Parser().parse(std::vector<std::string>(argv + 1, argv + argc));
}

CommandDescription describeCommandLine() {
  return Parser().description();
}
