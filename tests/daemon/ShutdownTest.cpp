#include "shutdown.h"

#include <malloc.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/globals.h"
#include "core/logFile.h"
#include "core/posixLock.h"
#include "core/signals.h"
#include "task/ExecuteQueue.h"
#include "task/serviceCron.h"
#include "tests/support/Globals.h"
#include "tests/support/Heap.h"
#include "tests/support/waitUntil.h"

namespace {

class HandlerQuitTest : public GlobalsTest {
 protected:
  void SetUp() override {
    GlobalsTest::SetUp();
    previous = std::signal(SIGTERM, HandlerQuit);
  }
  void TearDown() override {
    std::signal(SIGTERM, previous);
    die_kodu = 0;
    GlobalsTest::TearDown();
  }

 private:
  void (*previous)(int) = SIG_DFL;
};

TEST_F(HandlerQuitTest, LogsTheSignalAndSetsTheStopFlag) {
  std::raise(SIGTERM);

  EXPECT_EQ(die_kodu, 1);
  EXPECT_THAT(log(), testing::ElementsAre("NOTICE#stop koduCron... SIGTERM: 15"));
}

TEST_F(HandlerQuitTest, WritesTheNumberThatItIsGiven) {
  HandlerQuit(-2147483647 - 1);

  EXPECT_THAT(log(), testing::ElementsAre("NOTICE#stop koduCron... SIGTERM: -2147483648"));
}

TEST_F(HandlerQuitTest, WakesEveryWaitingWorker) {
  std::atomic<int> woken = 0;
  std::atomic<int> waiting = 0;
  std::vector<std::thread> workers;
  for (int i = 0; i < 4; ++i) {
    workers.emplace_back([&] {
      ++waiting;
      queueExecTask->waitForTask(die_kodu);
      ++woken;
    });
  }
  ASSERT_TRUE(waitUntil([&] { return waiting == 4; }));

  // Repeats the broadcast: a worker that does not wait yet misses it; that gap is accepted.
  EXPECT_TRUE(waitUntil([&] {
    std::raise(SIGTERM);
    return woken == 4;
  }));
  for (std::thread& worker : workers) {
    worker.join();
  }
}

TEST_F(HandlerQuitTest, ToleratesAMissingQueue) {
  auto* const queue = std::exchange(queueExecTask, nullptr);

  std::raise(SIGTERM);

  EXPECT_EQ(die_kodu, 1);
  queueExecTask = queue;
}

TEST_F(HandlerQuitTest, AllocatesNothing) {
  if (!isHeapWatched()) {
    GTEST_SKIP() << "the heap is the sanitizer's";
  }
  const auto bytesBefore = mallinfo2().uordblks;
  const long requestsBefore = heapRequests();

  std::raise(SIGTERM);

  EXPECT_EQ(heapRequests(), requestsBefore);
  EXPECT_EQ(mallinfo2().uordblks, bytesBefore) << "the C library's own";
  EXPECT_EQ(log().size(), 1U);
}

TEST_F(HandlerQuitTest, LeavesErrnoToTheInterruptedStep) {
  delete std::exchange(fileLog, new logFile(0, "/dev/full"));
  errno = EAGAIN;

  HandlerQuit(SIGTERM);

  EXPECT_EQ(errno, EAGAIN);
}

TEST_F(HandlerQuitTest, InterruptsAThreadThatWritesTheLogWithoutAHang) {
  constexpr int kSignals = 2000;
  std::atomic<bool> isDone = false;
  std::thread writer([&] {
    installEmptySignalMask();
    while (!isDone) {
      fileLog->write(2, "a line");
      std::string(1000, 'x').shrink_to_fit();  // the heap, which the handler must not need
    }
  });
  for (int i = 0; i < kSignals; ++i) {
    // NOLINTNEXTLINE(bugprone-bad-signal-to-kill-thread): the handler runs there, nothing ends.
    pthread_kill(writer.native_handle(), SIGTERM);
  }

  EXPECT_TRUE(waitUntil([&] { return logged("NOTICE#stop koduCron... SIGTERM: 15") > 0; }));
  isDone = true;
  writer.join();
  EXPECT_THAT(
      log(), testing::Each(testing::AnyOf("NOTICE#a line", "NOTICE#stop koduCron... SIGTERM: 15")));
}

TEST(PosixLockTest, ThrowsWhenTheMutexCannotBeLocked) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
  pthread_mutex_t mutex;
  pthread_mutex_init(&mutex, &attributes);
  {
    const PosixLock held(mutex);
    try {
      const PosixLock again(mutex);
      FAIL() << "nothing was thrown";
    } catch (const std::system_error& e) {
      EXPECT_EQ(e.code().value(), EDEADLK);
    }
  }
  EXPECT_EQ(pthread_mutex_trylock(&mutex), 0) << "the first lock is released";
  pthread_mutex_unlock(&mutex);
  pthread_mutex_destroy(&mutex);
  pthread_mutexattr_destroy(&attributes);
}

TEST(SignalBlockTest, KeepsSigtermUntilItGoes) {
  static volatile std::sig_atomic_t received = 0;
  void (*previous)(int) = std::signal(SIGTERM, [](int) { received = 1; });
  {
    const SignalBlock block = SignalBlock::sigterm();
    std::raise(SIGTERM);
    EXPECT_EQ(received, 0);
  }
  EXPECT_EQ(received, 1);
  std::signal(SIGTERM, previous);
}

TEST(SignalBlockTest, RestoresTheMaskThatItFound) {
  sigset_t before;
  sigset_t after;
  sigemptyset(&before);
  sigaddset(&before, SIGUSR1);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  { const SignalBlock block = SignalBlock::all(); }
  pthread_sigmask(SIG_SETMASK, nullptr, &after);

  EXPECT_EQ(sigismember(&after, SIGUSR1), 1);
  EXPECT_EQ(sigismember(&after, SIGTERM), 0);
  installEmptySignalMask();
  pthread_sigmask(SIG_SETMASK, nullptr, &after);
  EXPECT_EQ(sigismember(&after, SIGUSR1), 0);
}

}  // namespace
