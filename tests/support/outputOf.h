#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <functional>
#include <string>

/// Redirects a standard file of this process during its lifetime.
class Redirected {
 public:
  Redirected(int standardFile, int target)
      : file(standardFile), before(fcntl(standardFile, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)) {
    std::fflush(nullptr);
    dup2(target, file);
  }
  ~Redirected() {
    std::fflush(nullptr);
    dup2(before, file);
    close(before);
  }
  Redirected(const Redirected&) = delete;
  Redirected& operator=(const Redirected&) = delete;

 private:
  int file;
  int before;
};

/// The content of a file, by its descriptor, from its beginning.
inline std::string contentOf(int file) {
  std::string text;
  std::array<char, 4096> chunk{};
  ssize_t length = 0;
  while ((length = pread(file, chunk.data(), chunk.size(), static_cast<off_t>(text.size()))) > 0) {
    text.append(chunk.data(), static_cast<std::size_t>(length));
  }
  return text;
}

/// What `call` writes to a standard file of this process, with or without the C library.
inline std::string outputOf(const std::function<void()>& call, int standardFile = STDOUT_FILENO) {
  const int memory = memfd_create("output", MFD_CLOEXEC);
  {
    const Redirected redirected(standardFile, memory);
    call();
  }
  std::string text = contentOf(memory);
  close(memory);
  return text;
}
