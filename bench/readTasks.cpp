// The least that loading can cost. Prints seconds.
//
//   readTasks CONNINFO            the loader's query, every cell of its result read
//   readTasks CONNINFO OVERDUE    updateCronExecTask by one interval for the tasks 1 to OVERDUE

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

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
  std::printf("%.6f\n", elapsed.count());
  return EXIT_SUCCESS;
}
