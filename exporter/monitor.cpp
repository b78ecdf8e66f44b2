#include "exporter/monitor.h"

#include <algorithm>

#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/session.h"

namespace {

/// Each of the two works for at most a twentieth of the time.
constexpr int kRestShare = 20;

Monitor::Clock::duration restAfter(Monitor::Clock::time_point begin,
                                   Monitor::Clock::duration least) {
  return std::max(least, kRestShare * (Monitor::Clock::now() - begin));
}

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
  // What happened before the start is collected before the first scrape.
  Counters counters{false, Clock::now()};
  std::unique_lock lock(mutex);
  while (waitForScrape(lock, stop, counters.collectAt)) {
    const std::uint64_t asked = question;
    const bool isAsked = asked > answer;
    lock.unlock();
    const MetricsReading reading = read(part, counters, isAsked);
    lock.lock();
    if (part.session == nullptr && tasks) {
      tasks.reset();  // they may be of before an outage
      isCountWanted = true;
      idle.notify_all();
    }
    if (isAsked) {
      latest = reading;
      answer = asked;
      answered.notify_all();
    }
  }
}

bool Monitor::waitForScrape(std::unique_lock<std::mutex>& lock, const std::stop_token& stop,
                            std::optional<Clock::time_point> end) {
  const auto isAsked = [this] { return question > answer; };
  if (end) {
    wanted.wait_until(lock, stop, *end, isAsked);
  } else {
    wanted.wait(lock, stop, isAsked);
  }
  return !stop.stop_requested();
}

MetricsReading Monitor::read(Part& part, Counters& counters, bool isAsked) {
  // A session that was lost between two scrapes is no failure of this one.
  for (bool isNew = part.session == nullptr;; isNew = true) {
    try {
      collect(sessionOf(part), counters);
      MetricsReading reading = isAsked ? readMetrics(*part.session) : MetricsReading();
      reading.isCounted = counters.areComplete;
      note(part, "");
      return reading;
    } catch (const Failure& e) {
      part.session.reset();
      counters = {false, std::nullopt};
      if (isNew || !e.sqlState.empty()) {
        note(part, e.what());
        return {};
      }
    }
  }
}

void Monitor::collect(Session& session, Counters& counters) const {
  const auto begin = Clock::now();
  if (counters.collectAt && begin < *counters.collectAt) {
    return;
  }
  counters.areComplete = collectCounters(session);
  counters.collectAt =
      counters.areComplete ? Clock::now() + restAfter(begin, limits.collectEvery) : begin;
}

void Monitor::countTasks(const std::stop_token& stop) {
  Part part{limits.countSeconds, nullptr, ""};
  while (!stop.stop_requested()) {
    const auto begin = Clock::now();
    Clock::duration rest = limits.retryEvery;
    std::optional<TaskFigures> figures;
    try {
      figures = readTasks(sessionOf(part));
      rest = restAfter(begin, limits.countEvery);
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
