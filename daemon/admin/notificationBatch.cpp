#include "admin/notificationBatch.h"

#include <json/value.h>

#include "admin/loader.h"
#include "core/constants.h"
#include "core/globals.h"
#include "core/logFile.h"

namespace {

void loadAndEmpty(const char* mode, std::vector<int>& ids) {
  if (!ids.empty()) {
    load_cron_task(mode, &ids);
    ids.clear();
  }
}

}  // namespace

void NotificationBatch::add(const std::string& payload) {
  fileLog->write(kLogDebug, "TH LISTENER# Notify string receive :" + payload);
  Json::Value message;
  if (!parse(payload, message)) {
    // The admin thread's name in it stays: monitoring of the log looks for this line. Tested by
    // NotificationBatchTest.WarnsOfAPayloadThatIsNotJson.
    fileLog->write(kLogWarning, "TH ADMIN# Bad notify Json receive :" + payload);
    return;
  }
  const std::string type = message["TYPE"].asString();
  const std::string command = message["COMMAND"].asString();
  fileLog->write(kLogDebug, "TH LISTENER# Notify Json receive :" + payload);
  if (type != "SERVICE") {
    return;
  }
  if (command == "ADD") {
    added.push_back(message["ID"].asInt());
  } else if (command == "UPDATE") {
    updated.push_back(message["ID"].asInt());
  }
}

bool NotificationBatch::parse(const std::string& payload, Json::Value& message) {
  try {
    return reader->parse(payload.data(), payload.data() + payload.size(), &message, &errors);
  } catch (const Json::RuntimeError&) {  // too deep; the reader is reset by the next text
    return false;
  }
}

void NotificationBatch::load() {
  loadAndEmpty("ADD", added);
  loadAndEmpty("UPDATE", updated);
}
