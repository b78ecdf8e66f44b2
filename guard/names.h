#pragma once

#include <string_view>

/// The description of an errno value, "" for one that no call of the guard returns.
std::string_view describe(int error);

/// A signal's name without its "SIG", "RT" for the real-time ones.
std::string_view signalName(int signal);
