#include "ctl/import/nagiosGroups.h"

#include <fmt/format.h>

#include <unordered_set>

#include "ctl/import/import.h"
#include "ctl/import/nagiosObjects.h"
#include "ctl/import/names.h"

namespace {

void reportMissing(const Directive& directive, const std::string& kind, const std::string& name,
                   Import& import) {
  import.leaveOut(directive.place, fmt::format("the {} {} is not defined", kind, excerpt(name)));
}

}  // namespace

HostGroups::HostGroups(const std::vector<NagiosObject>& hosts,
                       const std::vector<NagiosObject>& groups, Import& import)
    : count(hosts.size()) {
  for (std::size_t i = 0; i < hosts.size(); ++i) {
    byName.emplace(valueOf(hosts[i], "host_name"), i);
    for (const std::string& group : listIn(valueOf(hosts[i], "hostgroups"))) {
      direct[group].insert(i);
    }
  }
  for (const NagiosObject& group : groups) {
    addMembers(group, import);
  }
}

void HostGroups::addMembers(const NagiosObject& group, Import& import) {
  const std::string name = valueOf(group, "hostgroup_name");
  Hosts& members = direct[name];
  for (const std::string& host : listIn(valueOf(group, "members"))) {
    if (const auto found = byName.find(host); found != byName.end()) {
      members.insert(found->second);
    } else if (host == "*") {
      for (std::size_t i = 0; i < count; ++i) {
        members.insert(members.end(), i);
      }
    } else {
      reportMissing(group.directives.at("members"), "host", host, import);
    }
  }
  nested[name] = listIn(valueOf(group, "hostgroup_members"));
}

HostGroups::Hosts HostGroups::membersOf(const std::string& group) const {
  Hosts members;
  std::vector<std::string> waiting = {group};
  std::unordered_set<std::string> seen;  // groups may contain each other
  while (!waiting.empty()) {
    const std::string name = waiting.back();
    waiting.pop_back();
    if (!seen.insert(name).second) {
      continue;
    }
    if (const auto own = direct.find(name); own != direct.end()) {
      members.insert(own->second.begin(), own->second.end());
    }
    if (const auto others = nested.find(name); others != nested.end()) {
      waiting.insert(waiting.end(), others->second.begin(), others->second.end());
    }
  }
  return members;
}

std::set<std::size_t> HostGroups::hostsOf(const NagiosObject& service, Import& import) const {
  Hosts chosen;
  Hosts excluded;
  const auto choose = [&](const char* directive, const char* kind, const auto& hostsNamed) {
    for (const std::string& word : listIn(valueOf(service, directive))) {
      const bool isExcluded = word.starts_with('!');
      const std::string name = word.substr(isExcluded ? 1 : 0);
      Hosts& target = isExcluded ? excluded : chosen;
      if (name == "*") {
        for (std::size_t i = 0; i < count; ++i) {
          target.insert(target.end(), i);
        }
      } else if (!hostsNamed(name, target)) {
        reportMissing(service.directives.at(directive), kind, name, import);
      }
    }
  };
  choose("host_name", "host", [this](const std::string& name, Hosts& target) {
    const auto found = byName.find(name);
    if (found != byName.end()) {
      target.insert(found->second);
    }
    return found != byName.end();
  });
  choose("hostgroup_name", "host group", [this](const std::string& name, Hosts& target) {
    target.merge(membersOf(name));
    return direct.count(name) > 0;
  });
  for (const std::size_t host : excluded) {
    chosen.erase(host);
  }
  return chosen;
}
