#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "ctl/declared/mistakes.h"

class Import;
struct Source;

/// Spaces and tabs.
constexpr std::string_view kBlanks = " \t";

/// Takes the blanks off both ends.
std::string_view trimmed(std::string_view text);

/// Takes the first word off the text, with the blanks around it; "" when there is none.
std::string_view takeWord(std::string_view& text);

/// Calls `use` for each line of the file, without its end. Says that carriage returns before
/// newlines are removed. Leaves out lines with zero bytes and lines that are longer than anything
/// that a task can hold.
void forEachLine(const Source& source, Import& import,
                 const std::function<void(const Place&, std::string_view)>& use);
