#include "ctl/session/session.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string_view>

#include "core/iniConfig.h"
#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/schemaVersion.h"
#include "ctl/terminal/capturedErrors.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/text.h"

namespace {

using Clock = std::chrono::steady_clock;

/// The time that a server may need to report the end of a statement.
constexpr std::chrono::seconds kGrace{5};

/// "NOTICE:  task 7 is paused already" on standard error, in koductl's own form.
void printNotice(void*, const char* message) {
  printError("koductl: {}\n", serverMessage(message));
}

void countNotice(void* notices, const char* message) {
  static_cast<Notices*>(notices)->add(message);
}

/// libpq begins the further lines of some of its messages with a tab.
std::string withoutTabs(std::string message) {
  for (std::size_t at = 0; (at = message.find("\n\t", at)) != std::string::npos;) {
    message.erase(at + 1, 1);
  }
  return message;
}

Connection connect(const std::string& conninfo) {
  // Until the processor of notices is set, libpq writes them to standard error itself.
  CapturedErrors libpqErrors;
  Connection connection(PQconnectdb(conninfo.c_str()));
  if (const std::string text = libpqErrors.take(); !text.empty()) {
    printNotice(nullptr, text.c_str());
  }
  PQsetErrorVerbosity(connection.get(), PQERRORS_VERBOSE);  // with the SQLSTATE
  PQsetNoticeProcessor(connection.get(), printNotice, nullptr);
  return connection;
}

// Independent of role and environment: times are UTC, names are those of the schema, and nothing
// waits forever. kodu_daemon_state gets the role of the INI file, whose sessions are the daemon's.
// No JIT compilation: the view of all tasks only looks expensive to the planner. Memory to join a
// million tasks with their plugins without a file. A statement ends when koductl is gone: what
// waits for a lock must not change anything after Ctrl-C.
constexpr const char* kSettings = R"(
SELECT set_config('timezone', 'UTC', false), set_config('search_path', 'public', false),
       set_config('client_encoding', 'UTF8', false), set_config('lock_timeout', $1, false),
       set_config('statement_timeout', $2, false), set_config('kodu.daemon_role', $3, false),
       set_config('jit', 'off', false), set_config('work_mem', '64MB', false),
       set_config('client_connection_check_interval', '1s', false))";

/// What the INI files or --connect say, with the options' own settings.
std::string conninfoOf(const Options& options, const DaemonConfig& config) {
  const std::string given = options.connection.empty()
                                ? connectionString(config, options.user, options.applicationName)
                                : connectionString(options.connection);
  // The last one counts: the database file may bring the daemon's.
  return options.connectTimeout
             ? fmt::format("{} connect_timeout={}", given, *options.connectTimeout)
             : given;
}

Connection connectAs(const Options& options, const DaemonConfig& config,
                     const std::string& conninfo) {
  Connection connection = connect(conninfo);
  if (PQstatus(connection.get()) == CONNECTION_OK) {
    return connection;
  }
  const std::string place = !options.connection.empty() ? "the value of --connect"
                            : config.isDatabaseFileRead ? config.databaseFile
                                                        : "PGHOST and PGPORT";
  const std::string password =
      options.user.empty() ? "" : "; the password comes from PGPASSWORD or ~/.pgpass";
  throw Failure(kNoDatabase,
                fmt::format("{}\ncheck that the server is running, and check {}{}",
                            withoutTabs(trim(PQerrorMessage(connection.get()))), place, password));
}

/// "" for a result that is missing or not the server's.
std::string sqlState(const ResultPtr& result) {
  const char* state = PQresultErrorField(result.get(), PG_DIAG_SQLSTATE);
  return state == nullptr ? "" : state;
}

/// Whether an error is about a missing table, column or function.
bool isAboutMissing(const std::string& state) {
  return state == "42P01" || state == "42703" || state == "42883";
}

/// A pooler or another program that speaks the protocol may answer anything.
[[noreturn]] void refuseAnswer(const char* column) {
  throw Failure(kNoDatabase,
                fmt::format("the server is not PostgreSQL: its answer has no valid {}", column));
}

/// Why a statement has ended that waited for a lock longer than `limit`, by the option's name.
std::string lockedText(const LockWatch& watch, int seconds, const char* option) {
  const std::string holders = watch.holders().empty() ? "an unknown session" : watch.holders();
  const std::string remedy =
      watch.remedy().empty() ? "" : fmt::format(", or end it with {}", watch.remedy());
  return fmt::format(
      "{} was locked for {} s; nothing was changed\nthe lock is held by {}\ntry again when "
      "that transaction has ended{}; {} SECONDS waits longer",
      watch.lock().empty() ? "a database object" : watch.lock(), seconds, holders, remedy, option);
}

}  // namespace

void Notices::add(const char* message) {
  constexpr long kPrinted = 3;
  if (++count <= kPrinted) {
    printNotice(nullptr, message);
  } else {
    ++hidden;
  }
}

void Notices::end() {
  if (hidden > 0) {
    printError("koductl: … and {} more like these\n", grouped(hidden));
  }
  count = hidden = 0;
}

int Rows::indexOf(int row, const char* column) const {
  const int index = PQfnumber(result.get(), column);
  if (index < 0 || row >= count()) {
    refuseAnswer(column);
  }
  return index;
}

long Rows::affected() const {
  const std::string number = PQcmdTuples(result.get());
  return number.empty() ? 0 : std::stol(number);
}

bool Rows::isNull(int row, const char* column) const {
  return PQgetisnull(result.get(), row, indexOf(row, column)) == 1;
}

std::string Rows::text(int row, const char* column) const {
  return PQgetvalue(result.get(), row, indexOf(row, column));
}

std::optional<std::string> Rows::optionalText(int row, const char* column) const {
  return isNull(row, column) ? std::nullopt : std::optional(text(row, column));
}

long Rows::number(int row, const char* column) const {
  return optionalNumber(row, column).value_or(0);
}

std::optional<long> Rows::optionalNumber(int row, const char* column) const {
  if (isNull(row, column)) {
    return std::nullopt;
  }
  try {
    return std::stol(text(row, column));
  } catch (const std::logic_error&) {
    refuseAnswer(column);
  }
}

int Fields::take() {
  if (next >= PQnfields(result.get())) {
    refuseAnswer("row");
  }
  return next++;
}

std::string Fields::text() {
  const int column = take();
  return {PQgetvalue(result.get(), 0, column),
          static_cast<std::size_t>(PQgetlength(result.get(), 0, column))};
}

std::optional<std::string> Fields::optionalText() {
  if (next < PQnfields(result.get()) && PQgetisnull(result.get(), 0, next) == 1) {
    ++next;
    return std::nullopt;
  }
  return text();
}

std::optional<long> Fields::optionalNumber() {
  const auto digits = optionalText();
  if (!digits) {
    return std::nullopt;
  }
  long number = 0;
  const char* end = digits->data() + digits->size();
  if (const auto parsed = std::from_chars(digits->data(), end, number);
      parsed.ec != std::errc() || parsed.ptr != end) {
    refuseAnswer("number");
  }
  return number;
}

Session::Session(const Options& options, SchemaRule rule)
    : config(options.connection.empty() ? readConfig(options.configFile, options.user)
                                        : DaemonConfig{}),
      conninfo(conninfoOf(options, config)),
      lockTimeout(options.lockTimeout),
      statementTimeout(options.statementTimeout),
      namesLockHolders(options.namesLockHolders),
      connection(connectAs(options, config, conninfo)) {
  PQsetNoticeProcessor(connection.get(), countNotice, &notices);
  query(kSettings,
        {fmt::format("{}s", lockTimeout), fmt::format("{}s", statementTimeout), trim(config.user)});
  if (rule == SchemaRule::kKnownVersion) {
    const SchemaState state = readSchemaState(*this);
    refuseNewerSchema(state);
    advice = state.isBehind() ? fmt::format("\n{}", upgradeAdvice(state)) : "";
  }
}

Session::~Session() = default;

void Session::makeReadOnly() {
  query("SET default_transaction_read_only = on");
}

void Session::send(const std::string& sql, const std::vector<std::string>& params) {
  std::vector<const char*> values;
  std::transform(params.begin(), params.end(), std::back_inserter(values),
                 [](const std::string& param) { return param.c_str(); });
  PQsendQueryParams(connection.get(), sql.c_str(), static_cast<int>(values.size()), nullptr,
                    values.data(), nullptr, nullptr, 0);
}

Rows Session::query(const std::string& sql, const std::vector<std::string>& params) {
  send(sql, params);
  return Rows(awaitResult(statementTimeout).release());
}

void Session::forEachRow(const std::string& sql, const std::vector<std::string>& params,
                         const std::function<void(Fields&)>& use) {
  send(sql, params);
  PQsetSingleRowMode(connection.get());
  LockWatch watch(conninfo + " connect_timeout=2", PQbackendPID(connection.get()));
  bool isComplete = false;
  do {
    awaitReply(statementTimeout, watch);
    const ResultPtr row(PQgetResult(connection.get()));
    const ExecStatusType status = PQresultStatus(row.get());
    if (status == PGRES_SINGLE_TUPLE) {
      Fields fields(row);
      use(fields);
    } else if (status == PGRES_TUPLES_OK) {
      isComplete = true;  // comes without a row after the last one
    } else {
      replyOf(connection.get());  // so that the session can go on
      fail(row, watch);
    }
  } while (!isComplete);
  replyOf(connection.get());
  notices.end();
}

/// Waits until a result of what was sent has arrived. Gives up on a server that takes longer than
/// `limit` seconds; 0 is no limit. Meanwhile a watch looks for a lock each second, or four times
/// within a shorter limit.
void Session::awaitReply(int limit, LockWatch& watch) {
  const std::chrono::milliseconds step(lockTimeout > 0 ? std::min(1000, lockTimeout * 250) : 1000);
  const auto end = Clock::now() + std::chrono::seconds(limit) + kGrace;
  while (!hasReplied(connection.get(), step)) {
    if (namesLockHolders) {
      watch.look();
    }
    if (limit > 0 && Clock::now() > end) {
      throw Failure(
          kNoDatabase,
          fmt::format("the server has not completed the statement after {} s: it hangs, or "
                      "the network is down; the outcome of the statement is unknown",
                      limit));
    }
  }
}

/// The last result of what was sent; throws for a failed one.
ResultPtr Session::awaitResult(int limit) {
  LockWatch watch(conninfo + " connect_timeout=2", PQbackendPID(connection.get()));
  awaitReply(limit, watch);
  const bool isLost = PQstatus(connection.get()) != CONNECTION_OK;
  const std::string reason = PQerrorMessage(connection.get());  // later with "invalid socket"
  ResultPtr result = replyOf(connection.get());
  notices.end();
  if (isLost && sqlState(result).empty()) {
    throw Failure(kNoDatabase, serverMessage(reason));
  }
  const ExecStatusType status = PQresultStatus(result.get());
  // An empty query is a migration that consists of a comment.
  if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK && status != PGRES_EMPTY_QUERY) {
    fail(result, watch);
  }
  return result;
}

void Session::fail(const ResultPtr& result, const LockWatch& watch) const {
  constexpr std::string_view kLockTimeout = "55P03";
  constexpr std::string_view kCancelled = "57014";  // also by the statement's timeout
  constexpr std::string_view kNoRight = "42501";
  const std::string said =
      serverMessage(result ? PQresultErrorMessage(result.get()) : PQerrorMessage(connection.get()));
  const std::string state = sqlState(result);
  if (PQstatus(connection.get()) != CONNECTION_OK) {
    throw Failure(kNoDatabase, said);
  }
  if (said.empty()) {
    refuseAnswer("result");
  }
  if (state == kLockTimeout) {
    throw Failure(kNoDatabase, lockedText(watch, lockTimeout, "--lock-timeout"), state);
  }
  if (state == kCancelled && !watch.lock().empty()) {
    throw Failure(kNoDatabase, lockedText(watch, statementTimeout, "--statement-timeout"));
  }
  if (state == kCancelled) {
    throw Failure(kNoDatabase, fmt::format("{}; nothing was changed\nthe limit is {} s; "
                                           "--statement-timeout SECONDS sets another",
                                           said, statementTimeout));
  }
  throw Failure(state == kNoRight ? kNotPermitted : kRefused,
                said + (isAboutMissing(state) ? advice : ""), state);
}

void Session::execute(const std::string& sql) {
  PQsendQuery(connection.get(), sql.c_str());
  awaitResult(0);
}

// A password in a statement would stand in the server's log when the statement fails.
void Session::setPassword(const std::string& role, const std::string& password) {
  const std::unique_ptr<char, decltype(&PQfreemem)> encrypted(
      PQencryptPasswordConn(connection.get(), password.c_str(), role.c_str(), nullptr), PQfreemem);
  if (!encrypted) {
    throw Failure(kRefused, serverMessage(PQerrorMessage(connection.get())));
  }
  const Rows statement =
      query("SELECT format('ALTER ROLE %I PASSWORD %L', $1::text, $2::text) AS sql",
            {role, encrypted.get()});
  query(statement.text(0, "sql"));
}

bool isDaemonConnected(Session& session) {
  return session.query("SELECT connected FROM kodu_daemon_state").isTrue(0, "connected");
}

long countDaemons(Session& session) {
  return session.query("SELECT daemons FROM kodu_daemon_state").number(0, "daemons");
}

long serverTime(Session& session) {
  return session.query("SELECT floor(EXTRACT(EPOCH FROM now()))::bigint AS now").number(0, "now");
}

std::string serverMessage(const std::string& text) {
  std::string message = text;
  // "ERROR:  42501: ..."; the severity comes in the server's language, the code is five letters or
  // digits. Without a code the beginning may be the message itself.
  const auto end = message.find(":  ");
  const std::string_view code = std::string_view(message).substr(std::min(end, message.size()));
  if (code.size() > 9 && end < message.find('\n') && code.substr(8, 2) == ": " &&
      std::all_of(code.begin() + 3, code.begin() + 8,
                  [](unsigned char c) { return std::isalnum(c) != 0; })) {
    message.erase(0, end + 10);
  }
  for (const char* developers : {"\nCONTEXT:", "\nSCHEMA NAME:", "\nLOCATION:"}) {
    message.erase(std::min(message.find(developers), message.size()));
  }
  if (const auto hint = message.find("\nHINT:  "); hint != std::string::npos) {
    message.replace(hint + 1, 7, "hint: ");
  }
  return withoutTabs(trim(message));
}
