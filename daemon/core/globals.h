#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class CronTaskQueue;
class logFile;
class pgSafeThread;
class serviceCron;
template <typename T>
class ExecuteQueue;

// The process-wide state. `main` creates what the pointers point at, before any thread starts.
//
// Lock order, outermost first: mutexTaskMap, a record's mutex (receiver before source), a queue's
// mutex, pgSafeThread::mutex, pgSafeThread::wire, the log's mutex. mutexTaskMap is never taken
// while a queue's or a connection's mutex is held.

/// Path of the main INI file. Written during start-up only.
extern std::string pathToConfigFile;

/// Directory of the tasks' output files, with their archives below "archive/". Written during
/// start-up only.
extern std::string log_directory;

/// 1 when the daemon was started with -D, else 0. Written during start-up only.
extern int debug;

/// The stop flag: 0 running, 1 stop requested. Any thread may read it; HandlerQuit alone sets it.
extern std::atomic<int> die_kodu;

/// The daemon's log. Created by `main`, and deleted by it when no worker was started: workers are
/// never joined and may write until the process ends. Locks for itself.
extern logFile* fileLog;

/// The one connection that all threads share. Never deleted; locks for itself.
extern pgSafeThread* pgSQL;

/// The tasks that wait for their time. Never deleted; locks for itself.
extern CronTaskQueue* serviceQueue;

/// The tasks that are due, on their way from the timer to a worker. Never deleted; locks for
/// itself.
extern ExecuteQueue<std::shared_ptr<serviceCron>>* queueExecTask;

/// Every loaded task by its cron_id. Guarded by mutexTaskMap.
extern std::map<int, std::shared_ptr<serviceCron>> cronTaskMap;
extern std::mutex mutexTaskMap;

/// The workers' handles, never joined. Written by `main` only.
extern std::vector<std::shared_ptr<std::thread>> thread_list;
