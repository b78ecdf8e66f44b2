// koductl metrics: writes what koduexporter serves, for a monitoring agent that reads files.

#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "ctl/command/commands.h"
#include "ctl/failure.h"
#include "ctl/metrics/metricsText.h"
#include "ctl/metrics/reading.h"
#include "ctl/options.h"
#include "ctl/session/session.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/text.h"

namespace {

MetricsReading read(const Options& options) {
  Options own = options;
  own.applicationName = "kodu_metrics";
  Session session(own);
  while (!collectCounters(session)) {
  }
  MetricsReading reading = readMetrics(session);
  reading.isCounted = true;
  reading.tasks = readTasks(session);
  return reading;
}

/// Replaces `path` at once: an agent that reads it meanwhile gets the old file or the new one.
void replaceFile(const std::string& path, const std::string& text) {
  const std::string fresh = fmt::format("{}.{}", path, getpid());
  std::ofstream file(fresh, std::ios::binary | std::ios::trunc);
  file << text << std::flush;
  if (!file.good() || std::rename(fresh.c_str(), path.c_str()) != 0) {
    const int error = errno;
    std::remove(fresh.c_str());
    throw Failure(kNotWritten, fmt::format("cannot write {}: {}", path, std::strerror(error)));
  }
}

void printAsJson(MetricsFormat format, const std::string& text) {
  Json::Value json;
  json["content_type"] = contentTypeOf(format);
  json["text"] = text;
  printJson(json);
}

void write(const Options& options, const MetricsReading& reading) {
  const MetricsFormat format =
      options.isOpenMetrics ? MetricsFormat::kOpenMetrics : MetricsFormat::kClassic;
  const std::string text = metricsText(reading, format, KODU_VERSION);
  if (!options.metricsFile.empty()) {
    replaceFile(options.metricsFile, text);
  } else if (options.asJson) {
    printAsJson(format, text);
  } else {
    print("{}", text);
  }
}

}  // namespace

int runMetrics(const Options& options) {
  try {
    write(options, read(options));
  } catch (const Failure& e) {
    if (e.exitCode == kNoDatabase) {
      write(options, MetricsReading());  // so that an alert can say it
    }
    throw;
  }
  return kDone;
}
