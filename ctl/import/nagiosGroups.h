#pragma once

#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

class Import;
struct Directive;
struct NagiosObject;

/// Which hosts the names of hosts and groups stand for. A host is its index in the list of hosts.
class HostGroups {
 public:
  HostGroups() = default;

  /// Reports the members of groups that are not defined.
  HostGroups(const std::vector<NagiosObject>& hosts, const std::vector<NagiosObject>& groups,
             Import& import);

  /// The hosts of a service, in ascending order: those of host_name and hostgroup_name, where "*"
  /// is all and "!NAME" takes one away. Reports names that are not defined.
  std::set<std::size_t> hostsOf(const NagiosObject& service, Import& import) const;

 private:
  using Hosts = std::set<std::size_t>;

  Hosts membersOf(const std::string& group) const;
  void addMembers(const NagiosObject& group, Import& import);

  std::size_t count = 0;
  std::unordered_map<std::string, std::size_t> byName;
  std::unordered_map<std::string, Hosts> direct;                     // members of groups
  std::unordered_map<std::string, std::vector<std::string>> nested;  // groups in groups
};
