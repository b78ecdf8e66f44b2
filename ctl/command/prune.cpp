// koductl prune: old history, rows and archived outputs together.

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "core/globals.h"
#include "ctl/command/change.h"
#include "ctl/command/commands.h"
#include "ctl/daemon/daemonProcess.h"
#include "ctl/failure.h"
#include "ctl/files/fileCheck.h"
#include "ctl/options.h"
#include "ctl/session/call.h"
#include "ctl/session/session.h"
#include "ctl/task/archive.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/progress.h"
#include "ctl/terminal/text.h"
#include "sched/outputPath.h"

namespace {

namespace fs = std::filesystem;

/// The rows that a prune is about: those before a time, of some tasks or of all.
struct OldRows {
  std::string cutoff;  // as the server prints it: it does not change while files are deleted
  std::string ids;     // an array of the server; "{}" for all tasks

  std::vector<std::string> values() const { return {cutoff, ids}; }
};

constexpr const char* kCondition =
    "cron_date < $1::timestamp AND ($2::int[] = '{}' OR cron_id = ANY ($2::int[]))";

// The oldest rows from a time on: all earlier ones have been deleted. A name that a newer row has
// too is kept: its file belongs to the newer row.
constexpr const char* kBatch = R"(
SELECT cron_error_id, cron_id, cron_date, cron_logfile,
       EXISTS (SELECT FROM kodu_cron_error AS young
               WHERE young.cron_id = old.cron_id AND young.cron_logfile = old.cron_logfile
                 AND young.cron_date >= $1::timestamp) AS is_young
FROM kodu_cron_error AS old WHERE {} AND (cron_id, cron_date) >= ($3::int, $4::timestamp)
ORDER BY cron_id, cron_date LIMIT 10000)";

/// Where a batch begins.
struct Place {
  std::string id = "-2147483648", date = "-infinity";
};

/// Some history rows and the files that belong to them.
struct Batch {
  std::string rows;  // their ids as an array of the server
  long count = 0;
  std::vector<fs::path> files;
  Place last;  // of the last row
};

Batch readBatch(Session& session, const OldRows& old, const Place& from) {
  std::vector<std::string> values = old.values();
  values.insert(values.end(), {from.id, from.date});
  const Rows rows = session.query(fmt::format(kBatch, kCondition), values);
  Batch batch;
  for (int row = 0; row < rows.count(); ++row) {
    batch.rows.append(row == 0 ? "{" : ",").append(rows.text(row, "cron_error_id"));
    const std::string name = rows.text(row, "cron_logfile");
    if (staysBelow(name) && !rows.isTrue(row, "is_young")) {
      batch.files.emplace_back(
          archiveDirectory(session.config.outputDirectory, rows.text(row, "cron_id")) + name);
    }
    batch.last = {rows.text(row, "cron_id"), rows.text(row, "cron_date")};
  }
  batch.rows += "}";
  batch.count = rows.count();
  return batch;
}

/// What has been deleted.
struct Removal {
  long rows = 0, files = 0;
  std::uintmax_t bytes = 0;
};

/// The output folder itself exists on the daemon's machine; one below it may be missing.
void requireFolder(const fs::path& folder, bool mayBeMissing) {
  struct stat status {};
  if (mayBeMissing && stat(folder.c_str(), &status) != 0 && errno == ENOENT) {
    return;
  }
  if (const auto reason = whyNoFilesIn(folder)) {
    throw Failure(
        kNotPermitted,
        fmt::format("nothing was deleted, because archived outputs cannot be deleted: {}; "
                    "run koductl on the daemon's machine, as its user or as root",
                    *reason));
  }
}

/// Called before anything changes: files can be removed from each folder that has some.
void requireAccess(Session& session, const OldRows& old) {
  const std::string& outputs = session.config.outputDirectory;
  bool isFirst = true;
  session.forEachRow(
      fmt::format("SELECT DISTINCT cron_id FROM kodu_cron_error WHERE {}", kCondition),
      old.values(), [&](Fields& fields) {
        if (isFirst) {
          requireFolder(outputs, false);
        }
        isFirst = false;
        requireFolder(fs::path(archiveDirectory(outputs, fields.text())).parent_path(), true);
      });
}

/// A missing file is not an error: an earlier prune was interrupted.
void removeFile(const fs::path& path, Removal& removal) {
  struct stat status {};
  const bool isThere = lstat(path.c_str(), &status) == 0;
  if (isThere && unlink(path.c_str()) == 0) {
    ++removal.files;
    removal.bytes += static_cast<std::uintmax_t>(status.st_size);
  } else if (errno != ENOENT) {
    throw Failure(
        kNotPermitted,
        fmt::format("cannot delete {}: {}; {} and {} deleted: remove the cause and prune again",
                    path.string(), std::strerror(errno), counted(removal.files, "archived output"),
                    counted(removal.rows, "history row")));
  }
}

long countRows(Session& session, const OldRows& old) {
  return session
      .query(fmt::format("SELECT count(*) AS rows FROM kodu_cron_error WHERE {}", kCondition),
             old.values())
      .number(0, "rows");
}

/// Removes the files and their rows, a batch at a time, each batch's rows by one statement: the
/// daemon, whose purge may want the same rows, waits for no file. If it is interrupted, the rows of
/// all remaining files are kept, so that the next prune finds them.
void removeOld(Session& session, const OldRows& old, Progress& progress, Removal& removal) {
  Place from;
  for (Batch batch = readBatch(session, old, from); batch.count > 0;
       batch = readBatch(session, old, from)) {
    for (const fs::path& path : batch.files) {
      removeFile(path, removal);
    }
    session.query("DELETE FROM kodu_cron_error WHERE cron_error_id = ANY ($1::int[])",
                  {batch.rows});
    removal.rows += batch.count;
    from = batch.last;
    progress.advance(batch.count);
  }
}

/// The rows in question: of all tasks, or of a thousand of the selected ones at a time.
std::vector<OldRows> rowsOf(const std::string& cutoff, const std::vector<int>& ids) {
  constexpr std::size_t kTasks = 1000;
  std::vector<OldRows> parts;
  for (std::size_t i = 0; i < ids.size(); i += kTasks) {
    const auto begin = ids.begin() + static_cast<long>(i);
    const auto end = ids.begin() + static_cast<long>(std::min(ids.size(), i + kTasks));
    parts.push_back({cutoff, fmt::format("{{{}}}", fmt::join(begin, end, ","))});
  }
  return parts.empty() ? std::vector<OldRows>{{cutoff, "{}"}} : parts;
}

void report(const Options& options, const Removal& removal) {
  if (options.asJson) {
    Json::Value json;
    json["dry_run"] = options.isDryRun;
    json["rows"] = Json::Int64{removal.rows};
    json["files"] = Json::Int64{removal.files};
    json["bytes"] = Json::UInt64{removal.bytes};
    printJson(json);
  } else if (options.isDryRun) {
    print("{} would be deleted with the archived outputs\n", counted(removal.rows, "history row"));
  } else {
    print("{} and {} deleted, {}\n", counted(removal.rows, "history row"),
          counted(removal.files, "archived output"),
          counted(static_cast<long>(removal.bytes), "byte"));
  }
}

/// None for all tasks: without conditions the age is the condition, and nothing is asked.
std::vector<int> chosenTasks(Session& session, const Options& options) {
  const Selection& selection = options.selection;
  if (!selection.isLimitedToSome() && !selection.limit && selection.after.empty()) {
    return {};
  }
  std::vector<int> ids = selectedIds(session, options, "prune", true);
  if (ids.empty()) {
    throw Failure(kNotFound, "no task is selected; nothing was deleted");
  }
  if (!options.isDryRun) {
    confirm(session, options, "prune", "", ids);
  }
  return ids;
}

void removeAll(Session& session, const std::vector<OldRows>& parts, long total, Removal& removal) {
  const DaemonIdentity daemon = findDaemon(session.config);
  daemon.requireKnown();
  const AsDaemon rights(daemon);
  for (const OldRows& part : parts) {
    requireAccess(session, part);
  }
  Progress progress(total, "history rows");
  for (const OldRows& part : parts) {
    removeOld(session, part, progress, removal);
  }
}

}  // namespace

int runPrune(const Options& options) {
  Session session(options);
  const std::string cutoff = Call("kodu_history_cutoff")
                                 .with("older_than", "interval", options.olderThan)
                                 .run(session)
                                 .text(0, "result");
  const std::vector<OldRows> parts = rowsOf(cutoff, chosenTasks(session, options));
  long total = 0;
  for (const OldRows& part : parts) {
    total += countRows(session, part);
  }
  Removal removal;
  if (options.isDryRun) {
    removal.rows = total;
  } else {
    removeAll(session, parts, total, removal);
  }
  report(options, removal);
  return kDone;
}
