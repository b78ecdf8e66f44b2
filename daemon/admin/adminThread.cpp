#include "admin/adminThread.h"

#include <thread>

#include "admin/purge.h"
#include "core/constants.h"
#include "core/globals.h"
#include "core/logFile.h"
#include "core/signals.h"

void th_admin() {
  installEmptySignalMask();
  fileLog->write(kLogDebug, "TH ADMIN#START ");
  while (die_kodu == 0) {
    DeleteTask();
    std::this_thread::sleep_for(kPurgePeriod);
  }
}
