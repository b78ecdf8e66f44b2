#pragma once

struct Options;
struct Outcome;
class Capture;

/// The exit code for messages of the guard itself.
constexpr int kUnknown = 3;

/// Writes the result of a run to standard output and returns the guard's exit code.
int report(const Options& options, const Outcome& outcome, const Capture& output,
           const Capture& errors);
