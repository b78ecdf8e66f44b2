#include "notify/delivery.h"

#include <fmt/format.h>

#include <algorithm>

#include "notify/say.h"

namespace {

using std::chrono::milliseconds;

// Notifications are not sent while the server's queue is half full, so events are also looked for.
constexpr milliseconds kPoll{1000};
constexpr milliseconds kFirstReconnect{200}, kLongestReconnect{10'000};
constexpr milliseconds kClaim{2000};
constexpr int kAtOnce = 200;  // events read in one call

/// Each wait is twice as long as the one before, up to a limit.
class Backoff {
 public:
  Backoff(milliseconds begin, milliseconds most) : first(begin), longest(most), next(begin) {}

  milliseconds take() {
    const milliseconds wait = std::min(next, longest);
    next = wait * 2;
    return wait;
  }
  void reset() { next = first; }

 private:
  const milliseconds first, longest;
  milliseconds next;
};

}  // namespace

void Delivery::run(bool onlyPresent) {
  Backoff backoff(kFirstReconnect, kLongestReconnect);
  while (!stop.isSet() && !isDone) {
    try {
      EventSource source(config.database, config.reader);
      if (awaitClaim(source)) {
        say("delivering the events of reader " + config.reader);
        backoff.reset();
        serve(source, onlyPresent);
      }
    } catch (const DatabaseError& e) {
      say(fmt::format("database: {}; trying again", e.what()));
      stop.wait(backoff.take());
    }
  }
}

/// False when the signal comes first.
bool Delivery::awaitClaim(EventSource& source) {
  bool isSaid = false;
  while (!stop.isSet()) {
    if (source.claim()) {
      return true;
    }
    if (!isSaid) {
      say("another process delivers for reader " + config.reader + "; waiting for its end");
    }
    isSaid = true;
    stop.wait(kClaim);
  }
  return false;
}

void Delivery::serve(EventSource& source, bool onlyPresent) {
  while (!stop.isSet()) {
    if (!delivered.empty()) {
      finish(source, delivered);  // the database was away then
    }
    const std::vector<Event> events = source.next(kAtOnce);
    if (!events.empty()) {
      deliverAll(source, events);
    } else if (onlyPresent) {
      isDone = true;
      return;
    } else {
      stop.wait(kPoll, source.descriptor());
      source.drain();
    }
  }
}

/// In groups of a request. Events that are not wanted are done without one.
void Delivery::deliverAll(EventSource& source, const std::vector<Event>& events) {
  std::vector<Event> group;
  for (const Event& event : events) {
    if (config.events.count(event.field("event")) > 0) {
      group.push_back(event);
    }
    if (static_cast<int>(group.size()) == config.batch) {
      deliverGroup(source, group);
      group.clear();
    }
    if (stop.isSet()) {
      return;
    }
  }
  if (!group.empty()) {
    deliverGroup(source, group);
  }
  if (!stop.isSet()) {
    finish(source, events.back().position);
  }
}

void Delivery::deliverGroup(EventSource& source, const std::vector<Event>& group) {
  const std::string error = tryRepeatedly(group);
  if (error.empty()) {
    finish(source, group.back().position);
  } else if (stop.isSet()) {
    return;
  } else if (group.size() > 1) {
    deliverEach(source, group);
  } else {
    say(fmt::format("event {} is put aside after {} tries", group[0].field("key"), config.tries));
    source.bury(group[0], config.tries, error);
  }
}

/// A group of which one may be refused.
void Delivery::deliverEach(EventSource& source, const std::vector<Event>& group) {
  for (const Event& event : group) {
    if (stop.isSet()) {
      return;
    }
    const std::string error = target.deliver({event});
    if (error.empty()) {
      finish(source, event.position);
    } else {
      say(fmt::format("event {} is put aside: {}", event.field("key"), error));
      source.bury(event, config.tries + 1, error);
    }
  }
}

/// "" when the group was taken; else the last error, after all tries or at the signal.
std::string Delivery::tryRepeatedly(const std::vector<Event>& group) {
  Backoff backoff(config.wait, config.longestWait);
  for (int attempt = 1;; ++attempt) {
    std::string error = target.deliver(group);
    if (error.empty() || attempt == config.tries || stop.isSet()) {
      return error;
    }
    const milliseconds wait = backoff.take();
    say(fmt::format("event {}: {}; try {} of {} follows in {} s", group[0].field("key"), error,
                    attempt + 1, config.tries, static_cast<double>(wait.count()) / 1000));
    stop.wait(wait);
    if (stop.isSet()) {
      return error;
    }
  }
}

/// Remembered until the database has it, so that a lost session does not cause a second delivery.
void Delivery::finish(EventSource& source, const std::string& position) {
  delivered = position;
  source.finish(position);
  delivered.clear();
}
