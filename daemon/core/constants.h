#pragma once

// Numbers that the daemon's interface fixes, by name.

// Levels of log lines, see logFile.
constexpr char kLogDebug = 0;
constexpr char kLogNotice = 2;
constexpr char kLogWarning = 3;
constexpr char kLogError = 4;
constexpr char kLogCritical = 5;

// States of a task's record, see serviceSafe::GetExecState.
constexpr char kRecordNormal = 0;
constexpr char kRecordUpdated = 1;
constexpr char kRecordDropped = 3;  // deleted or replaced: the worker that meets it drops it
