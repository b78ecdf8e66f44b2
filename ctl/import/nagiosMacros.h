#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

/// A command line with its macros replaced, or the reason why there is none.
struct ExpandedText {
  std::string text;
  std::string reason;  // "": there is one
};

/// The value of a macro by its name without "$", such as HOSTADDRESS; nothing for an unknown one.
using MacroValue = std::function<std::optional<std::string>(const std::string& name)>;

/// Replaces the macros $NAME$ in a text, and $$ by "$". Their values are taken as they are. Refuses
/// unknown macros, and a text that no argument can hold.
ExpandedText expandMacros(const std::string& text, const MacroValue& valueOf);

/// The name of a command and its arguments, which "!" separates; "\!" is an exclamation mark.
std::vector<std::string> splitCheckCommand(const std::string& text);
