#include "web/watcher.h"

#include <fmt/format.h>

#include <algorithm>
#include <ctime>
#include <utility>

#include "core/helpers.h"
#include "ctl/failure.h"
#include "ctl/session/session.h"
#include "ctl/terminal/text.h"
#include "web/pool.h"
#include "web/request.h"

namespace {

/// All tasks are read during at most a twentieth of the time.
constexpr int kRestShare = 20;
constexpr int kLookSeconds = 2, kCountSeconds = 30;  // limits of statements
constexpr long kDaemonSilence = 5;                   // seconds
constexpr std::chrono::seconds kPatience{10};

constexpr const char* kLook = R"(
SELECT daemons, floor(EXTRACT(EPOCH FROM since))::bigint AS since,
       floor(EXTRACT(EPOCH FROM last_sign))::bigint AS last_sign, place,
       array_to_json(tasks) AS tasks, is_cut
FROM kodu_web_daemon(), kodu_web_changes(nullif($1, '')::pg_snapshot, 1000))";

std::string eventText(const char* name, const std::string& data) {
  return fmt::format("event: {}\ndata: {}\n\n", name, data);
}
std::string eventText(const char* name, const Json::Value& data) {
  return eventText(name, compactJson(data));
}

/// Calls `work` with a session, and forgets the session when that fails.
template <typename Work>
std::string workWith(std::unique_ptr<Session>& session, Pool& pool, int seconds, const Work& work) {
  try {
    if (!session) {
      session = pool.connect(seconds);
    }
    work(*session);
    return "";
  } catch (const Failure& e) {
    session.reset();
    return e.what();
  }
}

}  // namespace

Watcher::Watcher(Pool& sessions, HttpFeed& viewers, const WatcherLimits& wantedLimits,
                 std::function<void(const People&)> useRoles,
                 std::function<void(const std::string&)> reporter)
    : pool(sessions),
      feed(viewers),
      limits(wantedLimits),
      usePeople(std::move(useRoles)),
      report(std::move(reporter)),
      askedAt(Clock::now() - wantedLimits.interest),
      answeredAt(Clock::now()),
      answeredTime(std::time(nullptr)),
      peopleAt(Clock::now() - wantedLimits.peopleEvery),
      changes([this](const std::stop_token& stop) { watchChanges(stop); }),
      counter([this](const std::stop_token& stop) { countTasks(stop); }),
      teller([this](const std::stop_token& stop) { tellViewers(stop); }) {}

Watcher::~Watcher() = default;

Json::Value Watcher::overview() {
  beginWatch();
  std::unique_lock lock(mutex);
  const bool isRead =
      changed.wait_for(lock, kPatience, [this] { return !isAnswering() || (counts && daemon); });
  if (!isRead || !isAnswering()) {
    throw Failure(kNoDatabase, problem.empty() ? "no answer for some seconds" : problem);
  }
  Json::Value json;
  json["now"] = jsonTime(counts->now);
  json["daemon"] = daemonJson();
  json["totals"] = counts->totals;
  json["yesterday"] = Json::Value();
  json["day"] = day;
  json["failures_by_plugin"] = counts->failures;
  json["due"] = counts->due;
  return json;
}

void Watcher::beginWatch() {
  const std::lock_guard lock(mutex);
  askedAt = Clock::now();
  changed.notify_all();
}

void Watcher::tellChange(int id) {
  feed.publish(eventText("tasks", fmt::format("{{\"ids\":[{}]}}", id)));
}

bool Watcher::isDatabaseUp() const {
  const std::lock_guard lock(mutex);
  return isAnswering();
}

/// Caller holds mutex.
bool Watcher::isAnswering() const {
  return isUp && Clock::now() - answeredAt < limits.silence;
}

/// Caller holds mutex.
Json::Value Watcher::daemonJson() const {
  Json::Value json;
  json["alive"] = !isDaemonSilent();
  json["since"] = jsonTime(daemon->since);
  json["last_sign"] = jsonTime(daemon->lastSign);
  return json;
}

bool Watcher::isWatched() const {
  const std::lock_guard lock(mutex);
  return feed.count() > 0 || Clock::now() - askedAt < limits.interest;
}

void Watcher::rest(const std::stop_token& stop, Clock::duration time) {
  std::unique_lock lock(mutex);
  const auto asked = askedAt;
  const bool wasWatched = feed.count() > 0 || Clock::now() - asked < limits.interest;
  changed.wait_for(lock, stop, time, [&] { return !wasWatched && askedAt != asked; });
}

// What has changed -------------------------------------------------------------------------------

void Watcher::watchChanges(const std::stop_token& stop) {
  std::unique_ptr<Session> session;
  while (!stop.stop_requested()) {
    noteAnswer(workWith(session, pool, kLookSeconds, [&](Session& answering) {
      lookAtPeople(answering);
      if (isWatched()) {
        look(answering);
      } else {
        answering.query("SELECT");
        place.clear();
        const std::lock_guard lock(mutex);
        daemon.reset();
      }
    }));
    rest(stop, isWatched() ? limits.every : 2 * limits.every);
  }
}

void Watcher::lookAtPeople(Session& session) {
  if (Clock::now() - peopleAt >= limits.peopleEvery) {
    usePeople(readPeople(session));
    peopleAt = Clock::now();
  }
}

void Watcher::look(Session& session) {
  const Rows row = session.query(kLook, {place});
  place = row.text(0, "place");
  if (const std::string ids = row.text(0, "tasks"); !ids.empty()) {
    feed.publish(eventText("tasks", fmt::format("{{\"ids\":{}{}}}", ids,
                                                row.isTrue(0, "is_cut") ? ",\"more\":true" : "")));
  }
  const std::lock_guard lock(mutex);
  daemon = {row.number(0, "daemons"), row.optionalNumber(0, "since"),
            row.optionalNumber(0, "last_sign"), stringToInt(session.config.threadNumber)};
}

void Watcher::noteAnswer(const std::string& failure) {
  bool isNews = false;
  {
    const std::lock_guard lock(mutex);
    isNews = failure != problem;
    problem = failure;
    isUp = failure.empty();
    if (isUp) {
      answeredAt = Clock::now();
      answeredTime = std::time(nullptr);
    } else {
      counts.reset();  // nothing of before is shown again
      daemon.reset();
    }
  }
  changed.notify_all();
  if (isNews) {
    report(failure);
  }
}

// All tasks --------------------------------------------------------------------------------------

void Watcher::countTasks(const std::stop_token& stop) {
  std::unique_ptr<Session> session;
  while (!stop.stop_requested()) {
    if (!isWatched()) {
      session.reset();
      forgetCounts();
      rest(stop, limits.interest);
      continue;
    }
    const auto begin = Clock::now();
    const std::string failure = workWith(session, pool, kCountSeconds, [&](Session& answering) {
      TaskCounts read = readTaskCounts(answering);
      Json::Value readHours = readDay(answering);
      const std::lock_guard lock(mutex);
      if (!isUp) {
        return;
      }
      if (!counts || counts->totals != read.totals) {
        feed.publish(eventText("totals", read.totals));
      }
      counts = std::move(read);
      day = std::move(readHours);
    });
    if (!failure.empty()) {
      forgetCounts();
    }
    changed.notify_all();
    rest(stop, std::max<Clock::duration>(limits.every, kRestShare * (Clock::now() - begin)));
  }
}

/// What is not read any more must not be shown later.
void Watcher::forgetCounts() {
  const std::lock_guard lock(mutex);
  counts.reset();
}

// Silence ----------------------------------------------------------------------------------------

/// The daemon is connected, but has sent nothing although a task is late and a worker is free.
/// Caller holds mutex.
bool Watcher::isDaemonSilent() const {
  if (!daemon || daemon->sessions == 0) {
    return true;
  }
  return counts && counts->late > 0 && counts->busy < daemon->workers && daemon->lastSign &&
         std::time(nullptr) - *daemon->lastSign > kDaemonSilence;
}

/// What is silent and since when; null when nothing is. Caller holds mutex.
Json::Value Watcher::silence() const {
  Json::Value json;
  if (Clock::now() - answeredAt >= limits.silence) {
    json["what"] = "database";
    json["since"] = jsonTime(answeredTime);
  } else if (isUp && daemon && isDaemonSilent()) {
    json["what"] = "daemon";
    json["since"] = jsonTime(daemon->lastSign);
  }
  return json;
}

/// Caller holds mutex.
std::string Watcher::greeting() const {
  const Json::Value silent = silence();
  std::string text;
  if (counts) {
    text.append(eventText("totals", counts->totals));
  }
  if (!silent.isNull()) {
    text.append(eventText("silent", silent));
  }
  return text;
}

void Watcher::tellViewers(const std::stop_token& stop) {
  Json::Value said;
  while (!stop.stop_requested()) {
    if (feed.count() > 0) {
      std::string text;
      {
        const std::lock_guard lock(mutex);
        const Json::Value silent = silence();
        if (silent != said) {
          text = silent.isNull() ? eventText("ok", std::string("{}")) : eventText("silent", silent);
          said = silent;
        }
        feed.greet(greeting());
      }
      Json::Value alive;
      alive["now"] = jsonTime(std::time(nullptr));
      feed.publish(text + eventText("alive", alive));
    } else {
      feed.greet("");
      said = Json::Value();
    }
    rest(stop, limits.every);
  }
}
