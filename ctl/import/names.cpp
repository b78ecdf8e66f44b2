#include "ctl/import/names.h"

#include <fmt/format.h>

#include <cstdint>

#include "ctl/terminal/printable.h"

namespace {

constexpr std::size_t kLongestPart = 60;
constexpr std::string_view kMarks = "._:@-";

bool isAlphanumeric(char c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

}  // namespace

std::string keyPart(std::string_view text) {
  std::string part;
  for (const char c : text) {
    if (part.size() == kLongestPart) {
      break;
    }
    const bool isMark = kMarks.find(c) != std::string_view::npos;
    if (isAlphanumeric(c) || (isMark && !part.empty())) {
      part += c;
    } else if (!part.empty() && part.back() != '-') {
      part += '-';
    }
  }
  const std::size_t last = part.find_last_not_of(kMarks);
  part.resize(last == std::string::npos ? 0 : last + 1);
  return part;
}

std::string distinctKeyPart(std::string_view text) {
  std::string part = keyPart(text);
  if (part == text) {
    return part;
  }
  return part + (part.empty() ? "" : "-") + digest(text);
}

std::string digest(std::string_view text) {
  // FNV-1a: the same on all machines and in all releases, which std::hash is not.
  std::uint64_t hash = 0xcbf29ce484222325U;
  for (const char c : text) {
    hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3U;
  }
  return fmt::format("{:08x}", static_cast<std::uint32_t>(hash ^ (hash >> 32)));
}

std::string excerpt(std::string_view text) {
  constexpr int kColumns = 60;
  constexpr std::size_t kMostBytes = 240;  // of these columns, and of a long text's rest
  return cutTo(oneLine(text.substr(0, kMostBytes)), kColumns);
}
