#pragma once

#include <map>
#include <optional>
#include <string>

#include "common/http/server.h"

/// The files of the page, read once: no request leads to a file. Any thread may call any member.
class PageFiles {
 public:
  /// Reads index.html and the files of app/ whose kind a page has. Throws Failure (kWrongConfig)
  /// when there is no index.html.
  explicit PageFiles(const std::string& directory);

  /// The answer to a request for a file; nothing for another path.
  std::optional<HttpResponse> answer(const HttpRequest& request) const;

 private:
  struct File {
    std::string content, type, tag;
  };
  void add(const std::string& path, const std::string& place);

  std::map<std::string, File> files;  // by their paths; constant after construction
};
