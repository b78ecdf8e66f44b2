#pragma once

#include <string>

/// Shell text for a plugin that waits until `path` exists. It gives up after a minute, so that the
/// plugin of a test that has failed does not wait forever.
inline std::string waitInShell(const std::string& path) {
  return "tries=0; while [ ! -e " + path +
         " ] && [ $((tries += 1)) -lt 6000 ]; do /bin/sleep 0.01; done";
}
