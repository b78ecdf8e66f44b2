// A parameter string. No cell of a row holds a NUL: an argument would end there.

#include <algorithm>

#include "lab/fuzz/fuzz.h"
#include "task/serviceCron.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string text(textOf(data, size));
  text.resize(std::min(text.size(), text.find('\0')));
  serviceCron task;
  task.Setparameter(text);
  check(task.Getparameter() == text, "the text is kept as it is");
  std::size_t length = 0;
  for (const std::string& argument : task.GetVectorParam()) {
    check(!argument.empty(), "no argument is empty");
    check(argument.find_first_of("\"'") == std::string::npos, "no quote is left");
    length += argument.size();
  }
  check(length <= text.size(), "nothing is added");
  return 0;
}
