// koductl import: writes what other schedulers run as tasks that koductl apply reads.

#include "ctl/import/import.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <iterator>
#include <string>
#include <vector>

#include "ctl/command/commands.h"
#include "ctl/declared/declaration.h"
#include "ctl/declared/declarationWriter.h"
#include "ctl/declared/sources.h"
#include "ctl/failure.h"
#include "ctl/import/crontab.h"
#include "ctl/import/nagios.h"
#include "ctl/import/names.h"
#include "ctl/import/pgCron.h"
#include "ctl/options.h"
#include "ctl/terminal/text.h"
#include "ctl/terminal/zone.h"

namespace {

/// The names that cron itself reads in a directory: no dot is among their characters, so that it
/// skips backups and what a package has left.
bool isCrontabName(const std::string& name) {
  return std::all_of(name.begin(), name.end(),
                     [](unsigned char c) { return std::isalnum(c) != 0 || c == '_' || c == '-'; });
}

bool isCsvName(const std::string& name) {
  return name.ends_with(".csv") && !name.starts_with('.');
}

std::vector<Source> sourcesOf(const Options& options, const FileChoice& choice) {
  std::vector<Source> sources;
  for (const std::string& path : options.sources) {
    std::vector<Source> more = readSources(path, choice);
    std::move(more.begin(), more.end(), std::back_inserter(sources));
  }
  return sources;
}

/// What the keys begin with: the name of the set or else of the file.
std::string prefixOf(const Options& options, const std::string& file) {
  constexpr std::size_t kLongest = 60;  // a key has room for 200 characters
  const std::string part = keyPart(std::filesystem::path(file).filename().string());
  if (!options.set.empty()) {
    return options.set.substr(0, kLongest);
  }
  return part.empty() ? options.importFormat : part;
}

void importCrontabs(const Options& options, Import& import) {
  const FileChoice choice = {"files whose names consist of letters, digits, _ and -",
                             isCrontabName};
  for (const Source& source : sourcesOf(options, choice)) {
    const std::string path = source.name == kStandardInput ? "" : source.name;
    const bool hasUsers = options.hasUsers || isSystemCrontab(path);
    importCrontab(source, {hasUsers, zoneName(), prefixOf(options, path)}, import);
  }
}

void importPgCron(const Options& options, Import& import) {
  // Its times are in GMT unless the server's cron.timezone says otherwise.
  const std::string zone = options.zone.empty() ? kDefaultZone : options.zone;
  const std::string prefix = prefixOf(options, "");
  for (const Source& source : sourcesOf(options, {"files *.csv", isCsvName})) {
    importPgCron(source, zone, prefix, import);
  }
}

bool isObjectFile(const std::string& name) {
  return name.ends_with(".cfg") && !name.starts_with('.');
}

void importNagios(const Options& options, Import& import) {
  importNagios(sourcesOf(options, {"files *.cfg", isObjectFile, true}), zoneName(),
               prefixOf(options, ""), import);
}

Import importAll(const Options& options) {
  Import import;
  if (options.importFormat == "pg_cron") {
    importPgCron(options, import);
  } else if (options.importFormat == "nagios") {
    importNagios(options, import);
  } else {
    importCrontabs(options, import);
  }
  return import;
}

void write(const Import& import, const Options& options) {
  DeclarationWriter writer(options.set, options.asJson);
  for (const ImportedTask& task : import.tasks()) {
    writer.write(task.key, task.definition);
  }
  writer.end();
}

}  // namespace

int runImport(const Options& options) {
  if (!options.set.empty() && !isOneWord(options.set)) {
    throw Failure(kWrongUsage, fmt::format("--set: the name of a set {}", kWordRule));
  }
  const Import import = importAll(options);
  import.printReport();
  if (options.isStrict && import.leftOut() > 0) {
    throw Failure(kRefused, fmt::format("{} cannot be translated; nothing was written",
                                        counted(import.leftOut(), "line")));
  }
  write(import, options);
  return kDone;
}
