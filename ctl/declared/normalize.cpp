#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <set>
#include <unordered_map>
#include <utility>

#include "ctl/declared/declaration.h"
#include "ctl/declared/sqlText.h"
#include "ctl/failure.h"
#include "ctl/session/session.h"

namespace {

constexpr std::array<const char*, 3> kPeriods = {"every", "retry-after", "timeout"};
constexpr char kBetween = '\n';  // a calendar and its zone, in one text

/// What the database says about texts: two texts for each, or why it refuses it.
class Answers {
 public:
  /// `sql` returns the columns asked, one and other for the texts in the array $1.
  Answers(Session& session, const std::string& sql, const std::set<std::string>& texts) {
    if (!texts.empty() && !ask(session, sql, {texts.begin(), texts.end()}, nullptr)) {
      for (const std::string& text : texts) {  // which one it is
        ask(session, sql, {text}, &refusals[text]);
      }
    }
  }

  /// "" for a text that was not refused.
  std::string refusalOf(const std::string& text) const {
    const auto found = refusals.find(text);
    return found == refusals.end() ? "" : found->second;
  }
  const std::pair<std::string, std::string>& of(const std::string& text) const {
    return known.at(text);
  }

 private:
  /// False, and the reason in `refusal`, when the database refuses one of the texts.
  bool ask(Session& session, const std::string& sql, const std::vector<std::string>& texts,
           std::string* refusal) {
    try {
      const Rows rows = session.query(sql, {sqlArray(texts)});
      for (int row = 0; row < rows.count(); ++row) {
        known[rows.text(row, "asked")] = {rows.text(row, "one"), rows.text(row, "other")};
      }
      return true;
    } catch (const Failure& e) {
      if (e.exitCode != kRefused) {
        throw;
      }
      if (refusal != nullptr) {
        *refusal = e.what();
      }
      return false;
    }
  }

  std::unordered_map<std::string, std::pair<std::string, std::string>> known;
  std::unordered_map<std::string, std::string> refusals;
};

bool isPath(const std::string& plugin) {
  return plugin.starts_with('/');
}

std::set<std::string> periodsIn(const Declaration& declaration) {
  std::set<std::string> texts;
  for (const DeclaredTask& task : declaration.tasks) {
    for (const char* name : kPeriods) {
      if (const auto found = task.definition.find(name); found != task.definition.end()) {
        texts.insert(found->second);
      }
    }
  }
  return texts;
}

std::set<std::string> pluginNamesIn(const Declaration& declaration) {
  std::set<std::string> texts;
  for (const DeclaredTask& task : declaration.tasks) {
    if (const std::string plugin = settingOf(task.definition, "plugin"); !isPath(plugin)) {
      texts.insert(plugin);
    }
  }
  return texts;
}

/// "" for a task without a calendar.
std::string calendarOf(const Definition& definition) {
  const std::string calendar = settingOf(definition, "at");
  const std::string zone = settingOf(definition, "zone");
  return definition.count("at") == 0 ? ""
                                     : calendar + kBetween + (zone.empty() ? kDefaultZone : zone);
}

std::set<std::string> calendarsIn(const Declaration& declaration) {
  std::set<std::string> texts;
  for (const DeclaredTask& task : declaration.tasks) {
    if (const std::string calendar = calendarOf(task.definition); !calendar.empty()) {
      texts.insert(calendar);
    }
  }
  return texts;
}

/// The hosts of the database, where one is declared.
std::set<std::string> hostsFor(const Declaration& declaration, Session& session) {
  std::set<std::string> hosts;
  const bool areDeclared =
      std::any_of(declaration.tasks.begin(), declaration.tasks.end(),
                  [](const DeclaredTask& task) { return task.definition.count("host") > 0; });
  if (areDeclared &&
      session.query("SELECT to_regclass('public.kodu_host') IS NOT NULL AS has_hosts")
          .isTrue(0, "has_hosts")) {
    const Rows rows = session.query("SELECT host FROM kodu_host");
    for (int row = 0; row < rows.count(); ++row) {
      hosts.insert(rows.text(row, "host"));
    }
  }
  return hosts;
}

/// Rewrites definitions with the database's answers.
class Normalizer {
 public:
  Normalizer(const Declaration& declaration, Session& session, std::string guardPath,
             Mistakes& collected)
      : guard(std::move(guardPath)),
        mistakes(collected),
        now(session.query("SELECT floor(EXTRACT(EPOCH FROM now()))::bigint AS now")
                .number(0, "now")),
        periods(session,
                fmt::format("SELECT text AS asked, {} AS one, '' AS other"
                            " FROM (SELECT text, text::interval AS period"
                            " FROM unnest($1::text[]) AS text) AS periods",
                            sqlPeriod("period")),
                periodsIn(declaration)),
        calendars(
            session,
            fmt::format("SELECT text AS asked, {} AS one, '' AS other"
                        " FROM (SELECT text, kodu_calendar_interval(split_part(text, E'\\n', 1),"
                        " split_part(text, E'\\n', 2)) AS period"
                        " FROM unnest($1::text[]) AS text) AS periods",
                        sqlPeriod("period")),
            calendarsIn(declaration)),
        plugins(session,
                "SELECT text AS asked, path AS one, title AS other"
                " FROM unnest($1::text[]) AS text, kodu_plugin_find(text)",
                pluginNamesIn(declaration)),
        hosts(hostsFor(declaration, session)) {}

  void normalize(DeclaredTask& task) const {
    const bool arePeriodsRead = readPeriods(task) && readCalendar(task);
    if (const std::string host = settingOf(task.definition, "host");
        !host.empty() && hosts.count(host) == 0) {
      isRefused(task, "host", fmt::format("there is no host {} in this database", host));
    }
    const std::string plugin = settingOf(task.definition, "plugin");
    if (!isRefused(task, "plugin", isPath(plugin) ? "" : plugins.refusalOf(plugin)) &&
        arePeriodsRead) {
      canonize(task.definition);
    }
  }

 private:
  bool isRefused(const DeclaredTask& task, const std::string& name,
                 const std::string& reason) const {
    if (!reason.empty()) {
      mistakes.add(task.placeOf(name), task.key, fmt::format("{}: {}", name, reason));
    }
    return !reason.empty();
  }

  bool readPeriods(DeclaredTask& task) const {
    bool areRead = true;
    for (const char* name : kPeriods) {
      const auto setting = task.definition.find(name);
      if (setting == task.definition.end()) {
        continue;
      }
      if (isRefused(task, name, periods.refusalOf(setting->second))) {
        areRead = false;
      } else {
        setting->second = periodText(periods.of(setting->second).first);
      }
    }
    return areRead;
  }

  /// Gives a task with a calendar the interval that the database would give it.
  bool readCalendar(DeclaredTask& task) const {
    const std::string calendar = calendarOf(task.definition);
    if (calendar.empty()) {
      return true;
    }
    if (isRefused(task, "at", calendars.refusalOf(calendar))) {
      return false;
    }
    task.definition.emplace("every", periodText(calendars.of(calendar).first));
    return true;
  }

  void canonize(Definition& definition) const {
    const std::string plugin = settingOf(definition, "plugin");
    const auto [path, title] =
        isPath(plugin) ? std::pair(plugin, fileNameOf(plugin)) : plugins.of(plugin);
    const auto setting = [&definition](const char* name, const std::string& standard) {
      const auto found = definition.find(name);
      return found == definition.end() ? standard : found->second;
    };
    const std::string timeout = setting("timeout", "");
    Definition result = definitionOf(
        {path, setting("name", title), setting("arguments", ""), setting("file", kDefaultFile),
         setting("every", ""), setting("retries", "1"), setting("retry-after", kDefaultRetryAfter),
         setting("at", ""), setting("zone", definition.count("at") > 0 ? kDefaultZone : "")},
        timeout.empty() ? guard : "");
    for (const char* other : {"timeout", "host", "first", "paused", "reason", "until"}) {
      if (definition.count(other) > 0) {
        result[other] = definition.at(other);
      }
    }
    if (const auto first = secondsOf(setting("first", ""))) {
      result["first"] = declaredTime(*first);
    }
    endPause(result);
    definition = std::move(result);
  }

  /// A declared pause that is over has no effect, also not on a later one by an operator.
  void endPause(Definition& definition) const {
    const auto until = secondsOf(settingOf(definition, "until"));
    if (!until) {
      return;
    }
    if (*until > now) {
      definition["until"] = declaredTime(*until);
      return;
    }
    for (const char* name : {"paused", "reason", "until"}) {
      definition.erase(name);
    }
  }

  const std::string guard;
  Mistakes& mistakes;
  const long now;  // the server's clock
  const Answers periods, calendars, plugins;
  const std::set<std::string> hosts;
};

}  // namespace

void normalize(Declaration& declaration, Session& session, const std::string& guard,
               Mistakes& mistakes) {
  const Normalizer normalizer(declaration, session, guard, mistakes);
  for (DeclaredTask& task : declaration.tasks) {
    normalizer.normalize(task);
  }
}
