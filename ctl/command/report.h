#pragma once

#include <string>

class Session;
struct Options;

/// Prints the state of a task after a change: "task 7 (load) added; next due at ...". `done` is the
/// word for the change. Throws Failure when the task cannot be read.
void reportChange(Session& session, const Options& options, int id, const std::string& done);
