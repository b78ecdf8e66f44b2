// koductl prune: old history, rows and archived outputs together.

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "core/globals.h"
#include "ctl/command/commands.h"
#include "ctl/daemon/daemonProcess.h"
#include "ctl/failure.h"
#include "ctl/files/fileCheck.h"
#include "ctl/options.h"
#include "ctl/session/call.h"
#include "ctl/session/session.h"
#include "ctl/task/archive.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/text.h"
#include "sched/outputPath.h"

namespace {

namespace fs = std::filesystem;

// A name that a newer row has too is kept: its file belongs to the newer row.
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
      paths.emplace_back(
          archiveDirectory(session.config.outputDirectory, rows.text(row, "cron_id")) + name);
    }
  }
  return paths;
}

/// The number and size of the deleted files.
struct Removal {
  long files = 0;
  std::uintmax_t bytes = 0;
};

/// Called before anything changes: each folder is either missing, or files can be removed from it.
void requireAccess(const std::vector<fs::path>& paths, const std::string& outputDirectory) {
  std::set<fs::path> folders = {outputDirectory};
  for (const fs::path& path : paths) {
    folders.insert(path.parent_path());
  }
  for (const fs::path& folder : folders) {
    struct stat status {};
    // The output folder itself exists on the daemon's machine.
    const bool isMissing = stat(folder.c_str(), &status) != 0 && errno == ENOENT;
    if (isMissing && folder != outputDirectory) {
      continue;
    }
    if (const auto reason = whyNoFilesIn(folder)) {
      throw Failure(kNotPermitted,
                    fmt::format("nothing was deleted, because archived outputs cannot be "
                                "deleted: {}; run koductl on the daemon's machine, as its "
                                "user or as root",
                                *reason));
    }
  }
}

/// A missing file is not an error: an earlier prune was interrupted.
void removeFile(const fs::path& path, Removal& removal) {
  struct stat status {};
  const bool isThere = lstat(path.c_str(), &status) == 0;
  if (isThere && unlink(path.c_str()) == 0) {
    ++removal.files;
    removal.bytes += static_cast<std::uintmax_t>(status.st_size);
  } else if (errno != ENOENT) {
    throw Failure(kNotPermitted,
                  fmt::format("cannot delete {}: {}; {} and no history row deleted: remove the "
                              "cause and prune again",
                              path.string(), std::strerror(errno),
                              counted(removal.files, "archived output")));
  }
}

/// Deletes the rows and returns their number, when the transaction is committed.
long deleteRows(Session& session, const std::string& olderThan) {
  return Call("kodu_history_prune")
      .with("older_than", "interval", olderThan)
      .run(session)
      .number(0, "result");
}

/// Lets the database raise its errors before the first file is deleted. Rolled back at once:
/// otherwise the daemon's purge, and with it every task, would wait for the rows until all files
/// are removed.
void rehearse(Session& session, const std::string& olderThan) {
  session.query("BEGIN");
  deleteRows(session, olderThan);
  session.query("ROLLBACK");
}

/// Removes the files, then their rows, and returns the number of rows. If it is interrupted, the
/// rows of all remaining files are kept, so that the next prune finds them.
long removeOld(Session& session, const std::string& olderThan, Removal& removal) {
  // now() does not change within a transaction: a row that becomes too old meanwhile is kept with
  // its file.
  session.query("BEGIN");
  // Removing many files takes longer than the server keeps an idle transaction.
  session.query("SET LOCAL idle_in_transaction_session_timeout = 0");
  const std::vector<fs::path> paths = pathsOfOldRows(session, olderThan);
  if (!paths.empty()) {
    requireAccess(paths, session.config.outputDirectory);
  }
  for (const fs::path& path : paths) {
    removeFile(path, removal);
  }
  const long rows = deleteRows(session, olderThan);
  session.query("COMMIT");
  return rows;
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
  rehearse(session, options.olderThan);
  const DaemonIdentity daemon = findDaemon(session.config);
  daemon.requireKnown();
  const AsDaemon rights(daemon);
  Removal removal;
  const long rows = removeOld(session, options.olderThan, removal);
  report(options, rows, removal);
  return kDone;
}
