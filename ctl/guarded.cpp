#include "ctl/guarded.h"

#include <algorithm>
#include <filesystem>

#include "ctl/task.h"
#include "task/serviceCron.h"

bool isGuarded(const Task& task) {
  return std::filesystem::path(task.path).filename() == "koduguard";
}

std::string guardedPlugin(const Task& task) {
  const auto arguments = task.record()->GetVectorParam();
  const auto separator = std::find(arguments.begin(), arguments.end(), "--");
  const bool isNamed = separator != arguments.end() && separator + 1 != arguments.end();
  return isNamed ? *(separator + 1) : "";
}
