#pragma once

struct Options;
struct Outcome;
class Capture;

/// The exit code of what the guard itself has to say.
constexpr int kUnknown = 3;

/// Writes what a run has to show to standard output and returns the guard's exit code.
int report(const Options& options, const Outcome& outcome, const Capture& output,
           const Capture& errors);
