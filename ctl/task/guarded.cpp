#include "ctl/task/guarded.h"

#include <algorithm>
#include <filesystem>

#include "ctl/task/task.h"
#include "task/serviceCron.h"

bool isGuarded(const Task& task) {
  return std::filesystem::path(task.path).filename() == "koduguard";
}

std::vector<std::string> guardArguments(const Task& task) {
  auto arguments = task.record()->GetVectorParam();
  const auto separator = std::find(arguments.begin(), arguments.end(), "--");
  if (separator != arguments.end() && separator + 1 != arguments.end()) {
    arguments.erase(separator + 2, arguments.end());
  }
  return arguments;
}

std::string guardedPlugin(const Task& task) {
  const auto arguments = guardArguments(task);
  const bool isNamed = arguments.size() > 1 && *(arguments.end() - 2) == "--";
  return isNamed ? arguments.back() : "";
}
