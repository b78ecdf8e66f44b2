#pragma once

#include <optional>
#include <string>

class Call;
class Session;
struct Options;

/// Gives `call` what add and set have in common, but for the plugin and its arguments.
void giveDefinition(Call& call, const Options& options);

/// The parameter string of the arguments behind "--"; nothing without a "--".
std::optional<std::string> parametersOf(const Options& options);

/// Warns of each file that the task starts and that cannot be run on this machine, which need not
/// be the daemon's: so the task is changed nevertheless.
void warnOfPlugin(Session& session, int id);
