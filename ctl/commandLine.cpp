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
#include "ctl/terminal/printable.h"
#include "ctl/terminal/zone.h"

namespace {

constexpr const char* kPluginArgument = "ARGUMENT";
constexpr int kJsonVersion = 1;     // of docs/json.md
constexpr int kPluginUnknown = 3;   // the exit status of a monitoring plugin that cannot tell
constexpr int kMostListed = 10000;  // runs and outputs are read before the first is printed

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
        "koductl COMMAND --help describes a command. Commands that change tasks need --user ROLE, "
        "where ROLE is a member of kodu_admin; so do forecast and stagger. Intervals and times "
        "have the syntax of PostgreSQL: 90s, 5m or 1 day, and 2026-12-01 08:00, 18:30 or "
        "tomorrow.");
    addCommonOptions();
    addReadingCommands();
    addChangingCommands();
    addDeclaringCommands();
    addPlanningCommands();
    addLedgerCommand();
    addHostCommand();
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
                   "Connect to the database as ROLE; its password comes from PGPASSWORD or "
                   "~/.pgpass. If the database file cannot be read, the environment names the "
                   "database: PGHOST, PGPORT and PGDATABASE, or PGSERVICE")
        ->option_text("ROLE (the role of the daemon)");
    addTimeout("--lock-timeout", options.lockTimeout,
               "Wait at most SECONDS for a lock; 0 sets no limit");
    addTimeout("--statement-timeout", options.statementTimeout,
               "Wait at most SECONDS for a statement; 0 sets no limit");
    app.add_option("--zone", options.zone,
                   "JSON always has UTC; read and show other times in this time zone, such as "
                   "Europe/Berlin")
        ->option_text("ZONE (that of TZ, otherwise of the system)");
    app.add_flag("--json", options.asJson, "Print data as JSON");
    app.set_help_flag("-h,--help", "Print help and exit; after a command, help for that command");
    app.set_version_flag(
        "--version", [this] { return versionText(options.asJson); },
        "Print the version and exit; with --json, also the versions of the JSON format and of the "
        "tables");
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
    sub->option_defaults()->group("Choosing tasks");
    sub->add_option("ID", selection.ids, "Id of a task; koductl status lists the ids")
        ->check(CLI::Range(0, 2147483647))
        ->take_all();
    sub->add_option("--" + prefix + "name", selection.name,
                    "Only tasks whose name matches GLOB, with * for any characters and ? for one")
        ->option_text("GLOB");
    sub->add_option(
           "--" + prefix + "plugin", selection.plugin,
           "Only tasks whose program's path matches PATH, with * and ?; if a task runs koduguard, "
           "the path of the program that koduguard runs is compared")
        ->option_text("PATH");
    sub->add_flag("--failed", selection.isFailed, "Only tasks that are failing");
    sub->add_flag("--late", selection.isLate, "Only tasks that are late");
    sub->add_flag("--running", selection.isRunning, "Only tasks with a run in progress");
    sub->add_flag("--paused", selection.isPaused, "Only tasks that are paused");
    sub->add_flag("--held", selection.isHeld, "Only tasks that a maintenance window holds");
    sub->add_flag("--deleting", selection.isDeleting, "Only tasks that are being deleted");
    sub->add_flag("--never-ran", selection.isNeverRun, "Only tasks that have not run yet");
    sub->add_option(
           "--sort", selection.sort,
           fmt::format("Sort by KEY, or with KEY,desc in descending order; the keys are {}",
                       fmt::join(sortKeys(), ", ")))
        ->option_text("KEY (id)");
    sub->add_option("--limit", selection.limit, "Only the first COUNT of these tasks")
        ->option_text("COUNT")
        ->check(CLI::Range(1L, 2147483647L));
    sub->add_option("--after", selection.after,
                    "Only the tasks after KEY; a list that was cut off shows KEY in its last line")
        ->option_text("KEY");
    sub->add_flag("--all", options.isAll, "All tasks");
    sub->option_defaults()->group("Options");
  }

  /// A command that changes the selected tasks.
  CLI::App* addChange(const char* name, const char* description, int (*command)(const Options&),
                      const std::string& prefix = "") {
    CLI::App* sub = addCommand(name, description, command);
    addSelection(sub, prefix);
    sub->add_flag("--yes", options.isConfirmed, "Do not ask for confirmation");
    sub->add_flag("--dry-run", options.isDryRun,
                  "Perform the change, list the tasks, and roll back");
    return sub;
  }

  void addReadingCommands() {
    group = "Show tasks";
    addStatus();
    addCommand("top", "Show late, running, failing and recently run tasks, live", runTop)
        ->footer(
            "Keys choose the tasks (a: all, l: late, r: running, f: failing, t: latest runs), "
            "sort them (s; S reverses the order), filter them by name (/), explain the selected "
            "task (Enter), pause it (p), resume it (u), run it (x) and quit (q). With --json, the "
            "current state is printed once.");
    CLI::App* ids = addCommand("ids", "Print the ids of tasks, one per line", runIds);
    addSelection(ids);
    ids->add_option("--prefix", options.selection.prefix, "Only ids that begin with DIGITS")
        ->option_text("DIGITS");
    ids->add_flag("--names", options.withNames, "Print the name after a tab");
    addTaskCommand("show", "Show everything that is known about a task", runShow)
        ->footer(
            "This includes its plugin and arguments, interval, status, due times, retries, "
            "failures and files.");
    addTaskCommand("explain", "Explain in sentences what a task does, and why", runExplain)
        ->footer(
            "The sentences say when the task was due, what it waits for, how many retries are used "
            "and since when it has been failing. They also say whether its plugin can be run, "
            "whether its output can be written and which rule set its next run.");
    CLI::App* next = addTaskCommand("next", "List the coming runs of a task", runNext);
    next->footer("A task that is paused or being deleted has none.");
    next->add_option("-n,--count", options.count, "List at most COUNT runs")
        ->option_text(valueWithDefault("COUNT", std::to_string(options.count)))
        ->check(CLI::Range(1, kMostListed));
    addOutputs();
    addCommand("daemon", "Show the state of the daemon", runDaemon)
        ->footer(
            "This includes its version, start, restarts, workers and tasks, the version of the "
            "tables, and a verdict. The exit status is 0 if it works, 1 if it works but has a "
            "problem, and 2 if it does not work.");
    CLI::App* check =
        addCommand("check", "Find what prevents the daemon or its tasks from working", runCheck);
    addHealth();
    addMetrics();
    check->add_flag("--quick", options.isQuick, "Skip the checks of single tasks");
    check->footer(
        "The INI files, the log, the folders, the connection, the rights in the database and every "
        "task are checked. The ten tasks that are due next are listed. The exit status is 0 "
        "without findings, 1 with warnings only, and 2 with errors.");
  }

  /// Its options are those of other monitoring plugins, and a number that is none is UNKNOWN.
  void addHealth() {
    CLI::App* health =
        addCommand("health", "Check the daemon as a plugin of a monitoring system", runHealth);
    health->footer(
        "One line with performance data is printed. The exit status is 0 for OK, 1 for WARNING, 2 "
        "for CRITICAL and 3 for UNKNOWN. The result is also CRITICAL when no session of the daemon "
        "is connected, and WARNING when more than one daemon is connected.");
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
                     "WARNING when a task has been in PROCESS for longer than this, counted from "
                     "the due time of the run")
        ->option_text(valueWithDefault("SECONDS", options.warnProcess));
    health
        ->add_option("-e,--failures", options.warnFailures,
                     "WARNING when more than COUNT runs failed within the last hour")
        ->option_text("COUNT (no limit)");
    health
        ->add_option("-t,--timeout", options.answerTimeout,
                     "CRITICAL when the database does not answer within this time")
        ->option_text(valueWithDefault("SECONDS", options.answerTimeout));
  }

  void addMetrics() {
    CLI::App* metrics = addCommand(
        "metrics", "Write the metrics that koduexporter serves, for an agent that reads files",
        runMetrics);
    metrics->footer(
        "The text is in the classic format of Prometheus, which node_exporter's textfile collector "
        "reads. If the database does not answer, koducron_database_up is 0 and the exit status is "
        "69.");
    metrics->add_flag("--openmetrics", options.isOpenMetrics, "Write the OpenMetrics format");
    metrics->add_option("--output", options.metricsFile, "Write to FILE, replacing it in one step")
        ->option_text("FILE (standard output)");
  }

  void addStatus() {
    CLI::App* status = addCommand("status", "List the tasks", runStatus);
    status->footer(
        "A task is late when its run was due more than two seconds ago and has not started. On a "
        "terminal, only the tasks that fit are listed, and the last line says how to see the "
        "others. Elsewhere, and with --json, all tasks are listed.");
    addSelection(status);
    status->add_flag("--output", options.withOutput,
                     "Show the first line of each task's last output");
    status->add_flag(
        "--watch", options.watch,
        "Refresh the list every second until Ctrl-C; many tasks are counted and sorted less often");
  }

  /// Commands about the runs of a task.
  void addOutputs() {
    CLI::App* history = addTaskCommand(
        "history", "List the runs of a task and the periods without a run, the latest first",
        runHistory);
    history->footer(
        "Runs come from the ledger. Failed runs have a number that koductl output accepts. They "
        "are listed even if the ledger no longer contains them.");
    history->add_option("-n,--count", options.count, "List at most COUNT runs")
        ->option_text(valueWithDefault("COUNT", std::to_string(options.count)))
        ->check(CLI::Range(1, kMostListed));
    addAccount();
    addEvents();

    CLI::App* logs =
        addCommand("logs", "Print the outputs of a task's latest runs, the latest last", runLogs);
    logs->footer(
        "The daemon keeps the output of the latest run and copies of the outputs of failed runs. A "
        "line with the time precedes each output; with --count 1, the output is printed alone and "
        "unchanged. With --follow and no ID, the outputs of all tasks are printed as they are "
        "written. With --follow and --json, each output is one JSON object. After the word logs, "
        "-f means --follow, not --config.");
    logs->add_option("ID", options.onlyTask, "Id of the task; koductl status lists the ids")
        ->check(CLI::Range(0, 2147483647));
    logs->add_option("-n,--count", options.outputs, "Print at most COUNT outputs")
        ->option_text(valueWithDefault("COUNT", std::to_string(options.outputs)))
        ->check(CLI::Range(1, kMostListed));
    logs->add_flag("-f,--follow", options.follow, "Print the output of each new run until Ctrl-C");
    logs->add_flag("--failed", options.onlyFailed, "Print only outputs of failed runs");

    CLI::App* test = addTaskCommand(
        "test", "Run a task's plugin as the daemon does, but record nothing", runTest);
    test->alias("rerun");
    test->footer(
        "The plugin gets the arguments, the user, the folder and the empty environment that the "
        "daemon gives it. If root calls the command and the unit koducron.service runs the daemon, "
        "the plugin also runs in the unit's sandbox. The output is followed by the return code and "
        "by the differences from the stored output. The exit status is the return code. The "
        "earlier name of this command, rerun, still works in this release.");
  }

  void addAccount() {
    CLI::App* account = addCommand(
        "account", "Show for each task how many periods had a run, and why the others had none",
        runAccount);
    account->footer(
        "A period is the time from one due time to the next. Each period must have a run or a "
        "reason why there was none. If the counts do not add up, "
        "the ledger is at fault and the exit status is 1. A pattern may contain * and ?.");
    account->add_option("ID", options.selection.ids, "Id of a task")
        ->option_text("ID (all tasks)")
        ->take_all()
        ->check(CLI::Range(0, 2147483647));
    account->add_option("--name", options.selection.name, "Only tasks whose name matches PATTERN")
        ->option_text("PATTERN");
    account
        ->add_option("--plugin", options.selection.plugin,
                     "Only tasks whose plugin's path matches PATTERN")
        ->option_text("PATTERN");
    account
        ->add_option("--since", options.since,
                     "Count periods that ended at this time or later, such as yesterday, 18:00, or "
                     "2h for two hours ago")
        ->option_text("TIME (as far back as the ledger goes)");
  }

  void addEvents() {
    CLI::App* events = addCommand(
        "events",
        "Show events: tasks that failed or recovered, runs that were interrupted or skipped",
        runEvents);
    events->footer(
        "An event is printed only after all older transactions have ended, because they can still "
        "add earlier events. With "
        "--reader, the database remembers which events have been printed. The first call creates "
        "the reader; later calls print the events since the previous call. With --follow and "
        "--json, each line is one event. After the word events, -f means "
        "--follow, not --config.");
    CLI::Option* follow =
        events->add_flag("-f,--follow", options.follow, "Print new events until Ctrl-C");
    CLI::Option* reader =
        events
            ->add_option("--reader", options.reader,
                         "Print the events that the reader NAME has not received yet")
            ->option_text("NAME");
    CLI::Option* since =
        events
            ->add_option("--since", options.since,
                         "Begin with the events of this time or later, such as yesterday, 18:00, "
                         "or 2h for two hours ago")
            ->option_text("TIME (a day ago; with --follow, now)");
    CLI::Option* dead =
        events
            ->add_flag("--dead", options.onlyDead,
                       "Print the events that kodunotify could not deliver, each with its key, "
                       "reader and error; with --reader, only those of this reader")
            ->excludes(follow)
            ->excludes(since);
    events
        ->add_option("--redeliver", options.redelivery,
                     "With --reader: let kodunotify deliver the event KEY again; the KEY all means "
                     "every undelivered event")
        ->option_text("KEY")
        ->needs(reader)
        ->excludes(follow)
        ->excludes(since)
        ->excludes(dead);
  }

  void addChangingCommands() {
    group = "Change tasks";
    addAdd();
    addSet();
    addPause();
    addChange("resume", "Let paused tasks run again", runResume);
    addWindow();
    CLI::App* now = addChange("run", "Run tasks now", runNow);
    now->footer(
        "The run is due in three seconds. If a run is in progress, the new run follows it. Later "
        "runs follow at the interval of the task. With --wait, the exit status is 0 if the run "
        "ends OK, and 1 if it has FAILED after its retries.");
    now->add_flag("--wait", options.isAwaited,
                  "Wait for the end of the run of one task and print its output")
        ->excludes(now->get_option("--dry-run"));
    addChange("delete", "Delete tasks, their files and their history", runDelete)
        ->footer(
            "The daemon deletes them within four minutes; until then, koductl undelete can keep "
            "them. If a run is in progress, the four minutes begin when it ends.");
    addChange("undelete", "Keep tasks that are being deleted", runUndelete)
        ->footer(
            "This is possible until the daemon removes the task. A task whose removal begins at "
            "the same moment can lose its files and its history.");
  }

  void addPause() {
    CLI::App* pause = addChange(
        "pause", "Keep tasks from running until they are resumed or until a given time", runPause);
    pause->footer(
        "A run in progress is completed first, with its retries. A restart of the daemon does not "
        "end the pause.");
    pause->add_option("--reason", options.reason, "Record the reason for the pause")
        ->option_text("TEXT");
    pause
        ->add_option("--until", options.until,
                     "End the pause at a time, such as 18:00, or after an interval, such as 2h; "
                     "the next run is the first regular one after it")
        ->option_text("TIME (no end)");
  }

  void addWindow() {
    CLI::App* window = addCommand(
        "window", "Keep tasks from running in maintenance windows, or list the windows", runWindow);
    window->footer(
        "window list shows the windows that have not ended; with --all, all of them. window add "
        "adds a window for the tasks that ID, --name and --plugin choose, now or later: one match "
        "is enough. A run that is due in a window is moved to its end; a run in progress is "
        "completed. window end ID ends windows early: tasks whose time has passed run at once, "
        "spread over the time of --spread.");
    window->add_option("ACTION", options.windowAction, "What to do: list, add or end")
        ->option_text(valueWithDefault("ACTION", options.windowAction))
        ->check(CLI::IsMember({"list", "add", "end"}));
    window
        ->add_option("ID", options.selection.ids,
                     "With add: id of a task; with end: number of a window")
        ->check(CLI::Range(0, 2147483647))
        ->take_all();
    window
        ->add_option("--name", options.windowNames,
                     "With add: tasks whose name matches GLOB, with * for any characters and ? for "
                     "one; can be repeated")
        ->option_text("GLOB")
        ->expected(1)
        ->allow_extra_args(false)
        ->take_all();
    window
        ->add_option("--plugin", options.windowPlugins,
                     "With add: tasks of this plugin, by its name or path; can be repeated")
        ->option_text("PLUGIN")
        ->expected(1)
        ->allow_extra_args(false)
        ->take_all();
    window->add_flag("--all", options.isAll, "With add: all tasks; with list: all windows");
    window->add_option("--reason", options.reason, "With add: the reason for the maintenance")
        ->option_text("TEXT");
    window
        ->add_option("--from", options.windowBegin,
                     "With add: the window begins at a time, such as 18:00, or after an interval")
        ->option_text("TIME (now)");
    window
        ->add_option("--until", options.until,
                     "With add: the window ends at a time, such as 20:00, or after an interval")
        ->option_text("TIME");
    window->add_option("--for", options.windowLength, "With add: the window has this length")
        ->option_text("INTERVAL");
    window
        ->add_option(
            "--at", options.calendar,
            "With add and --for: the window recurs at the times of a calendar, such as 0 2 "
            "* * sun, in the time zone of --zone")
        ->option_text("CALENDAR");
    window
        ->add_option("--spread", options.windowSpread,
                     "With add: spread the runs that the window moves over this time after its end")
        ->option_text(valueWithDefault("INTERVAL", options.windowSpread));
    window->add_flag("--once", options.isOnce,
                     "With end: end a window that recurs only for this time");
    window->add_flag("--dry-run", options.isDryRun, "Show what would be done, but change nothing");
  }

  void addAdd() {
    CLI::App* add = addCommand("add", "Add a task", runAdd);
    add->footer(
        "The daemon runs PLUGIN every INTERVAL, or at the times of a CALENDAR, with the arguments "
        "that follow --. koductl warns if the plugin cannot be run on this machine.");
    add->add_option("PLUGIN", options.plugin,
                    "Name of a plugin in the table kodu_plugins, or path of a program")
        ->required();
    addDefinition(add);
    add->add_option("--first", options.next, "Time of the first run")
        ->option_text("TIME (in 3 seconds; with --at, the calendar's next time)");
    add->add_option("--timeout", options.timeout,
                    "End a run after this time, by running the plugin through koduguard")
        ->option_text("INTERVAL (no limit)");
    add->add_option("--host", options.host, "Add the task for this host, where there are hosts")
        ->option_text("HOST (the default host)");
    add->add_flag("--if-missing", options.ifMissing,
                  "Do nothing if a task with this key exists already")
        ->needs("--key");
  }

  void addSet() {
    CLI::App* set = addChange("set", "Change tasks", runSet, "where-");
    set->footer(
        "Settings that are not given do not change. The arguments that follow -- replace all "
        "arguments of the plugin; -- alone removes them.");
    set->add_option("--plugin", options.plugin, "Run another plugin, given by its name or path")
        ->option_text("PLUGIN");
    addDefinition(set);
    CLI::Option* timeout =
        set->add_option("--timeout", options.timeout,
                        "End a run after this time, by running the plugin through koduguard")
            ->option_text("INTERVAL");
    set->add_flag("--no-timeout", options.isUnlimited, "Remove the time limit")->excludes(timeout);
    set->add_flag("--no-at", options.isWithoutCalendar,
                  "Remove the calendar and run every INTERVAL again")
        ->excludes(set->get_option("--at"));
    set->add_option("--next", options.next,
                    "Time of the next run; later runs follow from it, or from the calendar")
        ->option_text("TIME");
    CLI::Option* metrics = set->add_flag(
        "--metrics", options.isMarked,
        "Include this task in the metrics of koduexporter and koductl metrics; at most 1000 tasks");
    set->add_flag("--no-metrics", options.isUnmarked, "Show no metrics of this task")
        ->excludes(metrics);
  }

  /// What add and set share.
  void addDefinition(CLI::App* sub) {
    sub->add_option("--name", options.name,
                    "Name of the task; a new task has the name of its plugin")
        ->option_text("TEXT");
    sub->add_option("--every", options.every,
                    "Interval of the runs, such as 90s, 5m or 1h: whole seconds, at most 366 days")
        ->option_text("INTERVAL");
    sub->add_option("--at", options.calendar,
                    "Calendar of the runs, such as 0 3 * * mon-fri, in the time zone of --zone; "
                    "the interval of --every then applies only if the calendar cannot be evaluated")
        ->option_text("CALENDAR");
    sub->add_option("--retries", options.retries,
                    "Number of retries after a failed run; a new task has 1")
        ->option_text("COUNT")
        ->check(CLI::Range(0, 1000000));
    sub->add_option("--retry-after", options.retryAfter,
                    "Time between the due times of a run and of its retry; a new task has 120s")
        ->option_text("INTERVAL");
    sub->add_option("--file", options.fileName,
                    "Name of the output file, with $DATE; a new task has $SERVICEID_$DATE.txt")
        ->option_text("NAME");
    sub->add_option("--key", options.key,
                    "Key that identifies the task, even after a change of its name; two tasks "
                    "cannot have the same key")
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

    CLI::App* stagger =
        addCommand("stagger", "Propose next times that spread tasks with the same interval evenly",
                   runStagger);
    stagger->footer(
        "Paused tasks are not moved, nor are tasks whose next run is more than one interval "
        "ahead.");
    stagger->add_flag("--apply", options.apply, "Set the proposed times");
    stagger->add_option("--longest", options.longest, "Do not move tasks with a longer interval")
        ->option_text(valueWithDefault("INTERVAL", options.longest));

    CLI::App* prune = addCommand(
        "prune", "Delete old history and the archived outputs that belong to it", runPrune);
    prune->footer(
        "Without conditions, it deletes the history of all tasks and does not ask. Files are "
        "deleted before rows, so a second call completes an interrupted one. Run it as the "
        "daemon's user or as root: it needs the right to delete the daemon's files. Without this "
        "right it deletes nothing.");
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
        "that have their default are left out. A task without a key is written with the key "
        "task-ID. koductl apply reads both formats. If a task cannot be written, a warning says "
        "why, and the exit status is 65.");
    addSelection(exported);
    exported
        ->add_option("--set", options.set,
                     "Write only the tasks of this set, with the name of the set")
        ->option_text("SET");
    exported->add_flag("--partial", options.isPartial,
                       "Exit with status 0 even if tasks cannot be written");

    CLI::App* apply = addCommand(
        "apply", "Make the tasks in the database match the declarations in files", runApply);
    apply->footer(
        "All changes are one transaction: an error in any file prevents them all. A plan shows "
        "what is added (+), changed (~) and deleted (-). A second call changes nothing.");
    apply
        ->add_option(
            "FILE", options.source,
            "A YAML or JSON file, a directory of *.yaml and *.yml files, or - for standard input")
        ->required();
    apply->add_flag("--dry-run", options.isDryRun,
                    "Perform the changes, show the plan, and roll back");
    apply->add_flag("--prune", options.isPruning,
                    "Delete the set's tasks that the files no longer declare");
    apply->add_flag("--yes", options.isConfirmed, "Do not ask for confirmation of deletions");
    addImport();
  }

  void addImport() {
    CLI::App* imported = addCommand(
        "import", "Write the jobs of other schedulers as YAML that koductl apply reads", runImport);
    imported->footer(
        "The format crontab reads crontabs as crontab(5) describes them. The format nagios reads "
        "files with definitions of objects, and files with values of $USER1$ and so on; give all "
        "of them in one call. The format pg_cron reads "
        "the table cron.job, as psql --csv -c 'SELECT * FROM cron.job' or psql -c "
        "'COPY cron.job TO STDOUT' writes it; its times are in UTC unless --zone is given. "
        "Standard error reports each line that is left out, with the reason, and what else differs "
        "from the original. The database is not used. A second import of a changed file gives the "
        "same tasks the same keys.");
    imported
        ->add_option("FORMAT", options.importFormat,
                     "Format of the files: crontab, nagios or pg_cron")
        ->required()
        ->check(CLI::IsMember({"crontab", "nagios", "pg_cron"}));
    imported
        ->add_option("FILE", options.sources,
                     "A file, - for standard input, or a directory; of a directory with crontabs, "
                     "the files that cron reads, of one with objects, all files *.cfg below it")
        ->required()
        ->take_all();
    imported
        ->add_option("--set", options.set,
                     "Declare the tasks as those of this set, and begin their keys with its name")
        ->option_text("SET (no set; the name of the crontab or the format begins the keys)");
    imported->add_flag("--strict", options.isStrict,
                       "Write nothing and exit with status 65 if a line is left out");
    imported->add_flag("--system", options.hasUsers,
                       "The lines of crontabs name a user before the command, as in /etc/crontab "
                       "and the files of a directory cron.d, which are recognized");
  }

  void addLedgerCommand() {
    CLI::App* ledger = addCommand(
        "ledger", "Show the state of the ledger of all runs, or change its settings", runLedger);
    ledger->footer(
        "ledger on starts it, and ledger off stops it. ledger keep DAYS sets how long single runs "
        "are kept; summaries are kept longer. These actions need --user ROLE, where ROLE is a "
        "member of kodu_admin.");
    ledger->add_option("ACTION", options.ledgerAction, "What to do: on, off, keep or status")
        ->option_text(valueWithDefault("ACTION", options.ledgerAction))
        ->check(CLI::IsMember({"on", "off", "keep", "status"}));
    ledger->add_option("DAYS", options.ledgerDays, "With keep: from 1 to 30 days")
        ->check(CLI::Range(1, 30));
  }

  void addHostCommand() {
    CLI::App* host = addCommand("host", "Show the hosts, or move tasks between them", runHost);
    host->footer(
        "A host is the database role that one daemon uses; each task belongs to one host. host "
        "list prints the names of the hosts, and host status what each does. host add HOST adds a "
        "host with a role of this name; host remove HOST removes one that has no tasks. host "
        "default HOST makes it the host of new tasks. host takeover HOST TARGET gives all tasks of "
        "a failed host to "
        "another; runs in progress count as FAILED. host watch does so by itself whenever a host "
        "is silent, until SIGTERM or Ctrl-C; koducron-watch.service runs it. The other actions "
        "move tasks between hosts whose daemons work, and interrupt no run. host move HOST TARGET "
        "moves tasks to another host. host drain HOST prepares maintenance: its tasks and all new "
        "ones go to the other hosts. host return HOST ends that, and gives back the tasks that "
        "others got from it by drain or takeover. host balance moves tasks until all hosts have "
        "the same expected load, with the time of runs from the ledger if it is loaded. Actions "
        "that change tasks need --user ROLE, where ROLE is a member of kodu_admin; add and remove "
        "need a superuser or the owner of the tables.");
    const std::vector<std::string> actions = {"list",    "status",   "add",    "remove",
                                              "move",    "drain",    "return", "balance",
                                              "default", "takeover", "watch"};
    host->add_option("ACTION", options.hostAction,
                     "What to do: list, status, add, remove, move, drain, return, balance, "
                     "default, takeover or watch")
        ->option_text(valueWithDefault("ACTION", options.hostAction))
        ->check(CLI::IsMember(actions));
    host->add_option("HOST", options.hosts, "Name of a host; takeover and move need two")
        ->expected(0, 2);
    host->add_option("--tasks", options.hostTasks, "With move: move at most COUNT tasks")
        ->option_text("COUNT (all)")
        ->check(CLI::Range(1L, 2147483647L));
    host->add_option("--password-file", options.passwordFile,
                     "With add: give the role the password in the first line of FILE")
        ->option_text("FILE (no password)");
    addWatchOptions(host);
    host->add_flag("--yes", options.isConfirmed,
                   "With takeover: proceed even if a daemon of the host is connected");
    host->add_flag("--dry-run", options.isDryRun, "Show what would be done, but change nothing");
  }

  void addWatchOptions(CLI::App* host) {
    host->add_flag("--spread", options.isSpread,
                   "With takeover and watch: give the tasks to all hosts that listen, in equal "
                   "shares; watch otherwise chooses the host with the fewest tasks");
    host->add_flag("--return", options.isReturning,
                   "With watch: once the daemon of this machine has worked for half a minute, give "
                   "it back the tasks that others have taken over from it");
    host->add_option("--dead-after", options.deadAfter,
                     "With watch: take over from a host that has been silent for SECONDS")
        ->option_text(valueWithDefault("SECONDS", std::to_string(options.deadAfter)))
        ->check(CLI::Range(3, 86400));
  }

  void addSchemaCommand() {
    CLI::App* schema = addCommand(
        "schema", "Show the version of the database's tables, or upgrade them", runSchema);
    schema->footer(
        "The exit status is 0 if the tables have the version of this koductl, 1 if they are older "
        "and 2 if they are newer. Other commands, except daemon, health and repair, refuse newer "
        "tables. An upgrade is one transaction, and the daemon may keep running. Only the owner of "
        "the tables or a superuser can upgrade them.");
    schema
        ->add_option("ACTION", options.schemaAction,
                     "With upgrade: bring the tables to the version of this koductl")
        ->check(CLI::IsMember({"upgrade"}));
    addCommand("repair", "Mark unfinished runs as FAILED before a start of the daemon", runRepair)
        ->footer(
            "A daemon that ends during a run leaves the task in PROCESS. Each such run gets a row "
            "in kodu_cron_repair. Next times do not change. While a daemon is connected, nothing "
            "is changed.");
    schema->add_flag("--dry-run", options.isDryRun, "Perform the upgrade, then roll it back");
    schema
        ->add_option("--wait", options.waitSeconds,
                     "Keep trying for SECONDS while other sessions use the tables")
        ->option_text(valueWithDefault("SECONDS", std::to_string(options.waitSeconds)))
        ->check(CLI::Range(0, 86400));
    schema
        ->add_option("--connect", options.connection,
                     "Connect with the libpq connection string CONNINFO instead of the INI file; "
                     "the password comes from PGPASSWORD or ~/.pgpass")
        ->option_text("CONNINFO");
  }

  /// Commands of the first release that another one has replaced.
  void addEarlierNames() {
    group = "Earlier names";
    CLI::App* output = addTaskCommand(
        "output",
        "Print the output of a task's last run; in the next release, logs replaces this command",
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
