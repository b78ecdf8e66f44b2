// The least that loading can cost. Prints seconds, and the CPU seconds of this process and of its
// session in the server, which must run on this machine.
//
//   readTasks CONNINFO            the loader's query, every cell of its result read
//   readTasks CONNINFO OVERDUE    updateCronExecTask by one interval for the tasks 1 to OVERDUE

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <stdexcept>
#include <string>

#include <libpq-fe.h>

#include "db/pgSafeThread.h"
#include "db/result.h"
#include "db/statements.h"

namespace {

std::size_t readAll(pgSafeThread& connection) {
  const ResultPtr result(connection.executeRequest(taskQuery(nullptr)));
  std::size_t length = 0;
  for (int row = 0; row < PQntuples(result.get()); ++row) {
    for (int column = 0; column < PQnfields(result.get()); ++column) {
      length += std::strlen(PQgetvalue(result.get(), row, column));
    }
  }
  return length;
}

void moveTasks(pgSafeThread& connection, int count) {
  for (int id = 1; id <= count; ++id) {
    PQclear(connection.executePrepareRequest("updateCronExecTask", {std::to_string(id), "1"}));
  }
}

double cpuSeconds(pid_t process) {
  clockid_t clock = 0;
  timespec time{};
  if (clock_getcpuclockid(process, &clock) != 0 || clock_gettime(clock, &time) != 0) {
    throw std::runtime_error("no CPU clock of process " + std::to_string(process));
  }
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

}  // namespace

// A failure ends it, with the text of its exception.
// NOLINTNEXTLINE(bugprone-exception-escape)
int main(int argc, char* argv[]) {
  if (argc < 2) {
    std::fputs("usage: readTasks CONNINFO [OVERDUE]\n", stderr);
    return EXIT_FAILURE;
  }
  pgSafeThread connection{std::string(argv[1])};
  prepareNamedStatements(connection);
  const auto begin = std::chrono::steady_clock::now();
  if (argc == 2) {
    if (readAll(connection) == 0) {
      throw std::runtime_error("there is no task");
    }
  } else {
    moveTasks(connection, std::atoi(argv[2]));
  }
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - begin;
  std::printf("%.6f %.6f %.6f\n", elapsed.count(), cpuSeconds(0),
              cpuSeconds(PQbackendPID(connection.connection)));
  return EXIT_SUCCESS;
}
