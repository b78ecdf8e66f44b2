#include "common/plainText.h"

#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

namespace {

using namespace std::string_view_literals;

struct Valid {
  std::string_view text;
  std::size_t bytes;
  char32_t code;
};

TEST(FirstUtf8CharacterTest, ReadsCharactersOfEachLength) {
  for (const Valid& valid :
       {Valid{"\0"sv, 1, 0}, Valid{"a", 1, 'a'}, Valid{"\x7f", 1, 0x7f}, Valid{"\xc2\x80", 2, 0x80},
        Valid{"\xdf\xbf", 2, 0x7ff}, Valid{"\xe0\xa0\x80", 3, 0x800},
        Valid{"\xe2\x82\xac", 3, 0x20ac}, Valid{"\xef\xbf\xbf", 3, 0xffff},
        Valid{"\xf0\x90\x80\x80", 4, 0x10000}, Valid{"\xf4\x8f\xbf\xbf", 4, 0x10ffff}}) {
    const Utf8Character alone = firstUtf8Character(valid.text);
    EXPECT_EQ(alone.bytes, valid.bytes) << valid.text;
    EXPECT_EQ(alone.code, valid.code) << valid.text;
    const std::string followed = std::string(valid.text) + "\xc3\xa9";
    EXPECT_EQ(firstUtf8Character(followed).bytes, valid.bytes) << "the next character is separate";
  }
}

TEST(FirstUtf8CharacterTest, ReadsCharactersBesideTheSurrogates) {
  EXPECT_EQ(firstUtf8Character("\xed\x9f\xbf").code, 0xd7ffU);
  EXPECT_EQ(firstUtf8Character("\xee\x80\x80").code, 0xe000U);
}

TEST(FirstUtf8CharacterTest, CountsAByteOfInvalidTextByItself) {
  const std::vector<std::pair<const char*, std::string_view>> cases = {
      {"a continuation without a first byte", "\x80"},
      {"the last continuation", "\xbf"},
      {"two bytes, the second missing", "\xc2"},
      {"two bytes, the second wrong", "\xc2g"},
      {"two bytes, the second a first byte", "\xc2\xc2\x80"},
      {"three bytes, the last missing", "\xe2\x82"},
      {"three bytes, the last wrong", "\xe2\x82-"},
      {"four bytes, the last missing", "\xf0\x90\x80"},
      {"four bytes, the third wrong", "\xf0\x90-\x80"},
      {"overlong, two bytes", "\xc0\x80"},
      {"overlong, two bytes, the largest", "\xc1\xbf"},
      {"overlong, three bytes", "\xe0\x9f\xbf"},
      {"overlong, four bytes", "\xf0\x8f\xbf\xbf"},
      {"the first surrogate", "\xed\xa0\x80"},
      {"the last surrogate", "\xed\xbf\xbf"},
      {"beyond U+10FFFF", "\xf4\x90\x80\x80"},
      {"five bytes", "\xf8\x88\x80\x80\x80"},
      {"no first byte of UTF-8", "\xff"},
  };
  for (const auto& [name, text] : cases) {
    EXPECT_EQ(firstUtf8Character(text).bytes, 1U) << name;
    EXPECT_EQ(firstUtf8Character(text).code, kNoCharacter) << name;
  }
}

struct Range {
  char32_t first;
  char32_t last;
};

TEST(IsUnsafeTest, HoldsForEachEndOfEachRangeAndNotBesideIt) {
  // C0; DEL and C1; the Arabic letter mark; two marks; separators and overrides; isolates.
  for (const Range& range : {Range{0, 0x1f}, Range{0x7f, 0x9f}, Range{0x61c, 0x61c},
                             Range{0x200e, 0x200f}, Range{0x2028, 0x202e}, Range{0x2066, 0x2069}}) {
    EXPECT_TRUE(isUnsafe(range.first)) << std::hex << static_cast<unsigned>(range.first);
    EXPECT_TRUE(isUnsafe(range.last)) << std::hex << static_cast<unsigned>(range.last);
    EXPECT_FALSE(isUnsafe(range.last + 1)) << std::hex << static_cast<unsigned>(range.last + 1);
    if (range.first > 0) {
      EXPECT_FALSE(isUnsafe(range.first - 1)) << std::hex << static_cast<unsigned>(range.first - 1);
    }
  }
}

TEST(IsUnsafeTest, HoldsForNewlineAndTab) {
  EXPECT_TRUE(isUnsafe('\n'));
  EXPECT_TRUE(isUnsafe('\t'));
}

TEST(IsUnsafeTest, HoldsForAByteOfInvalidText) {
  EXPECT_TRUE(isUnsafe(kNoCharacter));
}

TEST(IsUnsafeTest, DoesNotHoldForVisibleText) {
  // The non-breaking space, a combining accent, the joiner of emoji, private use, the last code.
  for (const char32_t code : {U' ', U'~', U'\u00a0', U'é', U'\u0301', U'日', U'\u200d', U'\ue000',
                              U'\U0001f600', U'\U0010ffff'}) {
    EXPECT_FALSE(isUnsafe(code)) << std::hex << static_cast<unsigned>(code);
  }
}

}  // namespace
