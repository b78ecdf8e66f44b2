#include "ctl/task/archive.h"

#include <fmt/format.h>

#include <filesystem>

#include "ctl/failure.h"
#include "ctl/files/regularFile.h"
#include "ctl/session/session.h"
#include "ctl/task/task.h"

namespace {

/// `text` without an incomplete character at its end.
std::string withoutCutCharacter(std::string text) {
  std::size_t last = text.size();
  while (last > 0 && (static_cast<unsigned char>(text[last - 1]) & 0xc0U) == 0x80U) {
    --last;
  }
  const unsigned lead = last > 0 ? static_cast<unsigned char>(text[last - 1]) : 0U;
  const std::size_t length = lead < 0xc0 ? 1 : 2 + (lead >= 0xe0 ? 1 : 0) + (lead >= 0xf0 ? 1 : 0);
  if (last > 0 && text.size() - last + 1 < length) {
    text.resize(last - 1);
  }
  return text;
}

}  // namespace

std::vector<FailedRun> readFailedRuns(Session& session, const Task& task, int limit) {
  const Rows rows = session.query(
      "SELECT floor(EXTRACT(EPOCH FROM cron_date))::bigint AS time, cron_logfile AS name"
      " FROM kodu_cron_error WHERE cron_id = $1::int AND isfinite(cron_date)"
      " ORDER BY cron_date DESC, cron_error_id DESC LIMIT $2::int",
      {std::to_string(task.id), std::to_string(limit)});
  std::vector<FailedRun> runs;
  for (int row = 0; row < rows.count(); ++row) {
    FailedRun run;
    run.time = rows.number(row, "time");
    run.name = rows.text(row, "name");
    run.path = task.archivePath() + run.name;
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(run.path, error);
    if (!error) {
      run.size = size;
    }
    runs.push_back(run);
  }
  return runs;
}

bool staysBelow(const std::string& name) {
  return !name.empty() && name.front() != '/' && name.find("..") == std::string::npos;
}

std::string firstLineOf(const std::string& path) {
  constexpr std::size_t kMaxBytes = 240;
  try {
    const std::string begin = readRegularFile(path, kMaxBytes);
    return withoutCutCharacter(begin.substr(0, begin.find('\n')));
  } catch (const Failure&) {
    return "";
  }
}

std::string readOutput(const std::string& path) {
  return readRegularFile(path);
}
