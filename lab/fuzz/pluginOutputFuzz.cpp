// A plugin's output, collected in reads of 1024 bytes and repaired.

#include <algorithm>

#include <utf8.h>

#include "lab/fuzz/fuzz.h"
#include "sched/pluginOutput.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t kReadSize = 1024;
  const std::string_view text = textOf(data, size);
  std::string output;
  for (std::size_t begin = 0; begin < size; begin += kReadSize) {
    appendChunk(output, text.substr(begin, kReadSize));
  }
  check(output.size() <= size, "nothing is added");
  check(output.find('\0') == std::string::npos, "no NUL byte is kept");

  const std::string collected = output;
  repairUtf8(output);
  check(utf8::is_valid(output.begin(), output.end()), "the output is valid UTF-8");
  check(!utf8::is_valid(collected.begin(), collected.end()) || output == collected,
        "valid output is left alone");
  check(output.empty() == collected.empty(), "repair never empties an output");
  return 0;
}
