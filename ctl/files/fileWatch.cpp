#include "ctl/files/fileWatch.h"

#include <fmt/format.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "ctl/failure.h"

FileWatch::FileWatch(std::string directory)
    : path(std::move(directory)), events(inotify_init1(IN_CLOEXEC)) {
  if (events < 0 ||
      inotify_add_watch(events, path.c_str(), IN_CLOSE_WRITE | IN_DELETE_SELF | IN_ONLYDIR) < 0) {
    const int error = errno;
    close(events);
    refuse("watch", error);
  }
}

FileWatch::~FileWatch() {
  close(events);
}

std::string FileWatch::next() {
  if (at == end) {
    ssize_t length = 0;
    while ((length = read(events, buffer.data(), buffer.size())) < 0 && errno == EINTR) {
    }
    if (length <= 0) {
      refuse("read the events of", errno);
    }
    at = 0;
    end = static_cast<std::size_t>(length);
  }
  inotify_event event{};
  std::memcpy(&event, buffer.data() + at, sizeof event);
  std::string name = event.len == 0 ? "" : buffer.data() + at + sizeof event;
  at += sizeof event + event.len;
  if ((event.mask & (IN_DELETE_SELF | IN_IGNORED | IN_UNMOUNT)) != 0) {
    refuse("watch", ENOENT);
  }
  return name;
}

void FileWatch::refuse(const std::string& what, int error) const {
  throw Failure(error == EACCES ? kNotPermitted : kNotFound,
                fmt::format("cannot {} the directory {}: {}", what, path, std::strerror(error)));
}
