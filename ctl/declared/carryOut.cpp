#include "ctl/declared/carryOut.h"

#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <unordered_set>

#include <json/json.h>

#include "ctl/declared/plan.h"
#include "ctl/declared/sqlText.h"
#include "ctl/failure.h"
#include "ctl/session/session.h"
#include "ctl/task/task.h"

namespace {

// A statement gets so many tasks, or so many bytes.
constexpr std::size_t kMostTasks = 250;
constexpr std::size_t kMostBytes = 4UL << 20;

// The names are those of koductl's options.
constexpr const char* kEntries = R"(
FROM jsonb_to_recordset($1::jsonb) AS task (
    id integer, key text, plugin text, name text, every text, retries integer, timeout text,
    "retry-after" text, file text, arguments text, at text, zone text, host text,
    first text, is_moved boolean))";

constexpr const char* kDefinition = R"(
    plugin => plugin, name => name, every => every::interval, retries => retries,
    timeout => timeout::interval, retry_after => "retry-after"::interval, file_name => file,
    parameters => arguments, at => at, zone => zone)";

std::string addStatement() {
  return fmt::format(
      "SELECT key, set_config('kodu.host', COALESCE(host, ''), TRUE),"  // of the task that is added
                                                                        // next
      " kodu_task_add({}, key => key, first_run => first::timestamptz) AS id {}",
      kDefinition, kEntries);
}

std::string defineStatement() {
  return fmt::format(
      "SELECT key, kodu_task_define(id, {},"
      " next_run => CASE WHEN is_moved THEN first::timestamptz END) {}",
      kDefinition, kEntries);
}

/// The first time in the declared rhythm that is not before `earliest`.
std::string slotOf(const Definition& definition, long earliest) {
  std::string first = settingOf(definition, "first");
  const auto begin = secondsOf(first);
  const auto every = secondsIn(settingOf(definition, "every"));
  if (!begin || !every || *begin >= earliest || definition.count("at") > 0) {
    return first;  // the database refuses what is wrong in it
  }
  return declaredTime(*begin + (earliest - *begin + *every - 1) / *every * *every);
}

Json::Value entryOf(const Change& change, long earliest) {
  Json::Value entry(Json::objectValue);
  for (const auto& [name, value] : change.definition) {
    entry[name] = value;
  }
  if (change.definition.count("first") > 0) {
    entry["first"] = slotOf(change.definition, earliest);
  }
  entry["key"] = change.key;
  entry["id"] = change.id;
  entry["is_moved"] = change.isMoved;
  return entry;
}

using Changes = std::vector<Change*>;

/// In the order of their ids, in which other sessions lock several tasks, too.
Changes those(Plan& plan, const std::function<bool(const Change&)>& isMeant) {
  Changes result;
  for (Change& change : plan.changes) {
    if (isMeant(change)) {
      result.push_back(&change);
    }
  }
  std::stable_sort(result.begin(), result.end(),
                   [](const Change* one, const Change* other) { return one->id < other->id; });
  return result;
}

/// Runs a statement for many tasks, some hundred at a time.
class Batches {
 public:
  Batches(Session& owner, Plan& wholePlan, Mistakes& collected)
      : session(owner),
        mistakes(collected),
        earliest(session.query("SELECT EXTRACT(EPOCH FROM kodu_soon())::bigint AS soon")
                     .number(0, "soon") +
                 static_cast<long>(wholePlan.changes.size() / kTasksASecond)) {}

  /// `use` gets the rows of each call.
  void run(const std::string& sql, const Changes& changes,
           const std::function<void(const Rows&, const Changes&)>& use) {
    Changes batch;
    std::string entries;
    for (Change* change : changes) {
      entries += entries.empty() ? "" : ",";
      entries += Json::writeString(compact(), entryOf(*change, earliest));
      batch.push_back(change);
      if (batch.size() == kMostTasks || entries.size() > kMostBytes || change == changes.back()) {
        runBatch(sql, batch, entries, use);
        batch.clear();
        entries.clear();
      }
    }
  }

 private:
  /// Even a busy server changes as many.
  static constexpr std::size_t kTasksASecond = 1000;

  static const Json::StreamWriterBuilder& compact() {
    static const Json::StreamWriterBuilder builder = [] {
      Json::StreamWriterBuilder made;
      made["indentation"] = "";
      made["emitUTF8"] = true;
      return made;
    }();
    return builder;
  }

  void runBatch(const std::string& sql, const Changes& batch, const std::string& entries,
                const std::function<void(const Rows&, const Changes&)>& use) {
    session.query("SAVEPOINT batch");
    try {
      const Rows rows = session.query(sql, {fmt::format("[{}]", entries)});
      use(rows, batch);
      session.query("RELEASE SAVEPOINT batch");
    } catch (const Failure& e) {
      if (e.exitCode != kRefused) {
        throw;
      }
      session.query("ROLLBACK TO SAVEPOINT batch");
      findMistakes(sql, batch);
    }
  }

  /// Runs it for each task by itself.
  void findMistakes(const std::string& sql, const Changes& batch) {
    for (const Change* change : batch) {
      try {
        const std::string entry = Json::writeString(compact(), entryOf(*change, earliest));
        session.query(sql, {fmt::format("[{}]", entry)});
        session.query("SAVEPOINT batch");
      } catch (const Failure& e) {
        if (e.exitCode != kRefused) {
          throw;
        }
        mistakes.add(change->place, change->key, e.what());
        session.query("ROLLBACK TO SAVEPOINT batch");
      }
    }
  }

  Session& session;
  Mistakes& mistakes;
  // Seconds since the epoch. The daemon would begin a run at once that it hears of too late, and
  // that is another rhythm: so times lie after the end of the transaction.
  const long earliest;
};

std::string idsOf(const Changes& changes) {
  std::vector<std::string> ids;
  ids.reserve(changes.size());
  for (const Change* change : changes) {
    ids.push_back(std::to_string(change->id));
  }
  return sqlArray(ids);
}

template <typename Text>
std::string textsOf(const Changes& changes, const Text& text) {
  std::vector<std::string> texts;
  texts.reserve(changes.size());
  for (const Change* change : changes) {
    texts.push_back(text(*change));
  }
  return sqlArray(texts);
}

void add(Batches& batches, Plan& plan) {
  Changes added = those(plan, [](const Change& c) { return c.kind == Change::Kind::kAdd; });
  // The first path of koduguard in the catalogue is that of all guarded tasks. A declared task that
  // runs another koduguard by itself must not become the first.
  std::stable_partition(added.begin(), added.end(),
                        [](const Change* c) { return c->definition.count("timeout") > 0; });
  batches.run(addStatement(), added, [](const Rows& rows, const Changes& batch) {
    for (int row = 0; row < rows.count(); ++row) {
      batch[static_cast<std::size_t>(row)]->id = static_cast<int>(rows.number(row, "id"));
    }
  });
}

void resume(Session& session, Plan& plan) {
  const Changes resumed = those(
      plan, [](const Change& c) { return c.kind == Change::Kind::kChange && c.isPaused == false; });
  session.query("SELECT kodu_task_resume(id) FROM unnest($1::integer[]) AS id", {idsOf(resumed)});
}

/// The name of a task's output file before a change and after it; nothing when it stays.
const SettingChange* fileChangeOf(const Change& change) {
  const auto found = std::find_if(change.settings.begin(), change.settings.end(),
                                  [](const SettingChange& one) { return one.name == "file"; });
  const bool isThere = change.kind == Change::Kind::kChange && found != change.settings.end();
  return isThere ? &*found : nullptr;
}

/// The file that a name means: two names can mean the same one.
std::string fileOf(int id, const std::optional<std::string>& name) {
  Task task;
  task.id = id;
  task.fileName = name.value_or(kDefaultFile);
  return task.outputPath();
}

/// Tasks are changed one after the other, and no two may have the same output file in between. So
/// those whose file another one gets have a name of their own until they get theirs.
void freeFiles(Session& session, Plan& plan) {
  std::unordered_set<std::string> wanted;
  for (const Change& change : plan.changes) {
    if (const SettingChange* file = fileChangeOf(change)) {
      wanted.insert(fileOf(change.id, file->after));
    }
  }
  const Changes leaving = those(plan, [&](const Change& change) {
    const SettingChange* file = fileChangeOf(change);
    return file != nullptr && wanted.count(fileOf(change.id, file->before)) > 0;
  });
  if (!leaving.empty()) {
    session.query(
        "SELECT kodu_task_set(id, file_name => '$SERVICEID_$DATE.moving')"
        " FROM unnest($1::integer[]) AS id",
        {idsOf(leaving)});
  }
}

void define(Batches& batches, Plan& plan) {
  batches.run(defineStatement(), those(plan, [](const Change& c) { return c.isDefined; }),
              [](const Rows&, const Changes&) {});
}

void pause(Session& session, Plan& plan) {
  const Changes paused = those(plan, [](const Change& c) { return c.isPaused == true; });
  session.query(
      "SELECT kodu_task_pause(id, NULLIF(reason, ''), NULLIF(until, '')::timestamptz)"
      " FROM unnest($1::integer[], $2::text[], $3::text[]) AS task (id, reason, until)",
      {idsOf(paused),
       textsOf(paused, [](const Change& c) { return settingOf(c.definition, "reason"); }),
       textsOf(paused, [](const Change& c) { return settingOf(c.definition, "until"); })});
}

void group(Session& session, Plan& plan) {
  const Changes grouped = those(plan, [](const Change& c) { return c.isGrouped; });
  session.query(
      "INSERT INTO kodu_cron_key (cron_id, task_key, task_set)"
      " SELECT id, key, $3 FROM unnest($1::integer[], $2::text[]) AS task (id, key)"
      " ON CONFLICT (cron_id) DO UPDATE SET task_set = EXCLUDED.task_set",
      {idsOf(grouped), textsOf(grouped, [](const Change& c) { return c.key; }), plan.set});
}

void remove(Session& session, Plan& plan) {
  const Changes removed =
      those(plan, [](const Change& c) { return c.kind == Change::Kind::kDelete; });
  session.query("SELECT kodu_task_delete(id) FROM unnest($1::integer[]) AS id", {idsOf(removed)});
}

}  // namespace

void carryOut(Session& session, Plan& plan, Mistakes& mistakes) {
  Batches batches(session, plan, mistakes);
  resume(session, plan);
  freeFiles(session, plan);
  define(batches, plan);
  add(batches, plan);
  if (mistakes.areThere()) {
    return;
  }
  pause(session, plan);
  group(session, plan);
  remove(session, plan);
}
