// The payload of a notification, up to the call of the loader.

#include <json/json.h>

#include "admin/notificationBatch.h"
#include "core/globals.h"
#include "core/logFile.h"
#include "lab/fuzz/fuzz.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static logFile log(3, "/dev/null");
  fileLog = &log;
  NotificationBatch batch;
  try {
    batch.add(std::string(textOf(data, size)));
  } catch (const Json::LogicError&) {
    // A value of the wrong type: the process ends, and is started again.
    check(batch.additions().empty() && batch.updates().empty(), "a bad payload adds nothing");
    return 0;
  }
  check(batch.additions().size() + batch.updates().size() <= 1, "a payload names one task");
  return 0;
}
