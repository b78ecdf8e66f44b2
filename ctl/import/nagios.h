#pragma once

#include <string>
#include <vector>

class Import;
struct Source;

/// Adds a task for each check of a service on a host, and for each check of a host, that object
/// files define. The commands, hosts and time periods they name may be in any of the files. Keys
/// are PREFIX/HOST/SERVICE and PREFIX/HOST. `zone` is that of the time periods.
void importNagios(const std::vector<Source>& sources, const std::string& zone,
                  const std::string& prefix, Import& import);
