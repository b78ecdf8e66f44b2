#pragma once

struct Options;

/// Has the daemon run the task of the options now, waits for the end of that run, its retries
/// included, and prints its output. Returns 0 for OK and 1 for FAILED. Throws Failure: kNoDatabase
/// when no daemon is connected for 10 seconds, kRefused when the task is paused or deleted
/// meanwhile.
int runAndWait(const Options& options);
