#include "ctl/check/findings.h"

#include <fmt/format.h>

#include <algorithm>

#include "ctl/terminal/print.h"
#include "ctl/terminal/printable.h"
#include "ctl/terminal/terminal.h"
#include "ctl/terminal/text.h"

namespace {

constexpr std::size_t kNamedTasks = 10;

constexpr std::size_t kKept = 1000;  // findings, and tasks of each

}  // namespace

/// "task 4: " or "tasks 4, 7 and 3 more: ".
std::string Findings::prefixOf(const Finding& finding) {
  if (finding.tasks.empty()) {
    return "";
  }
  const std::size_t named = std::min(finding.tasks.size(), kNamedTasks);
  const std::vector<int> first(finding.tasks.begin(),
                               finding.tasks.begin() + static_cast<long>(named));
  const std::string more =
      named < finding.taskCount
          ? fmt::format(" and {} more", grouped(static_cast<long>(finding.taskCount - named)))
          : "";
  return fmt::format("task{} {}{}: ", finding.taskCount == 1 ? "" : "s", fmt::join(first, ", "),
                     more);
}

Findings::Finding* Findings::findingFor(Severity severity, const std::string& text) {
  const auto known = places.find(text);
  if (known != places.end()) {
    return &all[known->second];
  }
  if (all.size() >= kKept) {
    ++(severity == Severity::kError ? furtherErrors : furtherWarnings);
    return nullptr;
  }
  places.emplace(text, all.size());
  return &all.emplace_back(Finding{severity, text, {}});
}

void Findings::add(Severity severity, const std::string& text) {
  findingFor(severity, text);
}

void Findings::add(Severity severity, const std::string& text, int task) {
  if (Finding* finding = findingFor(severity, text)) {
    ++finding->taskCount;
    if (finding->tasks.size() < kKept) {
      finding->tasks.push_back(task);
    }
  }
}

long Findings::countOf(Severity severity) const {
  return std::count_if(all.begin(), all.end(),
                       [&](const Finding& finding) { return finding.severity == severity; }) +
         (severity == Severity::kError ? furtherErrors : furtherWarnings);
}

int Findings::exitCode() const {
  if (countOf(Severity::kError) > 0) {
    return 2;
  }
  return all.empty() ? 0 : 1;
}

void Findings::print() const {
  for (const Severity severity : {Severity::kError, Severity::kWarning}) {
    const bool isError = severity == Severity::kError;
    const Styled word =
        coloured(isError ? "ERROR  " : "WARNING", isError ? Colour::kRed : Colour::kYellow);
    for (const Finding& finding : all) {
      if (finding.severity == severity) {
        ::print("{}  {}{}\n", word, prefixOf(finding), oneLine(finding.text));
      }
    }
  }
  if (const long further = furtherErrors + furtherWarnings; further > 0) {
    ::print("… and {} more about single tasks\n", grouped(further));
  }
  if (all.empty()) {
    ::print("{}       nothing found\n", coloured("OK", Colour::kGreen));
  } else {
    ::print("{}, {}\n", counted(countOf(Severity::kError), "error"),
            counted(countOf(Severity::kWarning), "warning"));
  }
}

Json::Value Findings::toJson() const {
  Json::Value list(Json::arrayValue);
  for (const Finding& finding : all) {
    Json::Value entry;
    entry["severity"] = finding.severity == Severity::kError ? "error" : "warning";
    entry["text"] = finding.text;
    entry["tasks"] = Json::Value(Json::arrayValue);
    for (const int task : finding.tasks) {
      entry["tasks"].append(task);
    }
    entry["task_count"] = Json::UInt64{finding.taskCount};
    list.append(entry);
  }
  return list;
}
