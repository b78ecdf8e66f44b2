#pragma once

struct Options;

// Of koductl events; both return the exit status and throw Failure.

/// Prints the events that could not be delivered, of `options.reader` if there is one.
int printDeadEvents(const Options& options);

/// Lets `options.reader` receive the event with the key `options.redelivery` again, or all of them.
int redeliverEvents(const Options& options);
