#pragma once

#include <ctime>

// The machine's time zone, followed while the daemon runs. The C library reads it under a lock, and
// on the heap: HandlerQuit, which may interrupt a thread that holds either, must do without both.
// So the zone is looked at once a second, outside all locks, and what was found lies in one atomic.

/// Seconds that the local time is ahead of UTC at `now`. Looks at the zone when `now` is another
/// second than that of the last look. Any thread may call it, but no signal handler, and nobody who
/// holds a lock that HandlerQuit takes.
long utcOffset(std::time_t now);

/// Looks at the zone unless it was looked at in this second, for lastUtcOffset to be right. As
/// utcOffset.
void followZone();

/// What utcOffset last returned to any thread, 0 before. Neither locks nor allocates.
long lastUtcOffset();

/// Looks at the zone at once, whatever the second: for the log's beginning and for tests.
void readZone();

/// The parts of `seconds`, counted from the epoch without a zone; a local time's when an offset is
/// added before. Neither locks nor allocates, unlike gmtime_r.
std::tm calendarTime(std::time_t seconds);
