#include "ctl/import/nagiosObjects.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "ctl/declared/sources.h"
#include "ctl/failure.h"
#include "ctl/import/import.h"
#include "ctl/import/lines.h"
#include "ctl/import/names.h"
#include "ctl/import/shellCommand.h"
#include "ctl/terminal/text.h"

namespace {

/// The line up to a comment: "#" at its beginning or ";" anywhere. "\;" is a semicolon.
std::string withoutComment(std::string_view line) {
  std::string text;
  for (std::size_t i = 0; i < line.size(); ++i) {
    if (line[i] == ';') {
      break;
    }
    const bool isEscape = line[i] == '\\' && i + 1 < line.size() && line[i + 1] == ';';
    text += isEscape ? line[++i] : line[i];
  }
  return text;
}

bool isTemplateOnly(const NagiosObject& object) {
  return valueOf(object, "register") == "0";
}

}  // namespace

std::string valueOf(const NagiosObject& object, const std::string& name) {
  const auto found = object.directives.find(name);
  return found == object.directives.end() ? "" : found->second.value;
}

std::vector<std::string> listIn(const std::string& text) {
  std::vector<std::string> parts;
  for (std::string_view rest = text; !rest.empty();) {
    const std::size_t comma = rest.find(',');
    if (const auto part = trimmed(rest.substr(0, comma)); !part.empty()) {
      parts.emplace_back(part);
    }
    rest.remove_prefix(comma == std::string_view::npos ? rest.size() : comma + 1);
  }
  return parts;
}

void NagiosObjects::read(const Source& source) {
  forEachLine(source, import, [this](const Place& place, std::string_view line) {
    line = trimmed(line);
    if (line.ends_with('\\') && continued.size() + line.size() <= kLongestArgument) {
      continued += line.substr(0, line.size() - 1);
    } else {
      readLine(place, continued + std::string(line));
      continued.clear();
    }
  });
  if (open || !continued.empty()) {
    import.leaveOut({source.name, open ? open->place.line : 0},
                    "the definition does not end before the file does");
  }
  open.reset();
  continued.clear();
}

void NagiosObjects::readLine(const Place& place, std::string_view line) {
  const std::string content = line.starts_with('#') ? "" : withoutComment(line);
  const std::string_view text = trimmed(content);
  if (text.empty()) {
    return;
  }
  if (!open) {
    readOutside(place, text);
  } else if (text == "}") {
    if (const std::string name = valueOf(*open, "name"); !name.empty()) {
      templates.emplace(open->type + " " + name, objects.size());
    }
    objects.push_back(std::move(*open));
    open.reset();
  } else {
    readDirective(place, text);
  }
}

void NagiosObjects::readOutside(const Place& place, std::string_view line) {
  const std::size_t equals = line.find('=');
  const std::string_view name = trimmed(line.substr(0, equals));
  if (equals != std::string_view::npos && name.size() > 2 && name.starts_with('$') &&
      name.ends_with('$')) {
    macroValues[std::string(name.substr(1, name.size() - 2))] = trimmed(line.substr(equals + 1));
    return;
  }
  std::string_view rest = line;
  const bool isDefinition = takeWord(rest) == "define" && rest.ends_with('{');
  const std::string_view type =
      isDefinition ? trimmed(rest.substr(0, rest.size() - 1)) : std::string_view();
  if (type.empty() || type.find_first_of(kBlanks) != std::string_view::npos) {
    import.leaveOut(place, fmt::format("no definition of an object: \"{}\"", excerpt(line)));
  } else {
    open = NagiosObject{std::string(type), place, {}};
  }
}

void NagiosObjects::readDirective(const Place& place, std::string_view line) {
  // A weekday or a date stands before its times in a time period, also with blanks.
  std::string_view rest = line;
  const std::string name(takeWord(rest));
  open->directives[name] = {std::string(rest), place};
}

const std::map<std::string, Directive>& NagiosObjects::inheritedBy(std::size_t index, int depth) {
  Inherited& entry = inherited[index];
  if (entry.state == Inherited::State::kNew) {
    entry.state = Inherited::State::kInWork;
    auto directives = resolved(objects[index], depth);
    // References into the table stay valid while it grows.
    entry.directives = std::move(directives);
    entry.state = Inherited::State::kDone;
  } else if (entry.state == Inherited::State::kInWork) {
    import.leaveOut(objects[index].place, "the template uses itself");
  }
  return entry.directives;
}

std::map<std::string, Directive> NagiosObjects::resolved(const NagiosObject& object, int depth) {
  std::map<std::string, Directive> directives = object.directives;
  for (const char* own : {"use", "name", "register"}) {
    directives.erase(own);
  }
  for (const std::string& name : listIn(valueOf(object, "use"))) {
    inheritFrom(name, object, depth, directives);
  }
  return directives;
}

void NagiosObjects::inheritFrom(const std::string& name, const NagiosObject& object, int depth,
                                std::map<std::string, Directive>& directives) {
  constexpr int kDeepest = 100;
  const auto found = templates.find(object.type + " " + name);
  if (found == templates.end() || depth == kDeepest) {
    return import.leaveOut(
        object.directives.at("use").place,
        fmt::format("the template {} {}", excerpt(name),
                    depth == kDeepest ? "uses too many others, one by one" : "is not defined"));
  }
  for (const auto& [directive, value] : inheritedBy(found->second, depth + 1)) {
    const auto [own, isNew] = directives.emplace(directive, value);
    inheritedCount += isNew ? 1 : 0;
    // "+" appends to the first value that is inherited.
    if (!isNew && own->second.value.starts_with('+')) {
      append(value.value, own->second);
    }
  }
  requireFewInherited();
}

void NagiosObjects::append(const std::string& inheritedValue, Directive& own) {
  const std::size_t plus = inheritedValue.starts_with('+') ? 1 : 0;
  const std::string all = inheritedValue.substr(plus) + "," + own.value.substr(1);
  if (all.size() > kLongestArgument) {
    import.leaveOut(own.place, "with what is inherited, the list is too long");
  } else {
    own.value = all;
  }
}

void NagiosObjects::requireFewInherited() const {
  // Each takes some 170 bytes, and a small file can have any number of them.
  constexpr long kMost = 1000000;
  if (inheritedCount > kMost) {
    throw Failure(kRefused, fmt::format("objects inherit more than {} directives from templates; "
                                        "import the files in parts",
                                        kMost));
  }
}

std::vector<NagiosObject> NagiosObjects::registered(const std::string& type) {
  std::vector<NagiosObject> result;
  for (const NagiosObject& object : objects) {
    if (object.type != type || isTemplateOnly(object)) {
      continue;
    }
    result.push_back({object.type, object.place, resolved(object, 0)});
    for (auto directive = result.back().directives.begin();
         directive != result.back().directives.end();) {
      std::string& value = directive->second.value;
      value.erase(0, value.starts_with('+') ? 1 : 0);
      directive = value == "null" ? result.back().directives.erase(directive) : ++directive;
    }
  }
  return result;
}

void NagiosObjects::reportOthers() {
  constexpr std::array<std::string_view, 5> kUsed = {"command", "host", "hostgroup", "service",
                                                     "timeperiod"};
  constexpr std::array<std::string_view, 7> kWithoutEffect = {
      "contact",     "contactgroup",   "servicegroup",     "hostescalation",
      "hostextinfo", "serviceextinfo", "serviceescalation"};
  long unneeded = 0;
  for (const NagiosObject& object : objects) {
    if (std::find(kWithoutEffect.begin(), kWithoutEffect.end(), object.type) !=
        kWithoutEffect.end()) {
      ++unneeded;
    } else if (std::find(kUsed.begin(), kUsed.end(), object.type) == kUsed.end()) {
      import.leaveOut(object.place, fmt::format("{} has no equivalent", excerpt(object.type)));
    }
  }
  if (unneeded > 0) {
    import.note({objects.front().place.file, 0},
                fmt::format("{} of contacts, escalations and the like, here or in other files, do "
                            "not change what is run",
                            counted(unneeded, "definition")));
  }
}
