#pragma once

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <tuple>

/// Gives this process the effective rights of another user and no further groups during its
/// lifetime. Only root may.
class OtherUser {
 public:
  explicit OtherUser(const std::string& name) {
    const passwd* user = getpwnam(name.c_str());
    if (user == nullptr || setgroups(0, nullptr) != 0 || setegid(user->pw_gid) != 0 ||
        seteuid(user->pw_uid) != 0) {
      throw std::runtime_error("cannot become user " + name);
    }
  }
  ~OtherUser() {
    std::ignore = seteuid(0);
    std::ignore = setegid(0);
  }
  OtherUser(const OtherUser&) = delete;
  OtherUser& operator=(const OtherUser&) = delete;
};
