#pragma once

struct Options;

/// koductl host watch: takes over from hosts whose daemons are silent, until SIGTERM or SIGINT.
/// Says on standard error what it does, and waits for a database that is away. Throws Failure
/// before the first call when the configuration, the tables or the rights do not permit it.
int watchHosts(const Options& options);
