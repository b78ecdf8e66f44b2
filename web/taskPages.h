#pragma once

#include <map>
#include <string>

class Session;

// What the console shows of tasks: JSON texts, with the rights of the session's role. All throw
// Failure, and Refusal for values that are wrong.

using QueryValues = std::map<std::string, std::string>;

/// {"tasks": [...], "next": the key of the next page or null}
std::string tasksPage(Session& session, const QueryValues& values);
/// {"tasks": the number of the selected ones}
std::string countPage(Session& session, const QueryValues& values);
/// A task with the sentences of koductl explain, except those about files.
std::string taskPage(Session& session, int id);
/// The latest runs of a task, since the time of "since" if it is given.
std::string historyPage(Session& session, int id, const QueryValues& values);
/// The latest outputs of a task, with "failed" those of failed runs alone. Of a large output the
/// beginning; then "cut" is true.
std::string logsPage(Session& session, int id, const QueryValues& values);
/// The coming times of a task.
std::string nextPage(Session& session, int id);
