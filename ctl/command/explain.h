#pragma once

#include <string>
#include <vector>

class Session;
struct Task;

/// The sentences of koductl explain about a task. Files are looked at with the rights of the daemon
/// if they can be had. Throws Failure.
std::vector<std::string> explainTask(Session& session, const Task& task);
