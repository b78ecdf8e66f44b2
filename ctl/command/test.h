#pragma once

/// The argument with which koductl starts itself in the sandbox of the daemon's unit.
constexpr const char* kTestInside = "test-inside";

/// The part of koductl test in the sandbox: runs the plugin of the task on standard input, a JSON
/// object, and prints what it left as another. Returns the exit status; throws Failure.
int testInside();
