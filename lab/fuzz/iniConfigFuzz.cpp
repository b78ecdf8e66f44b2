// An INI file: first line the section, second the key, the rest the file.

#include <sys/mman.h>
#include <unistd.h>

#include "core/iniConfig.h"
#include "lab/fuzz/fuzz.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto fields = fieldsOf(textOf(data, size), 3);
  const std::string& section = fields[0];
  const std::string& key = fields[1];
  const int file = memfd_create("ini", 0);
  check(write(file, fields[2].data(), fields[2].size()) == static_cast<ssize_t>(fields[2].size()),
        "the file is written");

  iniConfig config("/proc/self/fd/" + std::to_string(file));
  const std::string value = config.getKey(section, key);
  check(value.find('\n') == std::string::npos, "a value is of one line");
  check(fields[2].find(value) != std::string::npos, "a value stands in the file");
  config.getKeyToInt(section, key);
  for (const auto& [name, text] : config.getSection(section)) {
    check(name.find('=') == std::string::npos, "a name ends before the first =");
    check(fields[2].find(text) != std::string::npos, "each value stands in the file");
  }
  check(trim(fields[2]) == ltrim(rtrim(fields[2])), "trimming does not depend on the order");
  close(file);
  return 0;
}
