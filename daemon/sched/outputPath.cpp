#include "sched/outputPath.h"

#include <ctime>
#include <iomanip>
#include <sstream>
#include <string_view>

#include "core/localTime.h"
#include "task/serviceCron.h"

namespace {

constexpr std::string_view kDate = "$DATE";
constexpr std::string_view kServiceId = "$SERVICEID";

std::string localTimeText() {
  const std::time_t now = std::time(nullptr);
  const std::tm local = calendarTime(now + utcOffset(now));
  std::ostringstream text;
  text << std::put_time(&local, "%Y-%m-%d_%H-%M-%S");
  return text.str();
}

}  // namespace

std::string replaceParameter(std::string text, std::shared_ptr<serviceCron> task) {
  // The first of each only, and the time before the id.
  // Tested by ReplaceParameterTest.LeavesASecondPlaceholderAlone.
  if (const auto date = text.find(kDate); date != std::string::npos) {
    text.replace(date, kDate.size(), localTimeText());
  }
  if (const auto id = text.find(kServiceId); id != std::string::npos) {
    text.replace(id, kServiceId.size(), task->GetService_idStr());
  }
  return text;
}

std::string currentOutputPath(const std::string& directory,
                              const std::shared_ptr<serviceCron>& task) {
  std::string path = directory + "/" + task->GetFilename();
  if (const auto date = path.find(kDate); date != std::string::npos) {
    path.replace(date, kDate.size(), "last");
  }
  return replaceParameter(path, task);
}

std::string archiveDirectory(const std::string& directory, const std::string& taskId) {
  return directory + "/archive/" + taskId + "/";
}
