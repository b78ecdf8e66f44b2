#pragma once

#include <chrono>

/// From the end of one purge to the start of the next.
inline constexpr std::chrono::seconds kPurgePeriod(120);

/// The admin thread: purges deleted tasks at once and then every kPurgePeriod. Looks at the stop
/// flag between sleeps only, so it returns up to kPurgePeriod after the flag is set. What
/// DeleteTask throws ends the process.
void th_admin();
