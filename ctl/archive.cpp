#include "ctl/archive.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "ctl/failure.h"
#include "ctl/session.h"
#include "ctl/task.h"

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
  std::ifstream file(path, std::ios::binary);
  std::string begin(kMaxBytes, '\0');
  file.read(begin.data(), kMaxBytes);
  begin.resize(static_cast<std::size_t>(file.gcount()));
  return begin.substr(0, begin.find('\n'));
}

std::string readOutput(const std::string& path) {
  const std::ifstream file(path, std::ios::binary);
  if (!file.is_open()) {
    const int error = errno;
    throw Failure(error == EACCES ? kNotPermitted : kNotFound,
                  fmt::format("cannot read {}: {}", path, std::strerror(error)));
  }
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}
