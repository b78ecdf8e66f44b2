#include "ctl/terminal/zone.h"

#include <fmt/format.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string_view>

#include "ctl/failure.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kZones = "/usr/share/zoneinfo";

/// The name behind the folder of all zones; "" for another path.
std::string nameIn(const std::string& path) {
  constexpr std::string_view kFolder = "zoneinfo/";
  const auto at = path.rfind(kFolder);
  return at == std::string::npos ? "" : path.substr(at + kFolder.size());
}

/// A rule such as "CET-1CEST" is none of the files; the server knows it, too.
bool isKnown(const std::string& name) {
  std::error_code error;
  const bool leadsOut = name.front() == '/' || name.find("..") != std::string::npos;
  // These zones count leap seconds: the times of a server, which counts none, would be wrong.
  const bool hasLeapSeconds = name.starts_with("right/");
  const fs::path file = fs::path(kZones) / name;
  if (leadsOut || hasLeapSeconds || !fs::is_regular_file(file, error)) {
    return false;
  }
  constexpr std::string_view kBegin = "TZif";  // lists of zones are in the folder, too
  std::string begin(kBegin.size(), '\0');
  std::ifstream(file).read(begin.data(), static_cast<std::streamsize>(begin.size()));
  return begin == kBegin;
}

std::string zoneOfSystem() {
  std::error_code error;
  return nameIn(fs::read_symlink("/etc/localtime", error).string());
}

}  // namespace

void useZone(const std::string& name) {
  if (!name.empty() && name != "UTC" && !isKnown(name)) {
    throw Failure(kWrongUsage, fmt::format("--zone: this machine knows no time zone {}; "
                                           "Europe/Berlin is one, and timedatectl list-timezones "
                                           "lists all",
                                           name));
  }
  if (!name.empty()) {
    setenv("TZ", name.c_str(), 1);  // NOLINT(concurrency-mt-unsafe): there is one thread
  }
  tzset();
}

std::string zoneName() {
  const char* variable = std::getenv("TZ");  // NOLINT(concurrency-mt-unsafe): there is one thread
  std::string name = variable == nullptr ? zoneOfSystem() : variable;
  if (name.starts_with(':')) {
    name.erase(0, 1);
  }
  if (name.starts_with('/')) {
    name = nameIn(name);
  }
  return name.empty() || name == "Etc/UTC" ? "UTC" : name;
}

std::string zoneSentence() {
  const std::string name = zoneName();
  return fmt::format("Times are {}{}.", name == "UTC" ? "" : "those of ", name);
}
