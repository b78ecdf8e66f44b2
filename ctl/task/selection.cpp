#include "ctl/task/selection.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <string_view>
#include <utility>

#include "ctl/failure.h"
#include "ctl/session/session.h"
#include "ctl/task/task.h"

namespace {

constexpr const char* kWord =
    "CASE WHEN running THEN status WHEN deleting THEN 'deleted' WHEN paused THEN 'paused'"
    " WHEN held_from IS NOT NULL THEN 'held' ELSE coalesce(status, '-') END";

/// An order. The expression is never NULL, so that a page can begin after any of its values.
struct SortKey {
  const char* name;
  const char* expression;
  const char* type;
  bool isInverted = false;     // small values come last
  const char* join = nullptr;  // what the expression needs beside the view
};

// Counted once for all tasks: a look into the history for each of a million takes several seconds.
// OFFSET 0 keeps the server from counting in each of its parallel processes.
constexpr const char* kRecentFailures = R"(
LEFT JOIN (SELECT cron_id AS failed_task, count(*) AS recent_failures FROM kodu_cron_error
           WHERE cron_date > now() AT TIME ZONE 'UTC' - interval '1 day' GROUP BY cron_id
           OFFSET 0) AS failed
ON failed_task = id)";

constexpr const char* kFailedToday =
    "id = ANY (ARRAY(SELECT DISTINCT cron_id FROM kodu_cron_error"
    " WHERE cron_date > now() AT TIME ZONE 'UTC' - interval '1 day'))";

// Texts are compared byte by byte, which is many times faster than by the rules of a language.
constexpr std::array<SortKey, 10> kSortKeys = {{
    {"id", "id", "int"},
    {"name", "name COLLATE \"C\"", "text"},
    {"plugin", "program COLLATE \"C\"", "text"},
    {"status", nullptr, "text"},  // kWord
    // By the time that it was due, which does not change with the clock as the seconds do.
    {"late", "coalesce(CASE WHEN late THEN due END, 'infinity')", "timestamp", true},
    {"last", "coalesce(last_due, '-infinity')", "timestamp"},
    {"next", "coalesce(due, 'infinity')", "timestamp"},
    {"every", "every", "interval"},
    {"failures", "coalesce(recent_failures, 0)", "bigint", false, kRecentFailures},
    {"failing", "coalesce(failing_since, 'infinity')", "timestamp"},
}};

std::string expressionOf(const SortKey& key) {
  return key.expression != nullptr ? key.expression : fmt::format("({}) COLLATE \"C\"", kWord);
}

struct Order {
  const SortKey* key = kSortKeys.data();
  bool isDescending = false;

  bool isById() const { return key == kSortKeys.data(); }
  const char* direction() const { return isDescending ? " DESC" : ""; }
};

Order orderOf(const std::string& sort) {
  Order order;
  if (sort.empty()) {
    return order;
  }
  const std::string name = sort.substr(0, sort.find(','));
  const std::string rest = sort.substr(name.size());
  order.key = std::find_if(kSortKeys.begin(), kSortKeys.end(),
                           [&](const SortKey& key) { return key.name == name; });
  if (order.key == kSortKeys.end() || (!rest.empty() && rest != ",asc" && rest != ",desc")) {
    throw Failure(kWrongUsage, fmt::format("cannot sort by {}: use one of {}, with \",desc\" for "
                                           "the other direction",
                                           sort, fmt::join(sortKeys(), ", ")));
  }
  order.isDescending = (rest == ",desc") != order.key->isInverted;
  return order;
}

/// What a page's key says: the value of the order's expression, and the id.
struct PageKey {
  std::string value, id;
};

PageKey pageKeyOf(const Order& order, const std::string& text) {
  const auto comma = text.rfind(',');
  const bool isComplete = order.isById() == (comma == std::string::npos);
  const std::string id = comma == std::string::npos ? text : text.substr(comma + 1);
  int number = 0;
  const auto parsed = std::from_chars(id.data(), id.data() + id.size(), number);
  if (!isComplete || parsed.ec != std::errc() || parsed.ptr != id.data() + id.size()) {
    throw Failure(kWrongUsage,
                  fmt::format("{} is no key of a page: --after takes what the line below a page "
                              "says, in the same order",
                              text));
  }
  return {comma == std::string::npos ? "" : text.substr(0, comma), id};
}

/// The conditions of a selection, and the values that they refer to.
class Conditions {
 public:
  /// `isPage`: with the key after which it begins.
  Conditions(const Selection& selection, const Order& order, bool isPage) {
    addIds(selection.ids);
    addPrefix(selection.prefix);
    addFlags(selection);
    if (isPage && !selection.after.empty()) {
      addAfter(order, pageKeyOf(order, selection.after));
    }
    addPattern("name", selection.name);
    addPlugin(selection.plugin);
    addSearch(selection.search);
    if (selection.isFailed) {
      add("failing");  // may look into the history
    }
  }

  /// " WHERE ...", or "" without conditions.
  std::string sql() const {
    return parts.empty() ? "" : fmt::format("\nWHERE {}", fmt::join(parts, " AND "));
  }

  std::vector<std::string> values;

 private:
  void add(const std::string& condition) { parts.push_back(condition); }

  std::string place(std::string value, const char* type) {
    values.push_back(std::move(value));
    return fmt::format("${}::{}", values.size(), type);
  }

  void addIds(const std::vector<int>& ids) {
    if (!ids.empty()) {
      add(fmt::format("id = ANY ({})", place(fmt::format("{{{}}}", fmt::join(ids, ",")), "int[]")));
    }
  }

  /// As ranges, which the primary key finds: 12, 120 to 129, 1200 to 1299...
  void addPrefix(const std::string& prefix) {
    if (prefix.empty()) {
      return;
    }
    long low = 0;
    const auto parsed = std::from_chars(prefix.data(), prefix.data() + prefix.size(), low);
    std::vector<std::string> ranges = {"FALSE"};
    const bool isNumber = parsed.ec == std::errc() && low >= 0 && std::to_string(low) == prefix;
    for (long width = 1; isNumber && low * width <= INT_MAX; width *= 10) {
      const long high = std::min<long>(low * width + width - 1, INT_MAX);
      ranges.push_back(fmt::format("id BETWEEN {} AND {}", low * width, high));
      if (low == 0) {
        break;
      }
    }
    add(fmt::format("({})", fmt::join(ranges, " OR ")));
  }

  void addFlags(const Selection& selection) {
    for (const auto& [isSet, condition] :
         {std::pair{selection.isLate, "late"}, std::pair{selection.isRunning, "running"},
          std::pair{selection.isPaused, "paused"},
          std::pair{selection.isHeld, "held_from IS NOT NULL"},
          std::pair{selection.isDeleting, "deleting"},
          std::pair{selection.isNeverRun, "status IS NULL"},
          std::pair{selection.isKept, "NOT deleting"},
          std::pair{selection.hasFailedToday, kFailedToday}}) {
      if (isSet) {
        add(condition);
      }
    }
  }

  void addPattern(const char* column, const std::optional<std::string>& glob) {
    if (glob) {
      add(fmt::format("{} LIKE {}", column, place(likePattern(*glob), "text")));
    }
  }

  /// What koduguard runs is known only once a task is joined with its plugin. The first condition
  /// is about the plugin alone, and leaves few to be joined.
  void addPlugin(const std::optional<std::string>& glob) {
    if (glob) {
      const std::string pattern = place(likePattern(*glob), "text");
      add(fmt::format("(plugin_path LIKE {} OR plugin_path LIKE '%/koduguard')", pattern));
      add(fmt::format("program LIKE {}", pattern));
    }
  }

  /// Without regard to case.
  void addSearch(const std::string& text) {
    if (text.empty()) {
      return;
    }
    std::string literal;
    for (const char c : text) {
      literal +=
          std::string(std::string_view("*?\\").find(c) == std::string_view::npos ? "" : "\\");
      literal += c;
    }
    const std::string begin = likePattern(literal);
    const std::string anywhere = place("%" + begin + "%", "text");
    add(fmt::format("(name ILIKE {0} OR program ILIKE {0} OR id::text LIKE {1})", anywhere,
                    place(begin + "%", "text")));
  }

  void addAfter(const Order& order, const PageKey& key) {
    const char* sign = order.isDescending ? "<" : ">";
    if (order.isById()) {
      add(fmt::format("id {} {}", sign, place(key.id, "int")));
      return;
    }
    const std::string value = place(key.value, order.key->type);
    add(fmt::format("({}, id) {} ({}, {})", expressionOf(*order.key), sign, value,
                    place(key.id, "int")));
  }

  std::vector<std::string> parts;
};

std::string sourceOf(const Order& order) {
  return fmt::format("\nFROM kodu_task_state{}", order.key->join == nullptr ? "" : order.key->join);
}

std::string limitOf(const Selection& selection) {
  return selection.limit ? fmt::format("\nLIMIT {}", *selection.limit) : "";
}

/// `columns` of the selected tasks. The tasks of a page are found first, and only for these the
/// server computes what costs: since when they have been failing, and how often.
Statement tasksOf(const Selection& selection, const char* columns) {
  const Order order = orderOf(selection.sort);
  if (selection.limit) {
    Statement ids = idsOf(selection);
    return {fmt::format("WITH page AS MATERIALIZED (\n{}\n)\nSELECT {} FROM page JOIN "
                        "kodu_task_state USING (id)\nORDER BY page.place{}, id{}",
                        ids.sql, columns, order.direction(), order.direction()),
            std::move(ids.values)};
  }
  Conditions conditions(selection, order, true);
  return {
      fmt::format("SELECT {}{}{}\nORDER BY {}{}, id{}", columns, sourceOf(order), conditions.sql(),
                  expressionOf(*order.key), order.direction(), order.direction()),
      std::move(conditions.values)};
}

std::string wholeTask() {
  return std::string(kDefinitionColumns) + kStateColumns;
}

/// The same as kWord.
std::string wordOf(bool isRunning, bool isDeleting, bool isPaused, bool isHeld,
                   const std::string& status) {
  if (isRunning) {
    return status;
  }
  return isDeleting ? "deleted" : isPaused ? "paused" : isHeld ? "held" : status;
}

/// Reads the rows of a statement. One without a limit may wait for a slow reader of koductl's
/// output.
void readAll(Session& session, const Statement& statement, bool isUnlimited,
             const std::function<void(Fields&)>& use) {
  if (isUnlimited) {
    session.query("BEGIN");
    session.query("SET LOCAL statement_timeout = 0");
  }
  session.forEachRow(statement.sql, statement.values, use);
  if (isUnlimited) {
    session.query("COMMIT");
  }
}

}  // namespace

bool Selection::isLimitedToSome() const {
  return !ids.empty() || !prefix.empty() || name || plugin || isFailed || isLate || isRunning ||
         isPaused || isHeld || isDeleting || isNeverRun || hasFailedToday || !search.empty();
}

const std::vector<std::string>& sortKeys() {
  static const std::vector<std::string> names = [] {
    std::vector<std::string> list;
    list.reserve(kSortKeys.size());
    for (const SortKey& key : kSortKeys) {
      list.emplace_back(key.name);
    }
    return list;
  }();
  return names;
}

void requireValid(const Selection& selection) {
  const Order order = orderOf(selection.sort);
  if (!selection.after.empty()) {
    pageKeyOf(order, selection.after);
  }
}

std::string likePattern(const std::string& glob) {
  std::string pattern;
  for (std::size_t i = 0; i < glob.size(); ++i) {
    const bool isQuoted = glob[i] == '\\' && i + 1 < glob.size();
    const char c = isQuoted ? glob[++i] : glob[i];
    if (!isQuoted && (c == '*' || c == '?')) {
      pattern += c == '*' ? '%' : '_';
    } else {
      pattern +=
          std::string(std::string_view("%_\\").find(c) == std::string_view::npos ? "" : "\\");
      pattern += c;
    }
  }
  return pattern;
}

Statement idsOf(const Selection& selection) {
  const Order order = orderOf(selection.sort);
  Conditions conditions(selection, order, true);
  return {fmt::format("SELECT id, {} AS place{}{}\nORDER BY place{}, id{}{}",
                      expressionOf(*order.key), sourceOf(order), conditions.sql(),
                      order.direction(), order.direction(), limitOf(selection)),
          std::move(conditions.values)};
}

void requireIds(Session& session, const Selection& selection) {
  const Rows missing = session.query(
      "SELECT id FROM unnest($1::int[]) AS id WHERE NOT EXISTS (SELECT FROM kodu_cron_plugin WHERE "
      "cron_id = id) LIMIT 1",
      {fmt::format("{{{}}}", fmt::join(selection.ids, ","))});
  if (missing.count() > 0) {
    throw Failure(kNotFound, fmt::format("there is no task {}; koductl status lists them",
                                         missing.text(0, "id")));
  }
}

void forEachTask(Session& session, const Selection& selection,
                 const std::function<void(const Task&)>& use) {
  readAll(session, tasksOf(selection, wholeTask().c_str()), !selection.limit,
          [&](Fields& fields) { use(takeTask(fields, session.config.outputDirectory)); });
}

void forEachDefinition(Session& session, const std::function<void(const Task&)>& use) {
  readAll(session, tasksOf({}, kDefinitionColumns), true,
          [&](Fields& fields) { use(takeDefinition(fields, session.config.outputDirectory)); });
}

std::vector<Task> readTasks(Session& session, const Selection& selection) {
  std::vector<Task> tasks;
  const Statement statement = tasksOf(selection, wholeTask().c_str());
  session.forEachRow(statement.sql, statement.values, [&](Fields& fields) {
    tasks.push_back(takeTask(fields, session.config.outputDirectory));
  });
  return tasks;
}

void forEachId(Session& session, const Selection& selection, bool withNames,
               const std::function<void(int, const std::string&)>& use) {
  const Statement statement =
      withNames ? tasksOf(selection, "id, name") : tasksOf(selection, "id, ''");
  session.forEachRow(statement.sql, statement.values, [&](Fields& fields) {
    const auto id = static_cast<int>(fields.number());
    use(id, fields.text());
  });
}

std::vector<int> readIds(Session& session, const Selection& selection) {
  std::vector<int> ids;
  forEachId(session, selection, false, [&](int id, const std::string&) { ids.push_back(id); });
  return ids;
}

std::string pageKeyOf(Session& session, const Selection& selection, int id) {
  const Order order = orderOf(selection.sort);
  if (order.isById()) {
    return std::to_string(id);
  }
  const Rows found =
      session.query(fmt::format("SELECT ({})::text || ',' || id AS key{}\nWHERE id = $1::int",
                                expressionOf(*order.key), sourceOf(order)),
                    {std::to_string(id)});
  return found.count() == 1 ? found.text(0, "key") : "";
}

long countTasks(Session& session, const Selection& selection) {
  const Conditions conditions(selection, Order{}, false);
  return session
      .query("SELECT count(*) AS tasks FROM kodu_task_state" + conditions.sql(), conditions.values)
      .number(0, "tasks");
}

Totals readTotals(Session& session, const Selection& selection) {
  const Conditions conditions(selection, Order{}, false);
  Totals totals;
  // Grouped by plain values: by the word itself the server would expect as many groups as tasks,
  // and sort them all.
  session.forEachRow(
      fmt::format("SELECT running, deleting, paused, held_from IS NOT NULL AS held, late,"
                  " coalesce(max(status), '-'), count(*)\nFROM kodu_task_state{}\n"
                  "GROUP BY running, deleting, paused, held, late, status",
                  conditions.sql()),
      conditions.values, [&](Fields& fields) {
        const bool isRunning = fields.isTrue();
        const bool isDeleting = fields.isTrue();
        const bool isPaused = fields.isTrue();
        const bool isHeld = fields.isTrue();
        const bool isLate = fields.isTrue();
        const std::string status = fields.text();
        const long count = fields.number();
        totals.tasks += count;
        totals.late += isLate ? count : 0;
        totals.paused += isPaused ? count : 0;
        totals.words[wordOf(isRunning, isDeleting, isPaused, isHeld, status)] += count;
      });
  return totals;
}
