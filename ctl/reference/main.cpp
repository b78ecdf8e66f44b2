// koductlReference: renews what is generated from koductl's command line definitions. A tool for
// those who change them, see scripts/reference.

#include <fmt/core.h>

#include <cstdlib>
#include <exception>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

#include "ctl/commandLine.h"
#include "ctl/reference/renew.h"

namespace {

std::string contentOf(const std::string& path) {
  std::ifstream file(path);
  if (!file) {
    throw std::runtime_error("cannot read " + path);
  }
  return {std::istreambuf_iterator<char>(file), {}};
}

void write(const std::string& path, const std::string& content) {
  std::ofstream file(path);
  file << content;
  if (!file.flush()) {
    throw std::runtime_error("cannot write " + path);
  }
}

void renew(const std::string& path, const CommandDescription& program) {
  const std::string content = contentOf(path);
  const std::string current = renewed(content, program);
  if (current != content) {
    write(path, current);
    fmt::print("renewed {}\n", path);
  }
}

}  // namespace

int main(int argc, char* argv[]) try {
  if (argc != 2) {
    fmt::print(stderr, "usage: koductlReference PROJECT\n");
    return EXIT_FAILURE;
  }
  const CommandDescription program = describeCommandLine();
  for (const char* file : kReferenceFiles) {
    renew(fmt::format("{}/{}", argv[1], file), program);
  }
  return EXIT_SUCCESS;
} catch (const std::exception& e) {
  fmt::print(stderr, "koductlReference: {}\n", e.what());
  return EXIT_FAILURE;
}
