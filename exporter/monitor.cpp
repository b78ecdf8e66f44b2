#include "exporter/monitor.h"

#include <algorithm>

#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/session.h"

namespace {

/// Reading all tasks takes a core of the server: at most a twentieth of the time.
constexpr int kCountShare = 20;

}  // namespace

Monitor::Monitor(const Options& given, const MonitorLimits& wantedLimits,
                 std::function<void(const std::string&)> reporter)
    : options(given),
      limits(wantedLimits),
      report(std::move(reporter)),
      counter([this](const std::stop_token& stop) { countTasks(stop); }),
      answerer([this](const std::stop_token& stop) { answerScrapes(stop); }) {}

Monitor::~Monitor() = default;

MetricsReading Monitor::scrape(Clock::time_point deadline) {
  std::unique_lock lock(mutex);
  const std::uint64_t mine = ++question;
  wanted.notify_all();
  if (!answered.wait_until(lock, deadline, [&] { return answer >= mine; })) {
    return {};
  }
  MetricsReading reading = latest;
  if (tasks && Clock::now() - tasksReadAt < limits.keepTasks) {
    reading.tasks = tasks;
  }
  return reading;
}

void Monitor::answerScrapes(const std::stop_token& stop) {
  Part part{limits.statementSeconds, nullptr, ""};
  bool isBehind = true;  // what happened before the start is counted before the first scrape
  std::unique_lock lock(mutex);
  while (!stop.stop_requested()) {
    if (!isBehind && !wanted.wait(lock, stop, [&] { return question > answer; })) {
      return;
    }
    const std::uint64_t asked = question;
    lock.unlock();
    const MetricsReading reading = read(part);
    lock.lock();
    isBehind = reading.isDatabaseUp && !reading.isCounted;
    if (!reading.isDatabaseUp && tasks) {
      tasks.reset();  // they may be of before an outage
      isCountWanted = true;
      idle.notify_all();
    }
    latest = reading;
    answer = asked;
    answered.notify_all();
  }
}

MetricsReading Monitor::read(Part& part) {
  // A session that was lost between two scrapes is no failure of this one.
  for (bool isNew = part.session == nullptr;; isNew = true) {
    try {
      MetricsReading reading = readMetrics(sessionOf(part));
      note(part, "");
      return reading;
    } catch (const Failure& e) {
      part.session.reset();
      if (isNew || !e.sqlState.empty()) {
        note(part, e.what());
        return {};
      }
    }
  }
}

void Monitor::countTasks(const std::stop_token& stop) {
  Part part{limits.countSeconds, nullptr, ""};
  while (!stop.stop_requested()) {
    const auto begin = Clock::now();
    Clock::duration rest = limits.retryEvery;
    std::optional<TaskFigures> figures;
    try {
      figures = readTasks(sessionOf(part));
      rest = std::max<Clock::duration>(limits.countEvery, kCountShare * (Clock::now() - begin));
      note(part, "");
    } catch (const Failure& e) {
      part.session.reset();
      note(part, e.what());
    }
    std::unique_lock lock(mutex);
    if (figures) {
      tasks = std::move(figures);
      tasksReadAt = begin;
      isCountWanted = false;
    }
    idle.wait_for(lock, stop, rest, [&] { return isCountWanted && part.session != nullptr; });
  }
}

Session& Monitor::sessionOf(Part& part) {
  if (!part.session) {
    connect(part);
  }
  return *part.session;
}

void Monitor::connect(Part& part) {
  Options own = options;
  own.applicationName = "kodu_exporter";
  own.connectTimeout = 2;
  own.statementTimeout = part.statementSeconds;
  own.lockTimeout = 1;
  const std::lock_guard lock(connectingOrReporting);
  part.session = std::make_unique<Session>(own);
}

void Monitor::note(Part& part, const std::string& problem) {
  if (problem == part.problem) {
    return;
  }
  part.problem = problem;
  const std::lock_guard lock(connectingOrReporting);
  report(problem);
}
