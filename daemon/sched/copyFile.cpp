#include "sched/copyFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <system_error>

#include "core/Descriptor.h"

namespace {

Descriptor openFile(const std::string& path, int flags) {
  return Descriptor(open(path.c_str(), flags | O_CLOEXEC, S_IWUSR));
}

bool writeAll(int file, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t written = write(file, data, size);
    if (written < 0) {
      return false;
    }
    data += written;
    size -= static_cast<std::size_t>(written);
  }
  return true;
}

bool copyContent(int from, int to) {
  std::array<char, 65536> buffer;  // NOLINT(cppcoreguidelines-pro-type-member-init): read fills it
  for (;;) {
    const ssize_t length = read(from, buffer.data(), buffer.size());
    if (length <= 0) {
      return length == 0;
    }
    if (!writeAll(to, buffer.data(), static_cast<std::size_t>(length))) {
      return false;
    }
  }
}

/// 0 when the file was copied, otherwise the error number.
int tryCopy(const std::string& from, const std::string& to) {
  // Does not wait for a writer when the file is a pipe.
  const Descriptor source = openFile(from, O_RDONLY | O_NONBLOCK);
  struct stat status {};
  if (!source.isOpen() || fstat(source.get(), &status) != 0) {
    return errno;
  }
  if (!S_ISREG(status.st_mode)) {
    return ENOTSUP;
  }
  const Descriptor copy = openFile(to, O_WRONLY | O_CREAT | O_EXCL);
  const bool isCopied = copy.isOpen() && fchmod(copy.get(), status.st_mode & 07777U) == 0 &&
                        copyContent(source.get(), copy.get());
  return isCopied ? 0 : errno;
}

}  // namespace

void copyToNewFile(const std::string& from, const std::string& to) {
  // Not std::filesystem::copy, whose descriptors a plugin of another worker may inherit. Like it,
  // this copies into a directory that stands in the copy's place.
  std::filesystem::path target = to;
  if (std::error_code ignored; std::filesystem::is_directory(target, ignored)) {
    target /= std::filesystem::path(from).filename();
  }
  if (const int error = tryCopy(from, target); error != 0) {
    throw std::filesystem::filesystem_error("cannot copy", from, target,
                                            {error, std::generic_category()});
  }
}
