#include "exporter/pages.h"

#include <algorithm>
#include <charconv>

#include "common/metrics/page.h"
#include "ctl/metrics/metricsText.h"

namespace {

constexpr const char* kIndex =
    "koduexporter serves the metrics of koducron at /metrics, and says at /-/healthy that it "
    "runs.\n";

/// Prometheus says how long it waits. Of that, a tenth is left for the way.
std::chrono::milliseconds limitOf(const HttpRequest& request, std::chrono::milliseconds most) {
  const std::string text = request.header("X-Prometheus-Scrape-Timeout-Seconds");
  double seconds = 0;
  const auto parsed = std::from_chars(text.data(), text.data() + text.size(), seconds);
  constexpr double kLongest = 600;
  if (parsed.ec != std::errc() || !(seconds > 0) || seconds > kLongest) {
    return most;
  }
  constexpr double kMillisecondsToUse = 900;
  return std::min(most, std::chrono::milliseconds(static_cast<long>(seconds * kMillisecondsToUse)));
}

HttpResponse metricsPage(const HttpRequest& request, const Scrape& scrape,
                         std::chrono::milliseconds most) {
  const MetricsFormat format = acceptedFormat(request.header("Accept"));
  const MetricsReading reading = scrape(limitOf(request, most));
  return {200, metricsText(reading, format, KODU_VERSION), contentTypeOf(format), {}};
}

}  // namespace

HttpResponse exporterPage(const HttpRequest& request, const Scrape& scrape,
                          std::chrono::milliseconds most) {
  if (request.method != "GET" && request.method != "HEAD") {
    HttpResponse refusal{405, "Only GET and HEAD are answered.\n"};
    refusal.headers.emplace_back("Allow", "GET, HEAD");
    return refusal;
  }
  if (request.path == "/metrics") {
    return metricsPage(request, scrape, most);
  }
  if (request.path == "/-/healthy") {
    return {200, "koduexporter is running.\n"};
  }
  return request.path == "/" ? HttpResponse{200, kIndex}
                             : HttpResponse{404, "There is no such page.\n"};
}
