#pragma once

#include <optional>
#include <set>
#include <string>

#include "common/http/server.h"
#include "ctl/options.h"

/// The command line of koduweb.
struct WebOptions {
  Options session;  // -f
  HttpAddress listen{"127.0.0.1", 9480};
  std::string pageDirectory = "/usr/share/koducron/web";
  std::optional<HttpTls> tls;
  bool isReadOnly = false;               // all changes are refused
  std::string anonymous;                 // the role of who is not logged in; "": none
  std::set<std::string> trustedProxies;  // addresses
};

/// The result of parsing: without `isToRun`, help, version or an error is printed already, and
/// koduweb ends with `exitCode`.
struct WebRequest {
  WebOptions options;
  bool isToRun = false;
  int exitCode = 0;
};

WebRequest parseWebOptions(int argc, const char* const* argv);
