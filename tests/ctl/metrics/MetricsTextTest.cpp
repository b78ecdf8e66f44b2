#include "ctl/metrics/metricsText.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl/metrics/reading.h"

namespace {

using testing::HasSubstr;
using testing::Not;

/// The page of a database that answered.
class MetricsTextTest : public testing::Test {
 protected:
  MetricsTextTest() {
    reading.isDatabaseUp = true;
    reading.isCounted = true;
    reading.daemon.daemons = 2;
    reading.daemon.schemaVersion = 7;
  }
  std::string text(MetricsFormat format = MetricsFormat::kClassic) const {
    return metricsText(reading, format, "1.2.3");
  }

  MetricsReading reading;
};

TEST_F(MetricsTextTest, ShowsNothingButThatWhileTheDatabaseIsAway) {
  reading.isDatabaseUp = false;
  reading.tasks = TaskFigures();
  EXPECT_EQ(text(),
            "# HELP koducron_build_info The program that answers.\n"
            "# TYPE koducron_build_info gauge\n"
            "koducron_build_info{version=\"1.2.3\"} 1\n"
            "# HELP koducron_database_up Whether the database answered in time.\n"
            "# TYPE koducron_database_up gauge\n"
            "koducron_database_up 0\n"
            "# HELP koducron_scrape_duration_seconds How long the answer of the database took.\n"
            "# TYPE koducron_scrape_duration_seconds gauge\n"
            "koducron_scrape_duration_seconds 0\n");
}

TEST_F(MetricsTextTest, ShowsTheDaemon) {
  EXPECT_THAT(text(), HasSubstr("\nkoducron_daemon_up 1\n"));
  EXPECT_THAT(text(), HasSubstr("\nkoducron_daemon_sessions 2\n"));
  EXPECT_THAT(text(), HasSubstr("\nkoducron_schema_version 7\n"));
  EXPECT_THAT(text(), Not(HasSubstr("koducron_ledger_pruned_timestamp_seconds")));
  EXPECT_THAT(text(), Not(HasSubstr("koducron_tasks"))) << "they have not been read yet";
  reading.daemon.daemons = 0;
  EXPECT_THAT(text(), HasSubstr("\nkoducron_daemon_up 0\n"));
}

TEST_F(MetricsTextTest, ShowsCountersByHost) {
  reading.counters = {{"", "skipped", "paused", 4},
                      {"10.0.0.1", "runs", "ok", 3},
                      {"10.0.0.1", "skipped", "overrun", 2},
                      {"10.0.0.1", "lives", "", 1}};
  EXPECT_THAT(text(), HasSubstr("\nkoducron_runs_total{host=\"10.0.0.1\",outcome=\"ok\"} 3\n"));
  EXPECT_THAT(
      text(),
      HasSubstr("\nkoducron_skipped_periods_total{reason=\"paused\"} 4\n"
                "koducron_skipped_periods_total{host=\"10.0.0.1\",reason=\"overrun\"} 2\n"));
  EXPECT_THAT(text(), HasSubstr("\nkoducron_daemon_lives_total{host=\"10.0.0.1\"} 1\n"));
  reading.isCounted = false;
  EXPECT_THAT(text(), Not(HasSubstr("koducron_runs_total"))) << "they are of an earlier time";
}

TEST_F(MetricsTextTest, ShowsHistogramsByHost) {
  reading.counters = {{"a", "seconds", "0.5", 1},
                      {"a", "seconds", "+Inf", 3},
                      {"a", "seconds_sum", "", 9.5},
                      {"b", "seconds", "0.5", 0},
                      {"b", "seconds", "+Inf", 0}};
  EXPECT_THAT(text(), HasSubstr("koducron_run_duration_seconds_bucket{host=\"a\",le=\"0.5\"} 1\n"
                                "koducron_run_duration_seconds_bucket{host=\"a\",le=\"+Inf\"} 3\n"
                                "koducron_run_duration_seconds_sum{host=\"a\"} 9.5\n"
                                "koducron_run_duration_seconds_count{host=\"a\"} 3\n"
                                "koducron_run_duration_seconds_bucket{host=\"b\",le=\"0.5\"} 0\n"));
  EXPECT_THAT(text(MetricsFormat::kOpenMetrics),
              HasSubstr("# UNIT koducron_run_duration_seconds seconds\n"));
}

TEST_F(MetricsTextTest, ShowsTasksWithTheTimeTheyWereReadAt) {
  TaskFigures tasks;
  tasks.states = {1, 2, 3, 4, 5, 6, 7};
  tasks.overdue = 8;
  tasks.oldestOverdue = 9;
  tasks.readAt = 1000.5;
  tasks.failingTasks = {{"4", "a \"b\"", false, 10.5, {}, {}, {}}};
  tasks.markedTasks = {{"5", "c", true, {}, 20.0, 0.5, 30.0}, {"6", "d", false, {}, {}, {}, {}}};
  reading.tasks = tasks;
  for (const char* line :
       {"koducron_tasks{state=\"ok\"} 1\n", "koducron_tasks{state=\"new\"} 7\n",
        "koducron_tasks_overdue 8\n", "koducron_oldest_overdue_seconds 9\n",
        "koducron_tasks_read_timestamp_seconds 1000.5\n",
        "koducron_task_failing_since_timestamp_seconds{task_id=\"4\",task=\"a \\\"b\\\"\"} 10.5\n",
        "koducron_task_ok{task_id=\"5\",task=\"c\"} 1\n",
        "koducron_task_ok{task_id=\"6\",task=\"d\"} 0\n",
        "koducron_task_last_end_timestamp_seconds{task_id=\"5\",task=\"c\"} 20\n",
        "koducron_task_last_duration_seconds{task_id=\"5\",task=\"c\"} 0.5\n",
        "koducron_task_due_timestamp_seconds{task_id=\"5\",task=\"c\"} 30\n"}) {
    EXPECT_THAT(text(), HasSubstr(std::string("\n") + line));
  }
  EXPECT_THAT(text(), Not(HasSubstr("last_end_timestamp_seconds{task_id=\"6\"")));
}

}  // namespace
