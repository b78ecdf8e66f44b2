// A file name with placeholders.

#include <memory>

#include "core/globals.h"
#include "lab/fuzz/fuzz.h"
#include "sched/outputPath.h"
#include "task/serviceCron.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string name(textOf(data, size));
  const auto task = std::make_shared<serviceCron>();
  task->SetService_id(42ULL);
  task->SetFilename(name);
  const std::string replaced = replaceParameter(name, task);
  const bool hasPlaceholder =
      name.find("$DATE") != std::string::npos || name.find("$SERVICEID") != std::string::npos;
  check(hasPlaceholder || replaced == name, "a name without placeholders stays");
  const std::string path = currentOutputPath(log_directory, task);
  check(path.starts_with(log_directory + "/"), "the output stays below the directory");
  check(hasPlaceholder || path == log_directory + "/" + name, "only placeholders are replaced");
  return 0;
}
