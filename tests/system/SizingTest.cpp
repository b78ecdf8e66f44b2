#include <sys/resource.h>

#include <string>

#include "tests/support/DaemonTest.h"
#include "tests/support/Process.h"

namespace {

/// The rule for sizing in docs/performance.md.
class SizingTest : public DaemonTest {
 protected:
  static constexpr int kWorkers = 30;

  void SetUp() override {
    DaemonTest::SetUp();
    getrlimit(RLIMIT_NOFILE, &former);
  }
  void TearDown() override { setrlimit(RLIMIT_NOFILE, &former); }

  /// The daemon inherits the limit; the test's own descriptors are below it.
  void limitDescriptors(rlim_t count) const {
    const rlimit limit{count, former.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  }

  rlimit former{};
};

TEST_F(SizingTest, HasDescriptorsForAllWorkersAtOnce) {
  // Each waits for all others, so that all pipes are open at once, and fails, which copies files.
  for (int id = 1; id <= kWorkers; ++id) {
    database.insertTask(makeTask(id, waitForRelease() + "echo bad; exit 2"));
  }
  daemon.threadNumber = std::to_string(kWorkers);
  daemon.writeConfig();
  limitDescriptors(16 + 2 * kWorkers);
  ASSERT_TRUE(daemon.startAndWait());
  for (int id = 1; id <= kWorkers; ++id) {
    ASSERT_TRUE(waitForRuns(id, 1)) << id;
  }
  EXPECT_LE(threadCount(daemon.pid()), 8 + kWorkers);
  release();
  for (int id = 1; id <= kWorkers; ++id) {
    EXPECT_TRUE(waitForStatus(id, "FAILED")) << id;
    EXPECT_EQ(database.failures(id), 1) << id;
    EXPECT_EQ(daemon.output("out_" + std::to_string(id) + "_last.txt"), "bad\n");
  }
  EXPECT_EQ(daemon.logged("ERRORS#"), 0);
  EXPECT_TRUE(daemon.isRunning());
}

}  // namespace
