#pragma once

#include <ctime>

// The machine's time zone, followed while the daemon runs. The C library reads it under a lock, and
// on the heap: HandlerQuit, which may interrupt a thread that holds either, must do without both.
// So the zone is read once a second, outside all locks, and stored in one atomic.

/// Seconds that the local time is ahead of UTC at `now`. Reads the zone again when `now` is not the
/// second of the last reading. Any thread may call it, but not a signal handler, and not while
/// holding a lock that HandlerQuit takes.
long utcOffset(std::time_t now);

/// Reads the zone unless it was read in this second, so that lastUtcOffset is right. Same callers
/// as utcOffset.
void followZone();

/// What utcOffset last returned to any thread, 0 before. Neither locks nor allocates.
long lastUtcOffset();

/// Reads the zone in any case: for the log's beginning and for tests.
void readZone();

/// The parts of `seconds`, counted from the epoch without a zone; a local time's when an offset is
/// added before. Neither locks nor allocates, unlike gmtime_r.
std::tm calendarTime(std::time_t seconds);
