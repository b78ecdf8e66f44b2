#pragma once

/// SIGTERM's handler: logs `sig`, sets the stop flag and wakes every waiting worker. `main` sets it
/// up after the log is open; the execution queue may not exist yet. Takes only the log's mutex and
/// allocates nothing, because it can interrupt any step of any thread.
void HandlerQuit(int sig);
