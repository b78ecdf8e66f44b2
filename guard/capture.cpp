#include "guard/capture.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <array>
#include <cerrno>
#include <utility>

#include "guard/system.h"

namespace {

/// More than the largest pipe holds, so that everything left by ended writers is read at once.
constexpr int kReadsADrain = 32;

std::array<char, 65536> scratch;  // for what is dropped; never read

}  // namespace

int Capture::open(std::size_t mostBytes) {
  std::array<int, 2> ends{};
  // Not O_NONBLOCK here: the plugin's end would inherit it, and plugins do not expect it.
  if (const long result = kernel(SYS_pipe2, ends.data(), O_CLOEXEC); result < 0) {
    return static_cast<int>(-result);
  }
  kernel(SYS_fcntl, ends[0], F_SETFL, O_NONBLOCK);
  // Address space only: a page costs memory once the plugin has filled it.
  const long address = kernel(SYS_mmap, nullptr, mostBytes, PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (address < 0) {
    return static_cast<int>(-address);
  }
  reader = ends[0];
  writer = ends[1];
  // NOLINTNEXTLINE(performance-no-int-to-ptr): the kernel answers by numbers.
  buffer = reinterpret_cast<char*>(address);
  limit = mostBytes;
  return 0;
}

void Capture::closeWriteEnd() {
  kernel(SYS_close, std::exchange(writer, -1));
}

void Capture::drain() {
  for (int i = 0; isOpen() && i < kReadsADrain; ++i) {
    const long count = isFull() ? kernel(SYS_read, reader, scratch.data(), scratch.size())
                                : kernel(SYS_read, reader, buffer + length, limit - length);
    if (count > 0) {
      (isFull() ? droppedBytes : length) += static_cast<std::size_t>(count);
    } else if (count == -EAGAIN) {
      return;
    } else if (count != -EINTR) {
      kernel(SYS_close, std::exchange(reader, -1));
    }
  }
}
