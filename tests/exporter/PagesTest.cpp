#include "exporter/pages.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using std::chrono::milliseconds;
using testing::EndsWith;
using testing::HasSubstr;

HttpRequest requestOf(const std::string& path, const std::string& header = "",
                      const std::string& value = "") {
  HttpRequest request;
  request.method = "GET";
  request.path = path;
  request.headers.emplace_back(header, value);
  return request;
}

/// The answer with a limit of four seconds; `limit` becomes what the scrape may take.
HttpResponse answerTo(const HttpRequest& request, milliseconds* limit = nullptr) {
  const Scrape scrape = [limit](milliseconds most) {
    if (limit != nullptr) {
      *limit = most;
    }
    return MetricsReading();
  };
  return exporterPage(request, scrape, milliseconds(4000));
}

TEST(ExporterPageTest, ServesMetricsInTheFormatThatIsAccepted) {
  const HttpResponse classic = answerTo(requestOf("/metrics"));
  EXPECT_EQ(classic.status, 200U);
  EXPECT_EQ(classic.contentType, "text/plain; version=0.0.4; charset=utf-8");
  EXPECT_THAT(classic.body, HasSubstr("\nkoducron_database_up 0\n"));
  const HttpResponse open =
      answerTo(requestOf("/metrics", "ACCEPT", "application/openmetrics-text"));
  EXPECT_EQ(open.contentType, "application/openmetrics-text; version=1.0.0; charset=utf-8");
  EXPECT_THAT(open.body, EndsWith("# EOF\n"));
}

TEST(ExporterPageTest, AnswersBeforeTheClientStopsWaiting) {
  for (const auto& [told, expected] : std::vector<std::pair<std::string, long>>{{"", 4000},
                                                                                {"10", 4000},
                                                                                {"2", 1800},
                                                                                {"0.5", 450},
                                                                                {"-1", 4000},
                                                                                {"nan", 4000},
                                                                                {"inf", 4000},
                                                                                {"1e300", 4000},
                                                                                {"x", 4000}}) {
    milliseconds limit{};
    answerTo(requestOf("/metrics", "X-Prometheus-Scrape-Timeout-Seconds", told), &limit);
    EXPECT_EQ(limit.count(), expected) << told;
  }
}

TEST(ExporterPageTest, SaysThatItRunsWithoutAskingTheDatabase) {
  milliseconds limit{-1};
  EXPECT_EQ(answerTo(requestOf("/-/healthy"), &limit).status, 200U);
  EXPECT_EQ(limit.count(), -1);
}

TEST(ExporterPageTest, RefusesTheRest) {
  EXPECT_EQ(answerTo(requestOf("/")).status, 200U);
  EXPECT_EQ(answerTo(requestOf("/metrics/")).status, 404U);
  HttpRequest post = requestOf("/metrics");
  post.method = "POST";
  EXPECT_EQ(answerTo(post).status, 405U);
  post.method = "HEAD";
  EXPECT_EQ(answerTo(post).status, 200U);
}

}  // namespace
