#include "notify/say.h"

#include <cstdio>
#include <string_view>

#include "common/plainText.h"

std::string plain(const std::string& text) {
  std::string result;
  for (std::string_view rest = text; !rest.empty();) {
    const Utf8Character next = firstUtf8Character(rest);
    result += isUnsafe(next.code) ? "?" : rest.substr(0, next.bytes);
    rest.remove_prefix(next.bytes);
  }
  return result;
}

void say(const std::string& text) {
  std::fprintf(stderr, "kodunotify: %s\n", plain(text).c_str());
}
