#pragma once

#include <optional>
#include <string>
#include <vector>

// Texts in a form that YAML and JSON readers take for exactly these texts, and that no terminal
// takes for a command.

/// In double quotes, with escapes that JSON knows, too. Nothing for bytes that are not UTF-8.
std::optional<std::string> quotedText(const std::string& text);

/// As it is where every YAML reader takes it for a text, else in double quotes; `text` is UTF-8.
std::string plainOrQuoted(const std::string& text);
