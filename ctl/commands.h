#pragma once

struct Options;

// The commands. Each prints its result on standard output and returns what koductl ends with;
// failures are thrown as Failure.

int runStatus(const Options& options);
int runShow(const Options& options);
int runHistory(const Options& options);
int runOutput(const Options& options);
int runCheck(const Options& options);
