#include "common/metrics/page.h"

#include <limits>
#include <string>

#include <gtest/gtest.h>

namespace {

constexpr MetricsFormat kClassic = MetricsFormat::kClassic;
constexpr MetricsFormat kOpen = MetricsFormat::kOpenMetrics;

/// The page with one family and one sample.
std::string pageOf(MetricsFormat format, MetricType type, const std::string& name,
                   const Labels& labels, double value) {
  MetricsPage page(format);
  page.begin(type, name, "Some help.");
  page.add(labels, value);
  return page.text();
}

/// The line of a sample.
std::string sampleOf(const Labels& labels, double value) {
  const std::string text = pageOf(kClassic, MetricType::kGauge, "a", labels, value);
  return text.substr(text.rfind('\n', text.size() - 2) + 1);
}

TEST(MetricsPageTest, WritesTheClassicFormat) {
  EXPECT_EQ(pageOf(kClassic, MetricType::kGauge, "a_seconds", {}, 1.5),
            "# HELP a_seconds Some help.\n# TYPE a_seconds gauge\na_seconds 1.5\n");
  EXPECT_EQ(pageOf(kClassic, MetricType::kCounter, "a", {{"x", "y"}, {"z", ""}}, 2),
            "# HELP a_total Some help.\n# TYPE a_total counter\na_total{x=\"y\",z=\"\"} 2\n");
  EXPECT_EQ(pageOf(kClassic, MetricType::kInfo, "a", {{"v", "1"}}, 1),
            "# HELP a_info Some help.\n# TYPE a_info gauge\na_info{v=\"1\"} 1\n");
}

TEST(MetricsPageTest, WritesOpenMetrics) {
  EXPECT_EQ(pageOf(kOpen, MetricType::kGauge, "a_seconds", {}, 1.5),
            "# HELP a_seconds Some help.\n# TYPE a_seconds gauge\n# UNIT a_seconds seconds\n"
            "a_seconds 1.5\n# EOF\n");
  EXPECT_EQ(pageOf(kOpen, MetricType::kCounter, "a", {{"x", "y"}}, 2),
            "# HELP a Some help.\n# TYPE a counter\na_total{x=\"y\"} 2\n# EOF\n");
  EXPECT_EQ(pageOf(kOpen, MetricType::kInfo, "a", {{"v", "1"}}, 1),
            "# HELP a Some help.\n# TYPE a info\na_info{v=\"1\"} 1\n# EOF\n");
  EXPECT_EQ(MetricsPage(kOpen).text(), "# EOF\n");
}

TEST(MetricsPageTest, WritesAHistogramAlikeInBothFormats) {
  for (const MetricsFormat format : {kClassic, kOpen}) {
    MetricsPage page(format);
    page.begin(MetricType::kHistogram, "a", "Some help.");
    page.add("_bucket", {{"le", "1.0"}}, 2);
    page.add("_bucket", {{"le", "+Inf"}}, 3);
    page.add("_sum", {}, 4.25);
    page.add("_count", {}, 3);
    EXPECT_EQ(page.text(),
              std::string("# HELP a Some help.\n# TYPE a histogram\na_bucket{le=\"1.0\"} 2\n"
                          "a_bucket{le=\"+Inf\"} 3\na_sum 4.25\na_count 3\n") +
                  (format == kOpen ? "# EOF\n" : ""));
  }
}

TEST(MetricsPageTest, EscapesTheValuesOfLabels) {
  EXPECT_EQ(sampleOf({{"x", "a\\b\"c\ne"}}, 0), "a{x=\"a\\\\b\\\"c\\ne\"} 0\n");
  EXPECT_EQ(sampleOf({{"x", "\xc3\xa9\xe2\x82\xac"}}, 0), "a{x=\"\xc3\xa9\xe2\x82\xac\"} 0\n");
  EXPECT_EQ(sampleOf({{"x", "\x1b[2J\xff\x7f\t"}}, 0), "a{x=\"?[2J???\"} 0\n")
      << "what may control a terminal, and bytes that are not UTF-8";
}

TEST(MetricsPageTest, WritesEachNumberSoThatItIsReadAsTheSame) {
  EXPECT_EQ(sampleOf({}, 0), "a 0\n");
  EXPECT_EQ(sampleOf({}, -3), "a -3\n");
  EXPECT_EQ(sampleOf({}, 1e15), "a 1000000000000000\n");
  EXPECT_EQ(sampleOf({}, 1e17), "a 1e+17\n");
  EXPECT_EQ(sampleOf({}, 0.1), "a 0.1\n");
  EXPECT_EQ(sampleOf({}, 1795300571.3654163), "a 1795300571.3654163\n");
  EXPECT_EQ(sampleOf({}, std::numeric_limits<double>::infinity()), "a +Inf\n");
  EXPECT_EQ(sampleOf({}, -std::numeric_limits<double>::infinity()), "a -Inf\n");
  EXPECT_EQ(sampleOf({}, std::numeric_limits<double>::quiet_NaN()), "a NaN\n");
}

TEST(AcceptedFormatTest, TakesOpenMetricsWhereItIsNoLessWanted) {
  // As Prometheus sends it.
  EXPECT_EQ(
      acceptedFormat("application/openmetrics-text;version=1.0.0,application/openmetrics-text;"
                     "version=0.0.1;q=0.75,text/plain;version=0.0.4;q=0.5,*/*;q=0.1"),
      kOpen);
  EXPECT_EQ(acceptedFormat("Application/OpenMetrics-Text"), kOpen);
  EXPECT_EQ(acceptedFormat("text/plain ; q=0.5 , application/openmetrics-text ; q=0.5"), kOpen);
}

TEST(AcceptedFormatTest, TakesTheClassicOneOtherwise) {
  EXPECT_EQ(acceptedFormat(""), kClassic);
  EXPECT_EQ(acceptedFormat("*/*"), kClassic);
  EXPECT_EQ(acceptedFormat("text/html,text/plain"), kClassic);
  EXPECT_EQ(acceptedFormat("text/plain;q=0.9,application/openmetrics-text;q=0.8"), kClassic);
  EXPECT_EQ(acceptedFormat("application/openmetrics-text;q=0"), kClassic);
  EXPECT_EQ(acceptedFormat("application/openmetrics-text;q=x"), kClassic);
  EXPECT_EQ(acceptedFormat(",;,;q=,"), kClassic);
}

TEST(ContentTypeOfTest, NamesFormatAndVersion) {
  EXPECT_STREQ(contentTypeOf(kClassic), "text/plain; version=0.0.4; charset=utf-8");
  EXPECT_STREQ(contentTypeOf(kOpen), "application/openmetrics-text; version=1.0.0; charset=utf-8");
}

}  // namespace
