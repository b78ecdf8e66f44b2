#pragma once

#include <string>
#include <string_view>

// Functions that store a plugin's output in the task's record.

/// Appends the bytes of one read up to the first NUL byte; the rest is dropped.
void appendChunk(std::string& output, std::string_view chunk);

/// Replaces each sequence of `text` that is not valid UTF-8 by one space. Valid text is not
/// changed.
void repairUtf8(std::string& text);
