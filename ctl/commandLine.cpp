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
#include "ctl/session/schemaVersion.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/zone.h"

namespace {

constexpr const char* kPluginArgument = "ARGUMENT";
constexpr int kJsonVersion = 1;    // of docs/json.md
constexpr int kPluginUnknown = 3;  // the exit status of a monitoring plugin that cannot tell

/// The text of an option: "COUNT (20)".
std::string valueWithDefault(const std::string& value, const std::string& standard) {
  return fmt::format("{} ({})", value, standard);
}

std::string versionText(bool asJson) {
  return asJson
             ? fmt::format("{{\n  \"json\" : {},\n  \"koductl\" : \"{}\",\n  \"schema\" : {}\n}}",
                           kJsonVersion, KODU_VERSION, knownSchemaVersion())
             : "koductl " KODU_VERSION;
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
        "90s, 5m or 1 day, and 2026-12-01 08:00, 18:30 or tomorrow.");
    addCommonOptions();
    addReadingCommands();
    addChangingCommands();
    addDeclaringCommands();
    addPlanningCommands();
    addLedgerCommand();
    addSchemaCommand();
    addEarlierNames();
  }

  Request parse(std::vector<std::string> arguments) {
    splitPluginArguments(arguments);
    std::reverse(arguments.begin(), arguments.end());  // as the library wants them
    try {
      app.parse(arguments);
      refuseStrayArguments();
      useZone(options.zone);
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
        ->option_text(valueWithDefault("FILE", options.configFile))
        ->take_last();
    app.add_option("--user", options.user,
                   "Connect to the database as ROLE; the password comes from PGPASSWORD or "
                   "~/.pgpass; where the database file cannot be read, the database comes from "
                   "PGHOST, PGPORT and PGDATABASE or from PGSERVICE")
        ->option_text("ROLE (the role of the daemon)");
    addTimeout("--lock-timeout", options.lockTimeout,
               "Wait at most SECONDS for a lock; 0 sets no limit");
    addTimeout("--statement-timeout", options.statementTimeout,
               "Wait at most SECONDS for a statement; 0 sets no limit");
    app.add_option("--zone", options.zone,
                   "Take and show times in this time zone, such as Europe/Berlin; JSON has UTC")
        ->option_text("ZONE (that of TZ, else of the system)");
    app.add_flag("--json", options.asJson, "Print data as JSON");
    app.set_help_flag("-h,--help", "Print help and exit; after a command, help for this command");
    app.set_version_flag(
        "--version", [this] { return versionText(options.asJson); },
        "Print the version and exit; with --json, also those of the JSON and of the tables");
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

  /// Adds the options that choose tasks. `prefix` goes before those that say something else to the
  /// command: set --name gives a task its name.
  void addSelection(CLI::App* sub, const std::string& prefix = "") {
    Selection& selection = options.selection;
    sub->add_option("ID", selection.ids, "Id of a task; koductl status lists the ids")
        ->check(CLI::Range(0, 2147483647))
        ->take_all();
    sub->add_option("--" + prefix + "name", selection.name,
                    "Only tasks whose name matches GLOB, with * for any characters and ? for one")
        ->option_text("GLOB");
    sub->add_option("--" + prefix + "plugin", selection.plugin,
                    "Only tasks that run a program whose path matches PATH, with * and ?, also "
                    "through koduguard")
        ->option_text("PATH");
    sub->add_flag("--failed", selection.isFailed, "Only tasks that are failing");
    sub->add_flag("--late", selection.isLate, "Only tasks that are late");
    sub->add_flag("--running", selection.isRunning, "Only tasks with a run in progress");
    sub->add_flag("--paused", selection.isPaused, "Only tasks that are paused");
    sub->add_flag("--deleting", selection.isDeleting, "Only tasks that are being deleted");
    sub->add_flag("--never-ran", selection.isNeverRun, "Only tasks that have not run yet");
    sub->add_option(
           "--sort", selection.sort,
           fmt::format("Sort by KEY, the smallest value first, or with \",desc\" the largest; "
                       "the keys are {}",
                       fmt::join(sortKeys(), ", ")))
        ->option_text("KEY (id)");
    sub->add_option("--limit", selection.limit, "Only the first COUNT of these tasks")
        ->option_text("COUNT")
        ->check(CLI::Range(1L, 2147483647L));
    sub->add_option("--after", selection.after,
                    "Only the tasks that follow this key, which the end of a page shows")
        ->option_text("KEY");
    sub->add_flag("--all", options.isAll, "All tasks");
  }

  /// A command that changes the selected tasks.
  CLI::App* addChange(const char* name, const char* description, int (*command)(const Options&),
                      const std::string& prefix = "") {
    CLI::App* sub = addCommand(name, description, command);
    addSelection(sub, prefix);
    sub->add_flag("--yes", options.isConfirmed, "Do not ask for confirmation");
    sub->add_flag("--dry-run", options.isDryRun,
                  "Perform the change, list the tasks, and take it back");
    return sub;
  }

  void addReadingCommands() {
    group = "Show tasks";
    addStatus();
    addCommand("top", "Show late, running, failing and the latest tasks, live", runTop)
        ->footer(
            "Keys select what is shown (a all, l late, r running, f failing, t latest), sort it "
            "(s, S "
            "for the other direction), filter it by name (/), explain the selected task (Enter), "
            "pause it (p), resume it (u), run it (x) and quit (q). With --json, the present state "
            "is "
            "printed once.");
    CLI::App* ids = addCommand("ids", "Print the ids of tasks, one on each line", runIds);
    addSelection(ids);
    ids->add_option("--prefix", options.selection.prefix, "Only ids that begin with DIGITS")
        ->option_text("DIGITS");
    ids->add_flag("--names", options.withNames, "Print the name after a tab");
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
    addCommand("daemon", "Show how the daemon is doing", runDaemon)
        ->footer(
            "This includes its version, start, restarts, workers, tasks and tables, and a verdict. "
            "The exit status is 0 if it works, 1 if it works with difficulties, and 2 if not.");
    CLI::App* check =
        addCommand("check", "Find what prevents the daemon or its tasks from working", runCheck);
    addHealth();
    check->add_flag("--quick", options.isQuick, "Skip the checks of single tasks");
    check->footer(
        "The INI files, the log, the folders, the connection, the rights in the database and "
        "every task are checked. The ten tasks that are due next are listed. The exit status "
        "is 0 without findings, 1 with warnings only, and 2 with errors.");
  }

  /// Its options are those of other monitoring plugins, and a number that is none is UNKNOWN.
  void addHealth() {
    CLI::App* health =
        addCommand("health", "Check the daemon as a plugin of a monitoring system", runHealth);
    health->footer(
        "One line with performance data is printed. The exit status is 0 for OK, 1 for WARNING, 2 "
        "for CRITICAL and 3 for UNKNOWN. It is also CRITICAL when no session of the daemon is "
        "connected, and WARNING when more than one daemon is.");
    health
        ->add_option("-w,--warning", options.warnOverdue,
                     "WARNING when a task is overdue by more than this")
        ->option_text(valueWithDefault("SECONDS", options.warnOverdue));
    health
        ->add_option("-c,--critical", options.criticalOverdue,
                     "CRITICAL when a task is overdue by more than this")
        ->option_text(valueWithDefault("SECONDS", options.criticalOverdue));
    health
        ->add_option("-p,--in-process", options.warnProcess,
                     "WARNING when a task is in PROCESS for longer, counted from the due time of "
                     "the run")
        ->option_text(valueWithDefault("SECONDS", options.warnProcess));
    health
        ->add_option("-e,--failures", options.warnFailures,
                     "WARNING when more runs failed within the last hour")
        ->option_text("COUNT (no limit)");
    health
        ->add_option("-t,--timeout", options.answerTimeout,
                     "CRITICAL when the database does not answer within this time")
        ->option_text(valueWithDefault("SECONDS", options.answerTimeout));
  }

  void addStatus() {
    CLI::App* status = addCommand("status", "List the tasks", runStatus);
    status->footer(
        "A task is late when its run was due more than two seconds ago and has not started. A "
        "terminal shows as many tasks as fit, and the line below them how to see the others; "
        "elsewhere, and with --json, all are listed.");
    addSelection(status);
    status->add_flag("--output", options.withOutput,
                     "Show the first line of each task's last output");
    status->add_flag(
        "--watch", options.watch,
        "Refresh the list until Ctrl-C: the tasks that it shows every second, which ones these "
        "are and their number less often when there are many");
  }

  /// Commands about the runs of a task.
  void addOutputs() {
    CLI::App* history = addTaskCommand(
        "history", "List the runs of a task and the periods without a run, the latest first",
        runHistory);
    history->footer(
        "Runs come from the ledger. Failed runs have a number for koductl output, and are listed "
        "even if the ledger no longer contains them.");
    history->add_option("-n,--count", options.count, "List at most COUNT runs")
        ->option_text(valueWithDefault("COUNT", std::to_string(options.count)))
        ->check(CLI::Range(1, 1000000));
    addAccount();

    CLI::App* logs = addCommand(
        "logs", "Print what the latest runs of a task printed, the latest last", runLogs);
    logs->footer(
        "The daemon keeps the output of the latest run and copies of those of failed runs. Each "
        "output follows a line with its time; with --count 1, the output is printed alone and "
        "unchanged. With --follow and no ID, the outputs of all tasks are printed as they are "
        "written. With --follow and --json, each output is one JSON object. After logs, -f means "
        "--follow.");
    logs->add_option("ID", options.onlyTask, "Id of the task; koductl status lists the ids")
        ->check(CLI::Range(0, 2147483647));
    logs->add_option("-n,--count", options.outputs, "Print at most COUNT outputs")
        ->option_text(valueWithDefault("COUNT", std::to_string(options.outputs)))
        ->check(CLI::Range(1, 1000000));
    logs->add_flag("-f,--follow", options.follow, "Print the output of each new run until Ctrl-C");
    logs->add_flag("--failed", options.onlyFailed, "Print only outputs of failed runs");

    CLI::App* test = addTaskCommand(
        "test", "Run a task's plugin as the daemon does, without changing anything", runTest);
    test->alias("rerun");
    test->footer(
        "The plugin gets the arguments, the user, the folder and the empty environment that "
        "the daemon gives it. As root, and when the daemon is the unit koducron.service, it also "
        "runs in the unit's sandbox. Its output is followed by the return code and by the "
        "differences from the stored output. The exit status is the return code. An earlier name "
        "of this command, rerun, works in this release.");
  }

  void addAccount() {
    CLI::App* account = addCommand(
        "account", "Show for each task how many periods had a run, and why the others had none",
        runAccount);
    account->footer(
        "Periods are runs or are skipped for a reason. The exit status is 1 if the sum does not "
        "match, which should never happen. A pattern may contain * and ?.");
    account->add_option("ID", options.accountIds, "Ids of tasks; all tasks without an id")
        ->check(CLI::Range(0, 2147483647));
    account->add_option("--name", options.accountName, "Only tasks whose name matches PATTERN")
        ->option_text("PATTERN");
    account
        ->add_option("--plugin", options.accountPlugin,
                     "Only tasks whose plugin's path matches PATTERN")
        ->option_text("PATTERN");
    account->add_option("--since", options.since, "Count what ended at TIME or later")
        ->option_text("TIME (as far back as the ledger goes)");
  }

  void addChangingCommands() {
    group = "Change tasks";
    addAdd();
    addSet();
    addPause();
    addChange("resume", "Let paused tasks run again", runResume);
    CLI::App* now = addChange("run", "Run tasks now", runNow);
    now->footer(
        "The run is due in three seconds. If a run is in progress, the new run follows it. Later "
        "runs follow at the interval of the task. With --wait, the exit status is 0 when the run "
        "ended OK and 1 when it FAILED, after its retries.");
    now->add_flag("--wait", options.isAwaited,
                  "Wait for the end of the run of one task and print its output")
        ->excludes("--dry-run");
    addChange("delete", "Delete tasks, their files and their history", runDelete)
        ->footer(
            "The daemon deletes them within four minutes; until then, koductl undelete keeps them. "
            "If a run is in progress, the four minutes begin when it ends.");
    addChange("undelete", "Keep tasks that are being deleted", runUndelete)
        ->footer(
            "This is possible until the daemon removes the task. A task whose removal begins at "
            "the same moment can lose its files and its history.");
  }

  void addPause() {
    CLI::App* pause = addChange(
        "pause", "Keep tasks from running until they are resumed, or until a time", runPause);
    pause->footer(
        "A run in progress is completed first, with its retries. A restart of the daemon does not "
        "end the pause.");
    pause->add_option("--reason", options.reason, "Record the reason of the pause")
        ->option_text("TEXT");
    pause
        ->add_option("--until", options.until,
                     "End the pause at this time, or after this time: as 18:00 or 2h; the next run "
                     "is the first regular one from then on")
        ->option_text("TIME (no end)");
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
    add->add_flag("--if-missing", options.ifMissing,
                  "Do nothing when there is a task with this key already")
        ->needs("--key");
  }

  void addSet() {
    CLI::App* set = addChange("set", "Change tasks", runSet, "where-");
    set->footer(
        "Settings that are not given do not change. The arguments that follow -- replace all "
        "arguments of the plugin; -- alone removes them.");
    set->add_option("--plugin", options.plugin, "Run another plugin: its name or path")
        ->option_text("PLUGIN");
    addDefinition(set);
    CLI::Option* timeout =
        set->add_option("--timeout", options.timeout,
                        "End a run after this time, by running the plugin through koduguard")
            ->option_text("INTERVAL");
    set->add_flag("--no-timeout", options.isUnlimited, "Let runs take any time")->excludes(timeout);
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
    sub->add_option("--key", options.key,
                    "Key of the task, which identifies it whatever its name is; two tasks cannot "
                    "have the same key")
        ->option_text("KEY");
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
        "Without conditions, the history of all tasks is meant, and nothing is asked. "
        "Files are deleted before rows, so a second call completes an interrupted one. Run it "
        "as the daemon's user or as root: it needs the right to delete the daemon's files. "
        "Without this right it deletes nothing.");
    addSelection(prune);
    prune->add_flag("--yes", options.isConfirmed, "Do not ask for confirmation");
    prune->add_flag("--dry-run", options.isDryRun, "Count what would be deleted");
    prune
        ->add_option("--older-than", options.olderThan,
                     "Delete what is older than this, such as 30d")
        ->option_text("INTERVAL")
        ->required();
  }

  void addDeclaringCommands() {
    group = "Declare tasks";
    CLI::App* exported =
        addCommand("export", "Write tasks as YAML, or with --json as JSON", runExport);
    exported->footer(
        "Without conditions, all tasks are written, always in the order of their keys. Settings "
        "with their default are left out. A task without a key has the key task-ID. koductl apply "
        "reads both forms.");
    addSelection(exported);
    exported->add_option("--set", options.set, "Write only the tasks of this set, and its name")
        ->option_text("SET");

    CLI::App* apply =
        addCommand("apply", "Bring the tasks of the database to what files declare", runApply);
    apply->footer(
        "All changes are one transaction: a mistake in any file changes nothing. A plan shows what "
        "is added (+), changed (~) and deleted (-). A second call changes nothing.");
    apply
        ->add_option(
            "FILE", options.source,
            "A YAML or JSON file, a directory of *.yaml and *.yml files, or - for standard "
            "input")
        ->required();
    apply->add_flag("--dry-run", options.isDryRun, "Try all of it, but change nothing");
    apply->add_flag("--prune", options.isPruning,
                    "Delete the tasks of the set that the files no longer declare");
    apply->add_flag("--yes", options.isConfirmed, "Do not ask for confirmation of deletions");
  }

  void addLedgerCommand() {
    CLI::App* ledger = addCommand(
        "ledger", "Show the state of the ledger of all runs, or change its settings", runLedger);
    ledger->footer(
        "on and off switch it; keep DAYS sets for how long it keeps single runs. These need --user "
        "with a member of kodu_admin. Summaries are kept for longer.");
    ledger->add_option("ACTION", options.ledgerAction, "What to do: on, off, keep or status")
        ->option_text(valueWithDefault("ACTION", options.ledgerAction))
        ->check(CLI::IsMember({"on", "off", "keep", "status"}));
    ledger->add_option("DAYS", options.ledgerDays, "With keep: from 1 to 30 days")
        ->check(CLI::Range(1, 30));
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
    addCommand("repair", "Mark runs as FAILED that a daemon left unfinished", runRepair)
        ->footer(
            "It is for the time before a start of the daemon: while one is connected, nothing is "
            "changed. Each of these runs gets a row in kodu_cron_repair. The next time of a task "
            "stays.");
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

  /// Commands of the first release that another one has replaced.
  void addEarlierNames() {
    group = "Earlier names";
    CLI::App* output = addTaskCommand(
        "output", "Print the output of a task's last run; the next release has only logs",
        runOutput);
    output->add_option("ARCHIVED", options.archived,
                       "Print the output of this failed run instead: its number or its file name, "
                       "as koductl history lists them");
    output->add_flag("--follow", options.follow, "Print the output of each new run until Ctrl-C");
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
    if (!commands.empty() && commands.front()->get_name() == "health") {
      print("KODUCRON UNKNOWN - {}; see koductl health --help\n", oneLine(e.what()));
      return kPluginUnknown;
    }
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
