#pragma once

#include <chrono>
#include <string>

#include "common/http/server.h"
#include "ctl/options.h"

/// The command line of koduexporter.
struct ExporterOptions {
  Options session;  // -f and --user
  HttpAddress listen{"127.0.0.1", 9464};
  std::chrono::milliseconds timeout{4000};      // of a scrape
  std::chrono::milliseconds countEvery{15000};  // from one reading of all tasks to the next
};

/// The result of parsing: without `isToRun`, help, version or an error is printed already, and
/// koduexporter ends with `exitCode`.
struct ExporterRequest {
  ExporterOptions options;
  bool isToRun = false;
  int exitCode = 0;
};

ExporterRequest parseExporterOptions(int argc, const char* const* argv);
