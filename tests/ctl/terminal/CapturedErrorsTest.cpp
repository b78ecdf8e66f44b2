#include "ctl/terminal/capturedErrors.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/outputOf.h"

namespace {

void writeError(const std::string& text) {
  EXPECT_EQ(write(STDERR_FILENO, text.data(), text.size()), static_cast<ssize_t>(text.size()));
}
std::string standardErrorOf(const std::function<void()>& call) {
  return outputOf(call, STDERR_FILENO);
}

TEST(CapturedErrorsTest, TakesWhatIsWrittenToStandardError) {
  std::string captured;
  const std::string passed = standardErrorOf([&] {
    CapturedErrors errors;
    writeError("one ");
    std::fputs("two", stderr);
    captured = errors.take();
  });
  EXPECT_EQ(captured, "one two");
  EXPECT_EQ(passed, "");
}

TEST(CapturedErrorsTest, TakesTheErrorsOfAChildProcess) {
  std::string captured;
  standardErrorOf([&] {
    CapturedErrors errors;
    EXPECT_EQ(std::system("echo child >&2"), 0);  // NOLINT(cert-env33-c,concurrency-mt-unsafe)
    captured = errors.take();
  });
  EXPECT_EQ(captured, "child\n");
}

TEST(CapturedErrorsTest, TakesMoreThanOneChunk) {
  const std::string text(100'000, 'x');
  std::string captured;
  standardErrorOf([&] {
    CapturedErrors errors;
    writeError(text);
    captured = errors.take();
  });
  EXPECT_EQ(captured, text);
}

TEST(CapturedErrorsTest, RestoresStandardErrorAtTheFirstTake) {
  EXPECT_EQ(standardErrorOf([] {
              CapturedErrors errors;
              writeError("captured");
              errors.take();
              writeError("after");
              EXPECT_EQ(errors.take(), "captured") << "a second call returns the same";
              writeError(" both");
            }),
            "after both");
}

TEST(CapturedErrorsTest, RestoresStandardErrorOnDestruction) {
  EXPECT_EQ(standardErrorOf([] {
              {
                const CapturedErrors errors;
                writeError("dropped");
              }
              writeError("after");
            }),
            "after");
}

TEST(CapturedErrorsTest, IsEmptyWithoutErrors) {
  CapturedErrors errors;
  EXPECT_EQ(errors.take(), "");
}

TEST(CapturedErrorsTest, CanBeUsedAgain) {
  standardErrorOf([] {
    for (const char* text : {"one", "two"}) {
      CapturedErrors errors;
      writeError(text);
      EXPECT_EQ(errors.take(), text);
    }
  });
}

TEST(CapturedErrorsTest, ToleratesAClosedStandardError) {
  const int before = dup(STDERR_FILENO);
  close(STDERR_FILENO);
  std::string captured = "unset";
  {
    CapturedErrors errors;
    captured = errors.take();
  }
  dup2(before, STDERR_FILENO);
  close(before);
  EXPECT_EQ(captured, "");
}

}  // namespace
