#include "guard/say.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <limits>
#include <string>
#include <string_view>
#include <thread>

#include <gtest/gtest.h>

#include "tests/support/FakeTerminal.h"
#include "tests/support/outputOf.h"

namespace {

std::string digits(long number) {
  return std::string(std::string_view(Digits(number)));
}

TEST(DigitsTest, WritesNumbersInDecimal) {
  for (const long number : {0L, 1L, 9L, 10L, 65536L, -1L, -86400L, std::numeric_limits<long>::max(),
                            std::numeric_limits<long>::min()}) {
    EXPECT_EQ(digits(number), std::to_string(number));
  }
}

TEST(SayTest, WritesThePiecesInOrder) {
  EXPECT_EQ(outputOf([] { say({"one ", "", Digits(2), "\n"}); }), "one 2\n");
  EXPECT_EQ(outputOf([] { say({}); }), "");
}

TEST(SayTest, KeepsEachByteInAFile) {
  using std::string_view_literals::operator""sv;
  EXPECT_EQ(outputOf([] { say({"a\0b\x1b[31m\xff"sv}); }), std::string("a\0b\x1b[31m\xff", 9));
}

std::string onTerminal(std::string_view text) {
  FakeTerminal terminal(24, 80);
  say({text, "."});
  return terminal.finish();
}

struct Shown {
  const char* name;
  std::string_view text;
  std::string_view shown;
};

TEST(SayTest, ReplacesUnsafeCharactersOnATerminal) {
  using std::string_view_literals::operator""sv;
  for (const Shown& test :
       {Shown{"plain text", "plain", "plain."}, Shown{"an empty text", "", "."},
        Shown{"an escape sequence", "\x1b[31mred", "?[31mred."},
        Shown{"a zero byte", "a\0b"sv, "a?b."}, Shown{"a backspace", "a\bb", "a?b."},
        Shown{"a carriage return", "a\rb", "a?b."}, Shown{"a C1 control", "\u009b31m", "?31m."},
        Shown{"an override of the direction", "a\u202eb", "a?b."},
        Shown{"invalid UTF-8 at the end", "a\xe2\x82", "a??."},
        Shown{"unsafe characters only", "\x1b\x1b\x1b", "???."},
        Shown{"two adjacent ones", "a\x07\x07z", "a??z."},
        Shown{"wide characters", "日本é", "日本é."}, Shown{"a tab", "a\tb", "a\tb."}}) {
    EXPECT_EQ(onTerminal(test.text), test.shown) << test.name;
  }
}

TEST(SayTest, EndsLinesOnATerminal) {
  EXPECT_EQ(onTerminal("a\nb\n"), "a\r\nb\r\n.");
}

TEST(SayTest, WaitsForTheReaderOfANonBlockingPipe) {
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
  ASSERT_EQ(fcntl(ends[1], F_SETFL, O_NONBLOCK), 0);
  const std::string text(1'000'000, 'x');  // more than any pipe holds
  std::string received;
  std::thread reader([&] {
    std::array<char, 65536> chunk{};
    for (ssize_t length = 0; (length = read(ends[0], chunk.data(), chunk.size())) > 0;) {
      received.append(chunk.data(), static_cast<std::size_t>(length));
    }
  });
  {
    const Redirected redirected(STDOUT_FILENO, ends[1]);
    close(ends[1]);
    say({text});
  }
  reader.join();
  close(ends[0]);
  EXPECT_EQ(received.size(), text.size());
}

TEST(SayTest, GivesUpOnAnOutputThatCannotBeWritten) {
  const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
  const int readOnly = open("/dev/null", O_RDONLY | O_CLOEXEC);
  for (const int target : {full, readOnly}) {
    const Redirected redirected(STDOUT_FILENO, target);
    say({"lost\n", "too\n"});  // returns
  }
  close(full);
  close(readOnly);
  EXPECT_EQ(outputOf([] { say({"kept\n"}); }), "kept\n");
}

TEST(SayTest, GivesUpOnAPipeWithoutAReader) {
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
  close(ends[0]);
  const auto before = std::signal(SIGPIPE, SIG_IGN);
  {
    const Redirected redirected(STDOUT_FILENO, ends[1]);
    say({"lost\n"});  // returns
  }
  std::signal(SIGPIPE, before);
  close(ends[1]);
}

}  // namespace
