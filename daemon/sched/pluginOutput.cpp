#include "sched/pluginOutput.h"

#include <utf8.h>

void appendChunk(std::string& output, std::string_view chunk) {
  output.append(chunk.substr(0, chunk.find('\0')));
}

void repairUtf8(std::string& text) {
  if (utf8::find_invalid(text.begin(), text.end()) == text.end()) {
    return;
  }
  // In place, to avoid a second copy of a large output. A space is never longer than what it
  // replaces, so writing never overtakes reading.
  text.erase(utf8::replace_invalid(text.begin(), text.end(), text.begin(), U' '), text.end());
}
