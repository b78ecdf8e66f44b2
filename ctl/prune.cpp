// koductl prune: old history, rows and archived outputs together.

#include <fmt/format.h>

#include <filesystem>
#include <string>
#include <vector>

#include "core/globals.h"
#include "ctl/archive.h"
#include "ctl/call.h"
#include "ctl/commands.h"
#include "ctl/daemonProcess.h"
#include "ctl/failure.h"
#include "ctl/fileCheck.h"
#include "ctl/options.h"
#include "ctl/print.h"
#include "ctl/session.h"
#include "ctl/text.h"
#include "sched/outputPath.h"

namespace {

namespace fs = std::filesystem;

// A name that a younger row has too stays: its file is the younger one's.
constexpr const char* kOldRows = R"(
SELECT cron_id, cron_logfile FROM kodu_cron_error AS old
WHERE cron_date < now() - $1::interval
  AND NOT EXISTS (SELECT FROM kodu_cron_error AS young
                  WHERE young.cron_id = old.cron_id AND young.cron_logfile = old.cron_logfile
                    AND young.cron_date >= now() - $1::interval))";

std::vector<fs::path> pathsOfOldRows(Session& session, const std::string& olderThan) {
  const Rows rows = session.query(kOldRows, {olderThan});
  std::vector<fs::path> paths;
  for (int row = 0; row < rows.count(); ++row) {
    const std::string name = rows.text(row, "cron_logfile");
    if (staysBelow(name)) {
      paths.emplace_back(archiveDirectory(rows.text(row, "cron_id")) + name);
    }
  }
  return paths;
}

/// What has become of the files.
struct Removal {
  long files = 0;
  std::uintmax_t bytes = 0;
  std::string firstFailure;
};

void removeFile(const fs::path& path, Removal& removal) {
  std::error_code error;
  const std::uintmax_t size = fs::file_size(path, error);
  if (fs::remove(path, error)) {
    ++removal.files;
    removal.bytes += size;
  } else if (error && removal.firstFailure.empty()) {
    removal.firstFailure = fmt::format("{}: {}", path.string(), error.message());
  }
}

/// Deletes the rows and returns their number; `paths` get the files that go with them.
long deleteRows(Session& session, const std::string& olderThan, std::vector<fs::path>& paths) {
  // In one transaction now() is one moment: a row that grows too old meanwhile stays with its file.
  session.query("BEGIN");
  paths = pathsOfOldRows(session, olderThan);
  const long rows = Call("kodu_history_prune")
                        .with("older_than", "interval", olderThan)
                        .run(session)
                        .number(0, "result");
  session.query("COMMIT");
  return rows;
}

/// Before any row goes: without its row nobody finds a copy again.
void requireArchiveAccess() {
  const std::string archive = log_directory + "/archive";
  std::error_code error;
  if (!fs::exists(archive, error)) {
    return;
  }
  if (const auto reason = whyNoFilesIn(archive)) {
    throw Failure(kNotPermitted, fmt::format("cannot delete archived outputs: {}; run koductl as "
                                             "the daemon's user or as root",
                                             *reason));
  }
}

void report(const Options& options, long rows, const Removal& removal) {
  if (options.asJson) {
    Json::Value json;
    json["rows"] = Json::Int64{rows};
    json["files"] = Json::Int64{removal.files};
    json["bytes"] = Json::UInt64{removal.bytes};
    printJson(json);
  } else {
    print("{} and {} deleted, {}\n", counted(rows, "history row"),
          counted(removal.files, "archived output"),
          counted(static_cast<long>(removal.bytes), "byte"));
  }
}

}  // namespace

int runPrune(const Options& options) {
  Session session(options);
  const DaemonIdentity daemon = findDaemon(session.config);
  const AsDaemon rights(daemon);
  requireArchiveAccess();
  std::vector<fs::path> paths;
  const long rows = deleteRows(session, options.olderThan, paths);
  Removal removal;
  for (const fs::path& path : paths) {
    removeFile(path, removal);
  }
  report(options, rows, removal);
  if (!removal.firstFailure.empty()) {
    throw Failure(kNotPermitted,
                  "not every archived output could be deleted: " + removal.firstFailure);
  }
  return kDone;
}
