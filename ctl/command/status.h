#pragma once

class Session;
struct Options;

/// Prints the tasks that the options select, once. Throws Failure.
void printStatus(Session& session, const Options& options);
