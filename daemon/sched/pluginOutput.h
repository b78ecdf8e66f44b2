#pragma once

#include <string>
#include <string_view>

// What a plugin prints, on its way into the task's record.

/// Appends what one read has brought, up to its first NUL byte; what follows that is dropped.
void appendChunk(std::string& output, std::string_view chunk);

/// Replaces each sequence of `text` that is no valid UTF-8 by one blank. Valid text is left alone.
void repairUtf8(std::string& text);
