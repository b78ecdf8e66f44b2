#pragma once

#include <string>

/// The text with "?" for each character that could control a terminal.
std::string plain(const std::string& text);

/// Writes a plain line to standard error, which is the journal.
void say(const std::string& text);
