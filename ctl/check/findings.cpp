#include "ctl/check/findings.h"

#include <fmt/format.h>

#include <algorithm>

#include "ctl/terminal/print.h"
#include "ctl/terminal/terminal.h"
#include "ctl/terminal/text.h"

namespace {

constexpr std::size_t kNamedTasks = 10;

/// "task 4: " or "tasks 4, 7 and 3 more: ".
std::string prefixOf(const std::vector<int>& tasks) {
  if (tasks.empty()) {
    return "";
  }
  const std::size_t named = std::min(tasks.size(), kNamedTasks);
  const std::vector<int> first(tasks.begin(), tasks.begin() + static_cast<long>(named));
  const std::string more =
      named < tasks.size() ? fmt::format(" and {} more", tasks.size() - named) : "";
  return fmt::format("task{} {}{}: ", tasks.size() == 1 ? "" : "s", fmt::join(first, ", "), more);
}

}  // namespace

Findings::Finding& Findings::findingFor(Severity severity, const std::string& text) {
  const auto [known, isNew] = places.emplace(text, all.size());
  return isNew ? all.emplace_back(Finding{severity, text, {}}) : all[known->second];
}

void Findings::add(Severity severity, const std::string& text) {
  findingFor(severity, text);
}

void Findings::add(Severity severity, const std::string& text, int task) {
  findingFor(severity, text).tasks.push_back(task);
}

long Findings::countOf(Severity severity) const {
  return std::count_if(all.begin(), all.end(),
                       [&](const Finding& finding) { return finding.severity == severity; });
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
        ::print("{}  {}{}\n", word, prefixOf(finding.tasks), oneLine(finding.text));
      }
    }
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
    list.append(entry);
  }
  return list;
}
