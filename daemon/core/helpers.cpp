#include "core/helpers.h"

#include <cstdint>
#include <sstream>

namespace {

template <typename Number>
Number fromText(const std::string& text) {
  std::istringstream stream(text);
  Number value = 0;
  stream >> value;
  return value;
}

template <typename Number>
std::string toText(Number value) {
  std::ostringstream stream;
  stream << value;
  return stream.str();
}

/// `value` << `bits`, computed in 32 bits and then widened with its sign.
std::uint64_t shiftedIn32Bits(std::uint64_t value, unsigned bits) {
  const auto shifted = static_cast<std::uint32_t>(value) << bits;
  return static_cast<std::uint64_t>(std::int64_t{static_cast<std::int32_t>(shifted)});
}

}  // namespace

int stringToInt(const std::string& text) {
  return fromText<int>(text);
}
unsigned int stringToUnsignedInt(const std::string& text) {
  return fromText<unsigned int>(text);
}
long stringToLong(const std::string& text) {
  return fromText<long>(text);
}
unsigned long stringToLongInt(const std::string& text) {
  return fromText<unsigned long>(text);
}
unsigned long long stringToLongLongInt(const std::string& text) {
  return fromText<unsigned long long>(text);
}
double stringToDouble(const std::string& text) {
  return fromText<double>(text);
}

std::string intToString(int value) {
  return toText(value);
}
std::string longToString(long value) {
  return toText(value);
}
std::string longIntToString(long value) {
  return longToString(value);
}
std::string unsignedLongIntToString(unsigned long value) {
  return toText(value);
}
std::string unsignedLongLongIntToString(unsigned long long value) {
  return toText(value);
}
std::string doubleToString(double value) {
  return toText(value);
}

// The 32-bit steps stay: what they make of first octets from 128 on is what stored addresses were
// rendered with. Tested by IPTest.CarriesTheSignOfAFirstOctetFrom128On.
std::string IP::IPdecToIP(unsigned long n) {
  const std::uint64_t first = n >> 24U;
  const std::uint64_t rest1 = n - shiftedIn32Bits(first, 24);
  const std::uint64_t second = rest1 >> 16U;
  const std::uint64_t rest2 = rest1 - shiftedIn32Bits(second, 16);
  const std::uint64_t third = rest2 >> 8U;
  const auto fourth = static_cast<std::uint32_t>(rest2) - (static_cast<std::uint32_t>(third) << 8U);

  std::ostringstream text;
  text << static_cast<std::int32_t>(first) << "." << static_cast<std::int32_t>(second) << "."
       << static_cast<std::int32_t>(third) << "." << static_cast<std::int32_t>(fourth);
  return text.str();
}
