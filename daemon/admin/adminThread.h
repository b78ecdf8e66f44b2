#pragma once

#include <chrono>

// Shortened by one test target, so that hundreds of stops take minutes; the daemon has 120 s.
#ifndef KODU_PURGE_PERIOD_SECONDS
#define KODU_PURGE_PERIOD_SECONDS 120
#endif

/// From the end of one purge to the start of the next.
inline constexpr std::chrono::seconds kPurgePeriod(KODU_PURGE_PERIOD_SECONDS);

/// The admin thread: purges deleted tasks at once and then every kPurgePeriod. Looks at the stop
/// flag between sleeps only, so it returns up to kPurgePeriod, and the purge in progress, after the
/// flag is set. What DeleteTask throws ends the process.
void th_admin();
