// The least that a run can cost: the two statements of a run on one shared connection, a pipe, a
// child made by vfork, its output read, its end awaited, one output file written. Nothing else: no
// queue, no log, no record. What the daemon is measured against.
//
//   floor CONNINFO PLUGIN DIRECTORY TASKS THREADS
//
// Runs each of the tasks 1 to TASKS once, with the output files that the daemon uses. Prints, in
// seconds: the time from first to last, its own CPU time, and that of its children.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <libpq-fe.h>

#include "db/statements.h"

namespace {

class Floor {
 public:
  Floor(const char* conninfo, std::string pluginPath, std::string outputDirectory)
      : connection(PQconnectdb(conninfo)),
        plugin(std::move(pluginPath)),
        directory(std::move(outputDirectory)) {
    for (const NamedStatement& statement : kNamedStatements) {
      PQclear(PQprepare(connection, statement.name, statement.sql, statement.nParams, nullptr));
    }
    if (PQstatus(connection) != CONNECTION_OK) {
      throw std::runtime_error(PQerrorMessage(connection));
    }
  }
  ~Floor() { PQfinish(connection); }
  Floor(const Floor&) = delete;
  Floor& operator=(const Floor&) = delete;

  void runTask(int id) {
    const std::string text = std::to_string(id);
    execute("UpdateCronProcess", {text.c_str(), nullptr}, 1);
    std::array<char, 1024> output{};
    const ssize_t length = runPlugin(output);
    writeFile(directory + "/out_" + text + "_last.txt", output.data(),
              static_cast<std::size_t>(length));
    execute("UpdateCronState", {text.c_str(), "OK"}, 2);
  }

 private:
  void execute(const char* statement, std::array<const char*, 2> values, int count) {
    const std::lock_guard lock(mutex);
    PGresult* result =
        PQexecPrepared(connection, statement, count, values.data(), nullptr, nullptr, 0);
    const ExecStatusType status = PQresultStatus(result);
    PQclear(result);
    if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
      throw std::runtime_error(PQerrorMessage(connection));
    }
  }

  ssize_t runPlugin(std::array<char, 1024>& output) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
      throw std::runtime_error("no pipe");
    }
    std::array<char*, 2> arguments = {plugin.data(), nullptr};
    std::array<char*, 1> environment = {nullptr};
    const pid_t pid = vfork();  // NOLINT(clang-analyzer-security.insecureAPI.vfork)
    if (pid == 0) {
      // NOLINTBEGIN(clang-analyzer-unix.Vfork)
      dup2(ends[1], STDOUT_FILENO);
      execve(arguments[0], arguments.data(), environment.data());
      // NOLINTEND(clang-analyzer-unix.Vfork)
      _exit(2);
    }
    close(ends[1]);
    ssize_t length = 0;
    for (;;) {
      const ssize_t count =
          read(ends[0], output.data() + length, output.size() - static_cast<std::size_t>(length));
      if (count <= 0) {
        break;
      }
      length += count;
    }
    int status = 0;
    waitpid(pid, &status, 0);
    close(ends[0]);
    if (status != 0) {
      throw std::runtime_error("the plugin failed");
    }
    return length;
  }

  static void writeFile(const std::string& path, const char* text, std::size_t length) {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT, 0644);
    flock(file, LOCK_EX);
    const bool isWritten = write(file, text, length) == static_cast<ssize_t>(length);
    flock(file, LOCK_UN);
    close(file);
    if (!isWritten) {
      throw std::runtime_error("cannot write " + path);
    }
  }

  PGconn* connection;  // guarded by mutex
  std::mutex mutex;
  std::string plugin;
  std::string directory;
};

double cpuSeconds(int who) {
  rusage usage{};
  getrusage(who, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

}  // namespace

// A failure ends it, with the text of its exception.
// NOLINTNEXTLINE(bugprone-exception-escape)
int main(int argc, char* argv[]) {
  if (argc != 6) {
    std::fputs("usage: floor CONNINFO PLUGIN DIRECTORY TASKS THREADS\n", stderr);
    return EXIT_FAILURE;
  }
  const int tasks = std::atoi(argv[4]);
  Floor floor(argv[1], argv[2], argv[3]);
  std::atomic<int> next = 1;
  const double ownBefore = cpuSeconds(RUSAGE_SELF);
  const double childrenBefore = cpuSeconds(RUSAGE_CHILDREN);
  const auto begin = std::chrono::steady_clock::now();
  std::vector<std::thread> threads(static_cast<std::size_t>(std::atoi(argv[5])));
  for (std::thread& thread : threads) {
    thread = std::thread([&] {
      for (int id = next++; id <= tasks; id = next++) {
        floor.runTask(id);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - begin;
  std::printf("%.6f %.6f %.6f\n", elapsed.count(), cpuSeconds(RUSAGE_SELF) - ownBefore,
              cpuSeconds(RUSAGE_CHILDREN) - childrenBefore);
  return EXIT_SUCCESS;
}
