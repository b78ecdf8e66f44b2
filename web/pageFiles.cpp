#include "web/pageFiles.h"

#include <fmt/format.h>

#include <filesystem>

#include "ctl/failure.h"
#include "ctl/files/regularFile.h"
#include "web/secret.h"

namespace {

namespace fs = std::filesystem;

/// Of a file by its name; "" for one that no page has.
std::string typeOf(const fs::path& name) {
  static const std::map<std::string, std::string> types = {
      {".html", "text/html; charset=utf-8"},
      {".js", "text/javascript; charset=utf-8"},
      {".css", "text/css; charset=utf-8"},
      {".svg", "image/svg+xml"}};
  const auto found = types.find(name.extension());
  return found == types.end() ? "" : found->second;
}

}  // namespace

PageFiles::PageFiles(const std::string& directory) {
  try {
    add("/", directory + "/index.html");
  } catch (const Failure& e) {
    throw Failure(kWrongConfig,
                  fmt::format("{}; --page names the folder of the page's files", e.what()));
  }
  std::error_code error;
  for (const fs::directory_entry& entry : fs::directory_iterator(directory + "/app", error)) {
    if (!typeOf(entry.path()).empty()) {
      add("/app/" + entry.path().filename().string(), entry.path());
    }
  }
}

void PageFiles::add(const std::string& path, const std::string& place) {
  File file;
  file.content = readRegularFile(place);
  file.type = typeOf(place);
  file.tag = fmt::format("\"{}\"", digestOf(file.content).substr(0, 32));
  files[path] = file;
}

std::optional<HttpResponse> PageFiles::answer(const HttpRequest& request) const {
  const auto found = files.find(request.path);
  if (found == files.end()) {
    return std::nullopt;
  }
  const File& file = found->second;
  const bool isKnown = request.header("If-None-Match") == file.tag;
  HttpResponse response{isKnown ? 304U : 200U, isKnown ? "" : file.content, file.type};
  response.headers.emplace_back("Cache-Control", "no-cache");
  response.headers.emplace_back("ETag", file.tag);
  return response;
}
