#pragma once

#include <string>
#include <vector>

/// The times, in seconds since the epoch and in order, at which the daemon that writes this log has
/// started, as far back as the last megabyte of the log goes. None when it cannot be read.
std::vector<long> startsInLog(const std::string& path);

/// The seconds from one start to the next when the daemon does not stay: the latest three came
/// within a minute, and the last of them less than a minute before `now`. 0 when it stays.
long restartPeriod(const std::vector<long>& starts, long now);
