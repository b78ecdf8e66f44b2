#include <malloc.h>

#include <string>

#include <gtest/gtest.h>

#include "tests/support/DaemonTest.h"

namespace {

constexpr long kSize = 40'000'000;

/// The daemon's peak memory for an output of kSize bytes.
class LargeOutputTest : public DaemonTest {
 protected:
  void SetUp() override {
    if (mallinfo2().uordblks == 0) {
      GTEST_SKIP() << "the heap is the sanitizer's, which keeps what is freed";
    }
    DaemonTest::SetUp();
  }

  /// The daemon's memory in bytes: "VmRSS" now, "VmHWM" at its peak.
  long memory(const std::string& key) const {
    for (const std::string& line : readLines("/proc/" + std::to_string(daemon.pid()) + "/status")) {
      if (line.starts_with(key + ":")) {
        return std::stol(line.substr(key.size() + 1)) * 1024;
      }
    }
    return 0;
  }

  /// Runs a task that prints kSize bytes, `last` at their end, and continues with `end`. Returns
  /// the peak of the daemon's memory, in outputs.
  double peak(const std::string& last, const std::string& end, const std::string& status) {
    const std::string count = std::to_string(kSize - 1);
    database.insertTask(makeTask(1, "PATH=/usr/bin:/bin; head -c " + count +
                                        " /dev/zero | tr '\\0' x; printf '" + last + "'; " + end));
    EXPECT_TRUE(daemon.startAndWait());
    const long before = memory("VmRSS");
    EXPECT_TRUE(waitForStatus(1, status));
    return static_cast<double>(memory("VmHWM") - before) / static_cast<double>(kSize);
  }
};

constexpr double kMost = 2.2;

TEST_F(LargeOutputTest, NeedsAtMostTwiceItsSizeInMemory) {
  EXPECT_LT(peak("y", "exit 0", "OK"), kMost);

  EXPECT_EQ(daemon.output("out_1_last.txt").size(), kSize);
}

TEST_F(LargeOutputTest, NeedsAtMostTwiceItsSizeInMemoryWhenItIsBinary) {
  EXPECT_LT(peak("\\377", "exit 0", "OK"), kMost);

  EXPECT_EQ(daemon.output("out_1_last.txt").back(), ' ');
}

TEST_F(LargeOutputTest, NeedsAtMostTwiceItsSizeInMemoryWhenThePluginFails) {
  EXPECT_LT(peak("y", "exit 9", "FAILED"), kMost);

  EXPECT_EQ(database.failures(1), 1);
}

TEST_F(LargeOutputTest, NeedsAtMostTwiceItsSizeInMemoryWhenThePluginIsKilled) {
  EXPECT_LT(peak("y", "kill -KILL $$", "FAILED"), kMost);

  EXPECT_LT(memory("VmRSS"), kSize) << "it keeps memory that is no longer needed";
}

}  // namespace
