#include "ctl/declared/planOutput.h"

#include <fmt/format.h>

#include "ctl/declared/plan.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/printable.h"
#include "ctl/terminal/terminal.h"
#include "ctl/terminal/text.h"

namespace {

using Kind = Change::Kind;

Styled signOf(Kind kind) {
  switch (kind) {
    case Kind::kAdd:
      return coloured("+", Colour::kGreen);
    case Kind::kDelete:
      return coloured("-", Colour::kRed);
    case Kind::kChange:
      break;
  }
  return coloured("~", Colour::kYellow);
}

const char* wordOf(Kind kind) {
  return kind == Kind::kAdd ? "add" : kind == Kind::kDelete ? "delete" : "change";
}

/// A value in one line; parameters may be a megabyte long.
std::string shortened(const std::string& text) {
  constexpr int kMostColumns = 200;
  const std::string line = oneLine(text);
  const std::string cut = cutTo(line, kMostColumns);
  return cut.size() < line.size() ? cut + "..." : line;
}

std::string valueText(const std::optional<std::string>& value) {
  return value ? shortened(*value) : "(default)";
}

void printSettings(const Change& change) {
  for (const SettingChange& setting : change.settings) {
    const std::string before = change.kind == Kind::kAdd ? "" : valueText(setting.before) + " -> ";
    print("    {:<11}  {}{}\n", setting.name, before, valueText(setting.after));
  }
}

Json::Value settingsOf(const Change& change) {
  Json::Value settings(Json::objectValue);
  for (const SettingChange& setting : change.settings) {
    settings[setting.name]["old"] = jsonText(setting.before);
    settings[setting.name]["new"] = jsonText(setting.after);
  }
  return settings;
}

}  // namespace

void printChanges(const Plan& plan) {
  for (const Change& change : plan.changes) {
    const std::string task =
        change.id == 0 ? "" : fmt::format("  task {} ({})", change.id, oneLine(change.name));
    print("{} {}{}\n", signOf(change.kind), change.key, task);
    printSettings(change);
  }
}

void printSummary(const Plan& plan, bool isApplied) {
  print("{} {}added, {} changed, {} deleted, {} unchanged\n",
        counted(plan.count(Kind::kAdd), "task"), isApplied ? "" : "to be ",
        plan.count(Kind::kChange), plan.count(Kind::kDelete), plan.unchanged);
  if (plan.undeclared > 0) {
    print("{} of the set {} not declared; --prune deletes {}\n", counted(plan.undeclared, "task"),
          plan.set + (plan.undeclared == 1 ? " is" : " are"), plan.undeclared == 1 ? "it" : "them");
  }
  if (!isApplied && !plan.changes.empty()) {
    print("Nothing has been changed.\n");
  }
}

Json::Value toJson(const Plan& plan, bool isApplied) {
  Json::Value json;
  json["applied"] = isApplied;
  json["set"] = plan.set.empty() ? Json::Value() : Json::Value(plan.set);
  json["added"] = Json::Int64{plan.count(Kind::kAdd)};
  json["changed"] = Json::Int64{plan.count(Kind::kChange)};
  json["deleted"] = Json::Int64{plan.count(Kind::kDelete)};
  json["unchanged"] = Json::Int64{plan.unchanged};
  json["undeclared"] = Json::Int64{plan.undeclared};
  json["changes"] = Json::Value(Json::arrayValue);
  for (const Change& change : plan.changes) {
    Json::Value entry;
    entry["action"] = wordOf(change.kind);
    entry["key"] = change.key;
    entry["id"] = change.id == 0 ? Json::Value() : Json::Value(change.id);
    entry["name"] = change.name;
    entry["settings"] = settingsOf(change);
    json["changes"].append(entry);
  }
  return json;
}
