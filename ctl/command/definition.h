#pragma once

#include <optional>
#include <string>

class Call;
class Session;
struct Options;

/// Gives `call` the options that add and set share, except the plugin and its arguments.
void giveDefinition(Call& call, const Options& options);

/// The parameter string of the arguments after "--"; nothing without "--".
std::optional<std::string> parametersOf(const Options& options);

/// Warns of each file of the task that cannot be run on this machine. The task is changed
/// nevertheless, because the daemon may run on another machine.
void warnOfPlugin(Session& session, int id);
