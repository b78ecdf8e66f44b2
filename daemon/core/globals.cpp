#include "core/globals.h"

std::string pathToConfigFile = "/etc/kodu/cron.conf";
std::string log_directory = "/usr/local/kodu/public_html/data/cron/";
int debug = 0;
std::atomic<int> die_kodu = 0;
logFile* fileLog = nullptr;
pgSafeThread* pgSQL = nullptr;
CronTaskQueue* serviceQueue = nullptr;
ExecuteQueue<std::shared_ptr<serviceCron>>* queueExecTask = nullptr;
std::map<int, std::shared_ptr<serviceCron>> cronTaskMap;
std::mutex mutexTaskMap;

// Last in this file, so first to be destroyed: its joinable handles end the process by the
// terminate handler before objects that a worker may still use are destroyed. Tested by
// SlowStopTest.EndsByTheTerminateHandlerWhenWorkersWereStarted.
std::vector<std::shared_ptr<std::thread>> thread_list;
