#pragma once

#include <sched.h>
#include <sys/mount.h>

#include <string>

/// A mount that only this process and its children see, until the destructor removes it. Needs
/// administrator rights: isMounted() is false without them.
class Mount {
 public:
  /// An empty file system in memory, of `size` ("64k"), on the directory `place`.
  static Mount memory(const std::string& place, const std::string& size) {
    return {"tmpfs", place, "tmpfs", 0, "size=" + size};
  }
  /// Binds the file `source` over the file `place`.
  static Mount file(const std::string& source, const std::string& place) {
    return {source, place, "", MS_BIND, ""};
  }

  ~Mount() {
    if (mounted) {
      umount2(path.c_str(), MNT_DETACH);
    }
  }
  Mount(const Mount&) = delete;
  Mount& operator=(const Mount&) = delete;

  bool isMounted() const { return mounted; }

 private:
  Mount(const std::string& source, const std::string& place, const std::string& type,
        unsigned long flags, const std::string& options)
      : path(place),
        mounted(unshare(CLONE_NEWNS) == 0 &&
                mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                mount(source.c_str(), place.c_str(), type.c_str(), flags, options.c_str()) == 0) {}

  std::string path;
  bool mounted;
};
