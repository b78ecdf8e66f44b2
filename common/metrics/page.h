#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// The two text formats that monitoring systems read.
enum class MetricsFormat {
  kClassic,      // "text/plain; version=0.0.4"
  kOpenMetrics,  // "application/openmetrics-text; version=1.0.0"
};

/// The value of the header Content-Type.
const char* contentTypeOf(MetricsFormat format);

/// The format that a client prefers, by its header Accept: OpenMetrics where it is accepted and no
/// less wanted than the classic one. "" accepts everything.
MetricsFormat acceptedFormat(std::string_view accept);

enum class MetricType { kGauge, kCounter, kHistogram, kInfo };

/// Names and values of labels, in the order in which they are written.
using Labels = std::vector<std::pair<std::string, std::string>>;

/// A text of metric families in one of the formats. Owned by one thread.
///
///   page.begin(MetricType::kCounter, "koducron_runs", "Attempts to run a task, by outcome.");
///   page.add({{"outcome", "ok"}}, 3);
///
/// writes, among lines that describe the family: koducron_runs_total{outcome="ok"} 3
class MetricsPage {
 public:
  explicit MetricsPage(MetricsFormat wanted) : format(wanted) {}

  /// Begins a family. `name` has no suffix of its type; one that ends in "_seconds" has that unit.
  /// `help` is a sentence without quotes and backslashes.
  void begin(MetricType type, const std::string& name, const std::string& help);
  /// Adds a sample to the family that was begun last: a counter gets "_total", an info "_info".
  /// Unsafe characters of the labels' values become "?".
  void add(const Labels& labels, double value);
  /// The same of a histogram, with one of its suffixes: "_bucket", "_sum" or "_count".
  void add(const std::string& suffix, const Labels& labels, double value);
  /// A family with one sample without labels.
  void single(MetricType type, const std::string& name, const std::string& help, double value);

  /// The whole text with its end.
  std::string text() const;

 private:
  const MetricsFormat format;
  MetricType current = MetricType::kGauge;
  std::string family;  // the name of the one that was begun last
  std::string lines;
};
