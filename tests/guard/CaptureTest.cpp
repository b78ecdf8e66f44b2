#include "guard/capture.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include <gtest/gtest.h>

namespace {

/// A stream that keeps eight bytes, with its write end as the plugin has it.
class CaptureTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(capture.open(8), 0); }
  ~CaptureTest() override {
    close(capture.writeEnd());
    close(capture.readEnd());
  }

  void write(const std::string& text) const {
    ASSERT_EQ(::write(capture.writeEnd(), text.data(), text.size()),
              static_cast<ssize_t>(text.size()));
  }

  Capture capture;
};

TEST_F(CaptureTest, IsEmptyAtFirst) {
  EXPECT_TRUE(capture.isOpen());
  EXPECT_EQ(capture.kept(), "");
  EXPECT_EQ(capture.dropped(), 0U);
}

TEST_F(CaptureTest, KeepsWhatIsWritten) {
  write("one ");
  capture.drain();
  write("two");
  capture.drain();
  EXPECT_EQ(capture.kept(), "one two");
  EXPECT_EQ(capture.dropped(), 0U);
  EXPECT_TRUE(capture.isOpen());
}

TEST_F(CaptureTest, DoesNotWaitForMore) {
  capture.drain();  // returns, although the pipe is empty and open
  EXPECT_TRUE(capture.isOpen());
}

TEST_F(CaptureTest, KeepsExactlyTheLimit) {
  write("12345678");
  capture.drain();
  EXPECT_EQ(capture.kept(), "12345678");
  EXPECT_EQ(capture.dropped(), 0U);
}

TEST_F(CaptureTest, CountsTheBytesBeyondTheLimit) {
  write("123456");
  capture.drain();
  write("78abc");
  capture.drain();
  write("def");
  capture.drain();
  EXPECT_EQ(capture.kept(), "12345678");
  EXPECT_EQ(capture.dropped(), 6U);
}

TEST_F(CaptureTest, KeepsZeroBytes) {
  write(std::string("a\0b", 3));
  capture.drain();
  EXPECT_EQ(capture.kept(), std::string_view("a\0b", 3));
}

TEST_F(CaptureTest, EndsWhenEachWriterHasClosedTheStream) {
  const int copy = dup(capture.writeEnd());
  capture.closeWriteEnd();
  EXPECT_EQ(capture.writeEnd(), -1);
  capture.drain();
  EXPECT_TRUE(capture.isOpen()) << "a copy of the write end is open";
  ASSERT_EQ(::write(copy, "last", 4), 4);
  close(copy);
  capture.drain();
  EXPECT_FALSE(capture.isOpen());
  EXPECT_EQ(capture.readEnd(), -1);
  EXPECT_EQ(capture.kept(), "last");
}

TEST_F(CaptureTest, EndsBeyondTheLimitToo) {
  write("0123456789");
  capture.closeWriteEnd();
  capture.drain();
  EXPECT_FALSE(capture.isOpen());
  EXPECT_EQ(capture.dropped(), 2U);
}

TEST_F(CaptureTest, DoesNothingAfterTheEnd) {
  capture.closeWriteEnd();
  capture.drain();
  capture.drain();
  EXPECT_FALSE(capture.isOpen());
}

TEST_F(CaptureTest, PassesNeitherEndToAPlugin) {
  EXPECT_EQ(fcntl(capture.readEnd(), F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(fcntl(capture.writeEnd(), F_GETFD), FD_CLOEXEC);
}

TEST_F(CaptureTest, LetsThePluginWaitForTheReader) {
  EXPECT_NE(fcntl(capture.readEnd(), F_GETFL) & O_NONBLOCK, 0);
  EXPECT_EQ(fcntl(capture.writeEnd(), F_GETFL) & O_NONBLOCK, 0);
}

TEST(UnopenedCaptureTest, HasNoStream) {
  Capture capture;
  EXPECT_FALSE(capture.isOpen());
  EXPECT_EQ(capture.readEnd(), -1);
  EXPECT_EQ(capture.writeEnd(), -1);
  capture.drain();
  EXPECT_EQ(capture.kept(), "");
  EXPECT_EQ(capture.dropped(), 0U);
}

TEST(UnopenedCaptureTest, ReturnsTheErrorOfThePipe) {
  rlimit before{};
  getrlimit(RLIMIT_NOFILE, &before);
  const rlimit none = {0, before.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  Capture capture;
  const int error = capture.open(8);
  setrlimit(RLIMIT_NOFILE, &before);
  EXPECT_EQ(error, EMFILE);
  EXPECT_FALSE(capture.isOpen());
}

TEST(UnopenedCaptureTest, ReturnsTheErrorOfTheMemory) {
  Capture capture;
  EXPECT_EQ(capture.open(static_cast<std::size_t>(1) << 62U), ENOMEM);
  EXPECT_FALSE(capture.isOpen());
}

}  // namespace
