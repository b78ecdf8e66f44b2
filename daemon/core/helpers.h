#pragma once

#include <string>

// Conversions between text and numbers through the standard streams. Any thread may call them.
//
// Text to number: leading blanks are skipped, reading stops at the first character that cannot
// continue the number, and a text without a number, the empty one included, gives 0. A number out
// of range gives the type's nearest bound.

int stringToInt(const std::string& text);
unsigned int stringToUnsignedInt(const std::string& text);
long stringToLong(const std::string& text);
/// Unsigned, whatever the name says; callers rely on the upper half of the range.
unsigned long stringToLongInt(const std::string& text);
/// Unsigned, whatever the name says; callers rely on the upper half of the range.
unsigned long long stringToLongLongInt(const std::string& text);
double stringToDouble(const std::string& text);

// Number to text: the stream's default formatting.

std::string intToString(int value);
std::string longToString(long value);
std::string longIntToString(long value);
std::string unsignedLongIntToString(unsigned long value);
std::string unsignedLongLongIntToString(unsigned long long value);
/// Six significant digits, the shorter of fixed and scientific notation.
std::string doubleToString(double value);

/// Renders an IPv4 address that is held in an integer. Holds no data; any thread may call it.
class IP {
 public:
  IP() = default;
  virtual ~IP() = default;

  /// `n` (first octet in bits 24 to 31) as dotted text, exact for first octets below 128. From 128
  /// on the later fields carry the sign of the first: 3232235777 gives "192.65704.16777217.1".
  std::string IPdecToIP(unsigned long n);
};
