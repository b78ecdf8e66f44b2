#pragma once

#include <string>
#include <vector>

struct Task;

/// True when the task's plugin is koduguard, which gives the real one a time limit.
bool isGuarded(const Task& task);

/// The guard's own arguments up to the plugin that it runs; all arguments when they name no plugin.
std::vector<std::string> guardArguments(const Task& task);

/// The plugin that koduguard runs for the task; "" when its parameters name none.
std::string guardedPlugin(const Task& task);
