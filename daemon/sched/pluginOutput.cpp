#include "sched/pluginOutput.h"

#include <iterator>
#include <utility>

#include <utf8.h>

void appendChunk(std::string& output, std::string_view chunk) {
  output.append(chunk.substr(0, chunk.find('\0')));
}

void repairUtf8(std::string& text) {
  if (utf8::find_invalid(text.begin(), text.end()) == text.end()) {
    return;
  }
  std::string repaired;
  repaired.reserve(text.size());
  utf8::replace_invalid(text.begin(), text.end(), std::back_inserter(repaired), U' ');
  text = std::move(repaired);
}
