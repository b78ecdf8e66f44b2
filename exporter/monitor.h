#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "ctl/metrics/reading.h"

struct Options;
class Session;

/// How long the parts of a monitor take at most, and how often they work.
struct MonitorLimits {
  std::chrono::milliseconds collectEvery{5000};  // from one collection of the counters to the next
  std::chrono::milliseconds countEvery{15000};   // from one reading of all tasks to the next
  std::chrono::milliseconds retryEvery{2000};    // the same while it fails
  std::chrono::milliseconds keepTasks{300000};   // older figures of tasks are not shown
  int statementSeconds = 2, countSeconds = 30;   // limits of statements
};

/// Reads the metrics by two sessions in threads of its own, so that no scrape waits for longer than
/// it wants: one session answers scrapes and, between them, collects the counters; the other one
/// reads all tasks now and then.
class Monitor {
 public:
  using Clock = std::chrono::steady_clock;

  /// Connects with `given`, whose limits it replaces, and connects again when a session is lost.
  /// `reporter` gets a line when a session fails for another reason than before, and "" when it
  /// works again; it is called by both threads, one at a time.
  Monitor(const Options& given, const MonitorLimits& wantedLimits,
          std::function<void(const std::string&)> reporter);
  /// Waits for the statements in progress.
  ~Monitor();
  Monitor(const Monitor&) = delete;
  Monitor& operator=(const Monitor&) = delete;

  /// Reads the metrics now, with the counters as last collected; when the next collection is due or
  /// the last one failed, collects first. Returns at `deadline` at the latest, then as if the
  /// database were away. Any thread may call it; those who wait at the same moment share one
  /// reading.
  MetricsReading scrape(Clock::time_point deadline);

 private:
  /// One of the two sessions. Owned by its thread.
  struct Part {
    int statementSeconds = 0;
    std::unique_ptr<Session> session;
    std::string problem;  // the last that was reported
  };

  /// How far the counters are.
  struct Counters {
    bool areComplete = false;                    // else they are not shown
    std::optional<Clock::time_point> collectAt;  // nothing: at the next scrape
  };

  void answerScrapes(const std::stop_token& stop);
  void countTasks(const std::stop_token& stop);
  /// Returns at `end`, too. False when the thread is to stop.
  bool waitForScrape(std::unique_lock<std::mutex>& lock, const std::stop_token& stop,
                     std::optional<Clock::time_point> end);
  /// Collects the counters when it is time; reads when somebody has asked. Leaves the part without
  /// a session when the database does not answer.
  MetricsReading read(Part& part, Counters& counters, bool isAsked);
  void collect(Session& session, Counters& counters) const;
  Session& sessionOf(Part& part);
  void connect(Part& part);
  void note(Part& part, const std::string& problem);

  const Options& options;
  const MonitorLimits limits;
  const std::function<void(const std::string&)> report;
  // A session that connects captures what is written to standard error, so nothing is reported
  // then.
  std::mutex connectingOrReporting;

  std::mutex mutex;
  std::condition_variable_any wanted, answered, idle;
  std::uint64_t question = 0, answer = 0;  // guarded by mutex: the number of the last one
  MetricsReading latest;                   // guarded by mutex
  std::optional<TaskFigures> tasks;        // guarded by mutex
  Clock::time_point tasksReadAt;           // guarded by mutex
  bool isCountWanted = false;              // guarded by mutex: at once

  std::jthread counter, answerer;  // end first
};
