#include <malloc.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include <libpq-fe.h>

#include "admin/adminThread.h"
#include "admin/listener.h"
#include "admin/loader.h"
#include "core/FileException.h"
#include "core/constants.h"
#include "core/globals.h"
#include "core/iniConfig.h"
#include "core/logFile.h"
#include "core/signals.h"
#include "db/PostgresqlException.h"
#include "db/pgSafeThread.h"
#include "db/statements.h"
#include "sched/timer.h"
#include "sched/worker.h"
#include "shutdown.h"
#include "task/CronTaskQueue.h"
#include "task/ExecuteQueue.h"
#include "task/serviceCron.h"

namespace {

using Threads = std::array<std::thread, 3>;

/// -f PATH and -D; anything else is ignored.
void parseCommandLine(int argc, char** argv) {
  if (argc <= 1) {
    return;
  }
  for (int option = 0; (option = getopt(argc, argv, "f:D")) != -1;) {
    if (option == 'f') {
      pathToConfigFile = optarg;
    } else if (option == 'D') {
      debug = 1;
    }
  }
}

void openLog(const iniConfig& config) {
  const std::string path = config.getKey("LOG", "log_file");
  if (debug == 1) {
    fileLog = new logFile(kLogDebug, path);
    fileLog->write(kLogDebug, "Debug mode enabled");
  } else {
    fileLog = new logFile(kLogNotice, path);
  }
}

/// Makes standard error a copy of standard output; ends the process with status 2 when it cannot.
void redirectStandardError() {
  if (dup2(STDOUT_FILENO, STDERR_FILENO) != -1) {
    return;
  }
  const int error = errno;
  const std::string message =
      std::string("erreur de redirection de flux stderr (dup2): ") + std::strerror(error);
  std::cout << message << std::endl;
  errno = error;  // the line above may have failed too
  std::perror(message.c_str());
  std::exit(2);
}

/// An existing directory is not changed, even without an archive directory: the workers create
/// that. Tested by StartUpTest.CreatesNothingInAnExistingLogDirectory.
void prepareLogDirectory(const iniConfig& config) {
  const std::string configured = config.getKey("LOG", "log_path_task");
  if (!configured.empty()) {
    log_directory = configured;
  }
  if (std::filesystem::exists(std::filesystem::status(log_directory))) {
    return;
  }
  fileLog->write(kLogNotice, "KODUCRON log directory does not exist");
  std::filesystem::create_directories(log_directory);
  std::filesystem::create_directories(log_directory + "/archive/");
}

/// The libpq connection string of the database file's values, inserted as they stand.
std::string connectionString(const iniConfig& config) {
  const auto value = [&](const char* key) { return config.getKey("POSTGRESQL", key); };
  std::string text = "host=" + value("PGSQL_host");
  text += " port=" + value("PGSQL_port");
  text += " dbname=" + value("PGSQL_db");
  text += " user=" + value("PGSQL_username");
  text += " password=" + value("PGSQL_pwd");
  return text;
}

void connectDatabase(const std::string& configPath) {
  fileLog->write(kLogNotice, "KODUCRON Database connection ....");
  const iniConfig config(configPath);
  pgSQL = new pgSafeThread(connectionString(config));
  fileLog->write(kLogNotice,
                 "Connection database sucessful. Encoding: " + pgSQL->getClientEncoding());
}

/// Starts the timer, admin and listener threads, which it returns, then the workers.
Threads startThreads(int workers) {
  fileLog->write(kLogNotice, "Start Thread");
  std::thread timer(th_readPqeue);
  std::thread admin(th_admin);
  std::thread listener(th_listener);
  for (int i = 0; i < workers; ++i) {
    thread_list.push_back(std::make_shared<std::thread>(th_executeCronTaks, i));
  }
  return {std::move(timer), std::move(admin), std::move(listener)};
}

void createQueues() {
  serviceQueue = new CronTaskQueue();
  // HandlerQuit, on this thread, finds either no queue or a complete one.
  const SignalBlock noSigterm = SignalBlock::sigterm();
  queueExecTask = new ExecuteQueue<std::shared_ptr<serviceCron>>();
}

/// Everything from the signal handler to the running threads. A SIGTERM takes effect at any point
/// of it: no step is interrupted, but the threads end when they first read the stop flag, and no
/// purge begins. Tested by StopInStartUpTest.HandlesASignalAtOnceDuringTheLoad.
Threads startService(const iniConfig& config) {
  std::signal(SIGTERM, HandlerQuit);
  // The parent process may have left it ignored; then plugins could not be waited for. Tested by
  // StartUpTest.WaitsForPluginsWhereSigchldIsIgnored.
  std::signal(SIGCHLD, SIG_DFL);
  // The exception for a text that is not a number is not caught: the process ends.
  const int workers = std::stoi(config.getKey("CRON", "thread_number"));
  connectDatabase(config.getKey("CRON", "kodu_conf_file"));
  createQueues();
  prepareNamedStatements(*pgSQL);
  fileLog->write(kLogNotice, "Load cron task");
  load_cron_task("ADD", nullptr);
  Threads threads = startThreads(workers);
  fileLog->write(kLogDebug, "Join Thread");
  return threads;
}

/// Makes freed memory reusable. By default each thread has its own arena, so a task that `main`
/// loaded and the listener replaced would leave a hole. Large blocks are returned to the system at
/// once; by default the threshold for that follows the largest block freed so far.
void setUpHeap() {
  constexpr int kLargeBytes = 128 * 1024;
  mallopt(M_ARENA_MAX, 1);
  mallopt(M_MMAP_THRESHOLD, kLargeBytes);
}

void run() {
  const iniConfig config(pathToConfigFile);
  openLog(config);
  redirectStandardError();
  fileLog->write(kLogNotice, "KODUCRON start....  KODUCRON configuration open succesful");
  prepareLogDirectory(config);
  for (std::thread& thread : startService(config)) {
    thread.join();
  }
}

/// The orderly shutdown, after the three threads are joined.
void endInOrder() {
  // A second SIGTERM must not find the log deleted, from here to the end of the process. Tested by
  // SlowStopTest.ToleratesSignalsDuringTheOrderlyShutdown.
  std::signal(SIGTERM, SIG_IGN);
  {
    const std::lock_guard lock(mutexTaskMap);
    cronTaskMap.clear();
  }
  queueExecTask->clear();
  serviceQueue->clear();
  // The workers are never joined. A worker that runs its plugin or is returning may still write its
  // line. With workers, the log therefore exists until the process ends, by the terminate handler
  // at the destruction of thread_list. Every line has been flushed.
  if (thread_list.empty()) {
    delete std::exchange(fileLog, nullptr);
  }
}

int reportFailure(const std::exception& e) {
  std::cout << e.what() << std::endl;
  return EXIT_FAILURE;
}

}  // namespace

// What is not caught here ends the process, and the service manager starts it again.
// NOLINTNEXTLINE(bugprone-exception-escape)
int main(int argc, char* argv[]) {
  parseCommandLine(argc, argv);
  if (PQisthreadsafe() != 1) {
    std::cout << "Error: Postgresql is not thread safe" << std::endl;
    return EXIT_FAILURE;
  }
  die_kodu = 0;
  setUpHeap();
  try {
    run();
    endInOrder();
    return EXIT_SUCCESS;
  } catch (const PostgresqlException& e) {
    return reportFailure(e);
  } catch (const FileException& e) {
    return reportFailure(e);
  }
}
