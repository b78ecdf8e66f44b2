#include "tests/support/Globals.h"

#include <algorithm>
#include <utility>

#include "core/globals.h"
#include "core/logFile.h"
#include "db/pgSafeThread.h"
#include "db/statements.h"
#include "task/CronTaskQueue.h"
#include "task/ExecuteQueue.h"
#include "task/serviceCron.h"

void GlobalsTest::SetUp() {
  die_kodu = 0;
  fileLog = new logFile(0, directory / "test.log");
  savedLogDirectory = std::exchange(log_directory, directory / "output");
  std::filesystem::create_directory(log_directory);
  serviceQueue = new CronTaskQueue();
  queueExecTask = new ExecuteQueue<std::shared_ptr<serviceCron>>();
}

void GlobalsTest::TearDown() {
  cronTaskMap.clear();
  delete std::exchange(queueExecTask, nullptr);
  delete std::exchange(serviceQueue, nullptr);
  delete std::exchange(fileLog, nullptr);
  log_directory = savedLogDirectory;
}

std::vector<std::string> GlobalsTest::log() const {
  return readLog(directory / "test.log");
}

long GlobalsTest::logged(const std::string& line) const {
  const auto messages = log();
  return std::count(messages.begin(), messages.end(), line);
}

std::shared_ptr<serviceCron> GlobalsTest::makeTask(int id, const std::string& path, long execTime) {
  auto task = std::make_shared<serviceCron>();
  task->SetService_id(static_cast<unsigned long long>(id));
  task->Setname("task " + std::to_string(id));
  task->Setpath(path);
  task->Setinterval_exec_time(300);
  task->SetFilename("out_$SERVICEID_$DATE.txt");
  task->SetMaxRetrie(0);
  task->SetExecTime(execTime);
  return task;
}

void DatabaseGlobalsTest::SetUp() {
  GlobalsTest::SetUp();
  pgSQL = new pgSafeThread(database.conninfo());
  prepareNamedStatements(*pgSQL);
}

void DatabaseGlobalsTest::TearDown() {
  delete std::exchange(pgSQL, nullptr);
  GlobalsTest::TearDown();
}
