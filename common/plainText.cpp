#include "common/plainText.h"

namespace {

/// How a character of several bytes begins.
struct Form {
  std::size_t bytes = 0;  // 0: no character begins with this byte
  char32_t bits = 0;      // what the first byte adds to the code
  char32_t least = 0;     // a smaller code has a shorter form, and only that one is valid
};

Form formOf(unsigned char lead) {
  if (lead >= 0xc0 && lead < 0xe0) {
    return {2, lead & 0x1fU, 0x80};
  }
  if (lead >= 0xe0 && lead < 0xf0) {
    return {3, lead & 0x0fU, 0x800};
  }
  return lead >= 0xf0 && lead < 0xf8 ? Form{4, lead & 0x07U, 0x10000} : Form{};
}

constexpr bool isBetween(char32_t code, char32_t first, char32_t last) {
  return code >= first && code <= last;
}

}  // namespace

Utf8Character firstUtf8Character(std::string_view text) {
  const auto lead = static_cast<unsigned char>(text[0]);
  if (lead < 0x80) {
    return {1, lead};
  }
  const Form form = formOf(lead);
  char32_t code = form.bits;
  for (std::size_t i = 1; i < form.bytes; ++i) {
    const unsigned next = i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
    if ((next & 0xc0U) != 0x80U) {
      return {1, kNoCharacter};
    }
    code = code << 6U | (next & 0x3fU);
  }
  const bool isSurrogate = isBetween(code, 0xd800, 0xdfff);
  const bool isValid = form.bytes > 0 && isBetween(code, form.least, 0x10ffff) && !isSurrogate;
  return isValid ? Utf8Character{form.bytes, code} : Utf8Character{1, kNoCharacter};
}

bool isUnsafe(char32_t code) {
  return code < 0x20 || isBetween(code, 0x7f, 0x9f) ||  // C0; DEL and C1
         code == 0x61c || isBetween(code, 0x200e, 0x200f) ||
         isBetween(code, 0x2028, 0x202e) ||  // two separators, then embeddings and overrides
         isBetween(code, 0x2066, 0x2069) || code == kNoCharacter;
}
