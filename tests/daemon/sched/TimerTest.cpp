#include "sched/timer.h"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "core/globals.h"
#include "core/signals.h"
#include "task/CronTaskQueue.h"
#include "task/EmptyQueueException.h"
#include "task/ExecuteQueue.h"
#include "task/serviceCron.h"
#include "tests/support/FixedClock.h"
#include "tests/support/Globals.h"
#include "tests/support/waitInShell.h"
#include "tests/support/waitUntil.h"

namespace {

using Clock = std::chrono::steady_clock;

const char* const kSent = "DEBUG#TH TIME: Send task to execution task ";

/// A timer thread and its two queues; now is kMayDay.
class TimerTest : public GlobalsTest {
 protected:
  void TearDown() override {
    stopTimer();
    GlobalsTest::TearDown();
  }

  void startTimer() {
    timer = std::thread([this] {
      threadId = gettid();
      th_readPqeue();
    });
    waitUntil([this] { return threadId != 0; });
  }
  void stopTimer() {
    die_kodu = 1;
    if (timer.joinable()) {
      timer.join();
    }
  }
  /// Puts a task into the schedule queue and returns it.
  static std::shared_ptr<serviceCron> schedule(int id, long execTime) {
    auto task = makeTask(id, "/bin/true", execTime);
    serviceQueue->push(task);
    return task;
  }
  /// Takes the ids out of the execution queue, in its order.
  static std::vector<int> sentIds() {
    std::vector<int> ids;
    try {
      for (;;) {
        ids.push_back(static_cast<int>(queueExecTask->pop()->GetService_id()));
      }
    } catch (const EmptyQueueException&) {
      return ids;
    }
  }
  /// Waits until the timer has looked at the front task `count` more times.
  bool waitForLooks(long count) const {
    const long before = clock.reads();
    return waitUntil([&] { return clock.reads() >= before + count; });
  }
  /// The number of times that the timer thread has slept.
  long sleeps() const {
    const std::string key = "voluntary_ctxt_switches:\t";
    const std::string status =
        readFile("/proc/self/task/" + std::to_string(threadId.load()) + "/status");
    const auto line = status.find("\n" + key);
    return line == std::string::npos ? 0 : std::stol(status.substr(line + 1 + key.size()));
  }

  FixedClock clock{kMayDay};
  std::thread timer;
  std::atomic<pid_t> threadId = 0;
};

// The clock is fixed, so that the due tasks do not depend on the speed of the test.
TEST_F(TimerTest, SendsATaskWhoseTimeHasPassed) {
  const auto task = schedule(1, kMayDay - 1);

  startTimer();

  ASSERT_TRUE(waitUntil([] { return serviceQueue->empty(); }));
  stopTimer();
  EXPECT_EQ(queueExecTask->pop(), task);
  EXPECT_EQ(task.use_count(), 1) << "the timer or a queue still holds it";
  EXPECT_EQ(log(), std::vector<std::string>{std::string(kSent) + "1"});
}

TEST_F(TimerTest, KeepsATaskWhoseTimeIsThePresentSecond) {
  schedule(1, kMayDay);
  startTimer();

  ASSERT_TRUE(waitForLooks(2));
  EXPECT_EQ(serviceQueue->size(), 1U);
  EXPECT_TRUE(log().empty());
  clock.set(kMayDay + 1);

  EXPECT_TRUE(waitUntil([] { return serviceQueue->empty(); }));
  stopTimer();
  EXPECT_EQ(sentIds(), std::vector<int>{1});
}

TEST_F(TimerTest, KeepsATaskOfTheFuture) {
  schedule(1, kMayDay + 1);
  schedule(2, kMayDay - 1);

  startTimer();

  ASSERT_TRUE(waitUntil([] { return serviceQueue->size() == 1; }));
  ASSERT_TRUE(waitForLooks(1));
  stopTimer();
  EXPECT_EQ(sentIds(), std::vector<int>{2});
  EXPECT_EQ(serviceQueue->size(), 1U);
}

TEST_F(TimerTest, SendsTenOverdueTasksInOnePassEarliestFirst) {
  for (const int id : {7, 3, 10, 1, 9, 5, 2, 8, 4, 6}) {
    schedule(id, kMayDay - 100 + id);
  }
  const auto begin = Clock::now();

  startTimer();

  ASSERT_TRUE(waitUntil([] { return serviceQueue->empty(); }));
  EXPECT_LT(Clock::now() - begin, std::chrono::seconds(8)) << "it has slept between the tasks";
  stopTimer();
  EXPECT_EQ(sentIds(), (std::vector<int>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
  std::vector<std::string> lines;
  for (int id = 1; id <= 10; ++id) {
    lines.push_back(kSent + std::to_string(id));
  }
  EXPECT_EQ(log(), lines);
}

TEST_F(TimerTest, WakesAWorkerForEachTask) {
  std::atomic<int> taken = 0;
  const auto work = [&taken] {
    queueExecTask->waitForTask(die_kodu);
    queueExecTask->pop();
    ++taken;
  };
  schedule(1, kMayDay - 1);
  schedule(2, kMayDay - 1);
  std::thread first(work);

  startTimer();

  EXPECT_TRUE(waitUntil([&] { return taken == 1; }));
  first.join();
  std::thread second(work);
  second.join();
  EXPECT_EQ(taken, 2);
}

TEST_F(TimerTest, LogsTheTaskThatItQueues) {
  // The plugin's run keeps the record locked. The timer therefore waits for the name that it logs,
  // while an earlier task is added.
  const std::string go = directory / "go";
  const std::string started = directory / "started";
  const auto locked = makeTask(1, "", kMayDay - 1);
  locked->Setpath(
      writePlugin(directory / "plugin", "> " + started + "; " + waitInShell(go) + "; echo text"));
  std::thread run([&] { locked->execute(); });
  ASSERT_TRUE(waitUntil([&] { return std::filesystem::exists(started); }));
  serviceQueue->push(locked);
  const long looks = clock.reads();
  startTimer();
  ASSERT_TRUE(waitUntil([&] { return clock.reads() > looks; }));
  EXPECT_TRUE(waitUntil([] { return serviceQueue->empty(); })) << "the name comes before pop";

  schedule(2, kMayDay - 100);
  writeFile(go, "");

  run.join();
  ASSERT_TRUE(waitUntil([] { return serviceQueue->empty(); }));
  stopTimer();
  EXPECT_EQ(sentIds(), (std::vector<int>{1, 2}));
  EXPECT_EQ(log(), (std::vector<std::string>{std::string(kSent) + "1", std::string(kSent) + "2"}));
}

TEST_F(TimerTest, LogsEachOfManyTasksThatComeEarlierAndEarlier) {
  constexpr int kTasks = 20'000;
  const auto scheduleTasks = [](int first, int last) {
    for (int id = first; id <= last; ++id) {
      schedule(id, kMayDay - id);
    }
  };
  scheduleTasks(1, kTasks / 2);
  std::thread worker([&] {
    while (serviceQueue->size() == kTasks / 2) {
      std::this_thread::yield();  // the timer must be awake
    }
    scheduleTasks(kTasks / 2 + 1, kTasks);
  });

  startTimer();

  worker.join();

  ASSERT_TRUE(waitUntil([] { return serviceQueue->empty(); }));
  stopTimer();
  std::vector<std::string> lines;
  for (const int id : sentIds()) {
    lines.push_back(kSent + std::to_string(id));
  }
  EXPECT_EQ(lines.size(), kTasks);
  EXPECT_EQ(log(), lines);
}

TEST_F(TimerTest, SleepsASecondWhileNothingIsScheduled) {
  startTimer();
  ASSERT_TRUE(waitUntil([this] { return sleeps() >= 1; }));
  const long before = sleeps();
  const auto begin = Clock::now();

  ASSERT_TRUE(waitUntil([&] { return sleeps() >= before + 2; }));

  EXPECT_GE(Clock::now() - begin, std::chrono::seconds(1)) << "it wakes up more often";
  EXPECT_EQ(clock.reads(), 0);
  EXPECT_TRUE(log().empty());
}

TEST_F(TimerTest, SleepsASecondWhileNothingIsDue) {
  schedule(1, kMayDay);
  startTimer();
  ASSERT_TRUE(waitForLooks(1));
  const auto begin = Clock::now();

  ASSERT_TRUE(waitForLooks(3));

  EXPECT_GE(Clock::now() - begin, std::chrono::seconds(2));
}

TEST_F(TimerTest, KeepsSleepingAfterASignal) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  sigaction(SIGUSR1, &action, nullptr);
  schedule(1, kMayDay);
  startTimer();
  ASSERT_TRUE(waitForLooks(1));
  const auto begin = Clock::now();
  const long looks = clock.reads();

  ASSERT_TRUE(waitUntil([&] {
    pthread_kill(timer.native_handle(), SIGUSR1);
    return clock.reads() >= looks + 3;
  }));

  EXPECT_GE(Clock::now() - begin, std::chrono::seconds(2)) << "a signal has cut a sleep short";
}

TEST_F(TimerTest, TakesATaskThatComesWhileItSleeps) {
  startTimer();
  ASSERT_TRUE(waitUntil([this] { return sleeps() >= 1; }));

  schedule(1, kMayDay - 1);

  EXPECT_TRUE(waitUntil([] { return serviceQueue->empty(); }));
}

TEST_F(TimerTest, ReturnsOnceTheStopFlagIsSet) {
  schedule(1, kMayDay);
  startTimer();
  ASSERT_TRUE(waitForLooks(1));

  stopTimer();

  EXPECT_EQ(serviceQueue->size(), 1U);
}

TEST_F(TimerTest, SendsNothingWithTheStopFlagSet) {
  schedule(1, kMayDay - 1);
  die_kodu = 1;

  th_readPqeue();

  EXPECT_EQ(serviceQueue->size(), 1U);
  EXPECT_EQ(clock.reads(), 0);
}

TEST_F(TimerTest, UnblocksEverySignal) {
  die_kodu = 1;
  sigset_t mask;
  std::thread thread([&mask] {
    const SignalBlock all = SignalBlock::all();
    th_readPqeue();
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  });
  thread.join();

  EXPECT_TRUE(sigisemptyset(&mask));
}

}  // namespace
