#include "ctl/import/import.h"

#include <fmt/format.h>

#include <utility>

#include "ctl/failure.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/printable.h"
#include "ctl/terminal/text.h"

namespace {

/// A few objects with wildcards can stand for any number of tasks.
constexpr std::size_t kMostTasks = 100000;
constexpr long kMostLeftOut = 100000;

/// In one line, so that no text of a file can look like another sentence.
std::string line(const Place& place, const std::string& sentence) {
  const std::string number = place.line > 0 ? fmt::format(":{}", place.line) : "";
  return oneLine(fmt::format("{}{}: {}", place.file, number, sentence));
}

}  // namespace

std::string Import::add(const std::string& prefix, const std::string& word, Definition definition) {
  if (imported.size() == kMostTasks) {
    throw Failure(kRefused, fmt::format("these files stand for more than {} tasks; import them in "
                                        "parts",
                                        kMostTasks));
  }
  const std::string key = prefix + "/" + word;
  std::string unique = key;
  while (uses.count(unique) > 0) {
    unique = fmt::format("{}-{}", key, ++uses[key]);
  }
  uses[unique] = 1;
  imported.push_back({unique, std::move(definition)});
  return unique;
}

void Import::leaveOut(const Place& place, const std::string& sentence) {
  if (leftOutLines == kMostLeftOut) {
    throw Failure(kRefused, fmt::format("{}: more than {} lines cannot be translated: is this the "
                                        "right format?",
                                        place.file, kMostLeftOut));
  }
  sentences.push_back(line(place, "left out: " + sentence));
  ++leftOutLines;
}

void Import::note(const Place& place, const std::string& sentence) {
  sentences.push_back(line(place, sentence));
}

void Import::printReport() const {
  for (const std::string& sentence : sentences) {
    printError("{}\n", sentence);
  }
  printError("{}, {} left out\n", counted(static_cast<long>(imported.size()), "task"),
             counted(leftOutLines, "line"));
}
