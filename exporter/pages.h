#pragma once

#include <chrono>
#include <functional>

#include "common/http/server.h"
#include "ctl/metrics/reading.h"

/// Reads the metrics within a time.
using Scrape = std::function<MetricsReading(std::chrono::milliseconds)>;

/// What koduexporter answers: /metrics in the format that the client accepts, and /-/healthy, which
/// does not ask the database. A scrape takes at most `most`, and less where the client says that it
/// does not wait for so long.
HttpResponse exporterPage(const HttpRequest& request, const Scrape& scrape,
                          std::chrono::milliseconds most);
