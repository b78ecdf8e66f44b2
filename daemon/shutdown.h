#pragma once

/// SIGTERM's handler: logs `sig`, sets the stop flag and wakes every waiting worker. `main` sets
/// it up after the log is open; the execution queue may not exist yet. Takes the log's mutex and
/// nothing else, and allocates nothing, since it may interrupt any step of any thread.
void HandlerQuit(int sig);
