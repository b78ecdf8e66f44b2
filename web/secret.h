#pragma once

#include <string>
#include <string_view>

/// 256 random bits in hexadecimal digits. Throws std::runtime_error when the system has none.
std::string randomSecret();

/// The SHA-256 of a text in hexadecimal digits. Where secrets are kept by it, neither a look into
/// memory nor the time of a comparison gives one away.
std::string digestOf(std::string_view text);

/// Compares in a time that depends on the lengths alone.
bool isSameSecret(std::string_view one, std::string_view other);
