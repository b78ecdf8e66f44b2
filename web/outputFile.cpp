#include "web/outputFile.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <vector>

namespace {

/// A descriptor that is closed on destruction.
struct Descriptor {
  explicit Descriptor(int opened) : number(opened) {}
  ~Descriptor() {
    if (number >= 0) {
      close(number);
    }
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  const int number;
};

int openBelow(int directory, const std::string& name) {
  open_how how{};
  how.flags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS;
  return static_cast<int>(syscall(SYS_openat2, directory, name.c_str(), &how, sizeof(how)));
}

}  // namespace

std::optional<std::string> readOutputFile(const std::string& directory, const std::string& path,
                                          std::size_t most) {
  if (!path.starts_with(directory + "/")) {
    return std::nullopt;
  }
  std::string name = path.substr(directory.size());
  name.erase(0, name.find_first_not_of('/'));
  const Descriptor folder(open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  const Descriptor file(openBelow(folder.number, name));
  struct stat status {};
  if (file.number < 0 || fstat(file.number, &status) != 0 || !S_ISREG(status.st_mode)) {
    return std::nullopt;
  }
  std::string content;
  std::vector<char> chunk(65536);
  for (ssize_t length = 1; length > 0 && content.size() < most;) {
    length = read(file.number, chunk.data(), std::min(chunk.size(), most - content.size()));
    content.append(chunk.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
  }
  return content;
}
