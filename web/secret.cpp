#include "web/secret.h"

#include <fmt/format.h>
#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <openssl/sha.h>

#include <array>
#include <stdexcept>

namespace {

std::string hexOf(const unsigned char* bytes, std::size_t count) {
  std::string text;
  for (std::size_t i = 0; i < count; ++i) {
    text += fmt::format("{:02x}", bytes[i]);
  }
  return text;
}

}  // namespace

std::string randomSecret() {
  std::array<unsigned char, 32> bytes{};
  if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
    throw std::runtime_error("the system gives no random numbers");
  }
  return hexOf(bytes.data(), bytes.size());
}

std::string digestOf(std::string_view text) {
  std::array<unsigned char, SHA256_DIGEST_LENGTH> bytes{};
  SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), bytes.data());
  return hexOf(bytes.data(), bytes.size());
}

bool isSameSecret(std::string_view one, std::string_view other) {
  return one.size() == other.size() && CRYPTO_memcmp(one.data(), other.data(), one.size()) == 0;
}
