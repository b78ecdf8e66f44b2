#include "task/CronTaskQueue.h"

#include <malloc.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "task/serviceCron.h"

namespace {

std::shared_ptr<serviceCron> taskAt(long time) {
  auto task = std::make_shared<serviceCron>();
  task->SetExecTime(time);
  return task;
}

TEST(CronTaskQueueTest, YieldsTheEarliestTaskFirst) {
  CronTaskQueue queue;
  for (const long time : {30, 10, 20}) {
    queue.push(taskAt(time));
  }

  EXPECT_EQ(queue.pop()->GetExecTimeSec(), 10);
  EXPECT_EQ(queue.pop()->GetExecTimeSec(), 20);
  EXPECT_EQ(queue.pop()->GetExecTimeSec(), 30);
}

TEST(CronTaskQueueTest, OrdersManyTasks) {
  std::vector<long> times(1000);
  std::mt19937 random(7);
  std::generate(times.begin(), times.end(),
                [&] { return static_cast<long>(random() % 500) - 250; });
  CronTaskQueue queue;
  for (const long time : times) {
    queue.push(taskAt(time));
  }
  std::sort(times.begin(), times.end());

  for (const long time : times) {
    ASSERT_EQ(queue.pop()->GetExecTimeSec(), time);
  }
  EXPECT_TRUE(queue.empty());
}

TEST(CronTaskQueueTest, CountsItsTasks) {
  CronTaskQueue queue;
  EXPECT_TRUE(queue.empty());
  for (const long time : {1, 2, 3}) {
    queue.push(taskAt(time));
  }

  queue.pop();

  EXPECT_EQ(queue.size(), 2U);
  EXPECT_FALSE(queue.empty());
}

TEST(CronTaskQueueTest, LeavesTheFrontTaskInside) {
  CronTaskQueue queue;
  const auto early = taskAt(1);
  queue.push(taskAt(2));
  queue.push(early);

  EXPECT_EQ(queue.front(), early);
  EXPECT_EQ(queue.front(), early);
  EXPECT_EQ(queue.size(), 2U);
  EXPECT_EQ(queue.pop(), early);
}

TEST(CronTaskQueueTest, YieldsBothOfTwoTasksWithEqualTimes) {
  CronTaskQueue queue;
  const auto one = taskAt(5);
  const auto other = taskAt(5);
  queue.push(one);
  queue.push(other);

  const auto first = queue.pop();
  const auto second = queue.pop();

  EXPECT_TRUE((first == one && second == other) || (first == other && second == one));
}

TEST(CronTaskQueueTest, ReleasesItsTasksWhenCleared) {
  CronTaskQueue queue;
  const auto kept = taskAt(1);
  std::weak_ptr<serviceCron> released;
  {
    const auto task = taskAt(2);
    released = task;
    queue.push(task);
  }
  queue.push(kept);

  queue.clear();

  EXPECT_TRUE(queue.empty());
  EXPECT_TRUE(released.expired());
  EXPECT_EQ(kept.use_count(), 1);
}

TEST(CronTaskQueueTest, ReleasesTheEarliestFirstWhenCleared) {
  std::vector<long> released;
  CronTaskQueue queue;
  for (const long time : {30, 10, 40, 20}) {
    queue.push({new serviceCron(*taskAt(time)), [&released](const serviceCron* task) {
                  released.push_back(task->GetExecTimeSec());
                  delete task;
                }});
  }

  queue.clear();

  EXPECT_EQ(released, (std::vector<long>{10, 20, 30, 40}));
}

TEST(CronTaskQueueTest, ReleasesItsTasksWhenDestroyed) {
  const auto task = taskAt(1);
  {
    CronTaskQueue queue;
    queue.push(task);
    EXPECT_EQ(task.use_count(), 2);
  }

  EXPECT_EQ(task.use_count(), 1);
  EXPECT_TRUE(std::has_virtual_destructor_v<CronTaskQueue>);
}

TEST(CronTaskQueueTest, ReturnsAnEmptyPointerWhenEmpty) {
  CronTaskQueue queue;

  EXPECT_EQ(queue.front(), nullptr);
  EXPECT_EQ(queue.pop(), nullptr);
}

TEST(CronTaskQueueTest, ReadsTheTimeWhenTheHeapIsOrdered) {
  CronTaskQueue queue;
  const auto moved = taskAt(10);
  queue.push(moved);
  queue.push(taskAt(20));
  moved->SetExecTime(30L);
  EXPECT_EQ(queue.front(), moved) << "nothing has put the heap in order yet";

  EXPECT_EQ(queue.pop(), moved);
  queue.push(moved);

  EXPECT_EQ(queue.front()->GetExecTimeSec(), 20);
}

TEST(CronTaskQueueTest, LosesNothingBetweenThreads) {
  constexpr int kThreads = 4;
  constexpr int kTasks = 500;
  CronTaskQueue queue;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&queue, i] {
      for (int n = 0; n < kTasks; ++n) {
        queue.push(taskAt(n * kThreads + i));
        queue.push(queue.pop());
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }

  ASSERT_EQ(queue.size(), kThreads * kTasks);
  for (long time = 0; time < long{kThreads} * kTasks; ++time) {
    ASSERT_EQ(queue.pop()->GetExecTimeSec(), time);
  }
}

/// Marks a task in the queue, and releases the test's own reference.
void drop(CronTaskQueue& queue, std::shared_ptr<serviceCron> task) {
  task->SetExecState(3);
  const serviceCron* const address = task.get();
  task.reset();
  queue.noteMarked(address);
}

TEST(CronTaskQueueTest, FreesAMarkedTaskExceptItsTimeAndName) {
  CronTaskQueue queue;
  auto task = taskAt(20);
  task->Setname("a name that is too long for the record itself");
  const std::weak_ptr<serviceCron> freed = task;
  queue.push(taskAt(10));
  queue.push(task);
  queue.push(taskAt(30));

  drop(queue, std::move(task));

  EXPECT_TRUE(freed.expired());
  EXPECT_EQ(queue.size(), 3U);
  EXPECT_EQ(queue.pop()->GetExecTimeSec(), 10);
  const auto front = queue.front();
  EXPECT_EQ(queue.front(), front);
  EXPECT_EQ(queue.size(), 2U);
  const auto dropped = queue.pop();
  EXPECT_EQ(dropped, front);
  EXPECT_EQ(dropped->GetExecTimeSec(), 20);
  EXPECT_EQ(dropped->Getname(), "a name that is too long for the record itself");
  EXPECT_EQ(dropped->GetExecState(), 3);
  EXPECT_EQ(queue.pop()->GetExecTimeSec(), 30);
  EXPECT_TRUE(queue.empty());
}

TEST(CronTaskQueueTest, KeepsAMarkedTaskThatIsReferencedElsewhere) {
  CronTaskQueue queue;
  const auto held = taskAt(10);
  queue.push(held);

  drop(queue, held);

  EXPECT_EQ(queue.pop(), held);
}

TEST(CronTaskQueueTest, FreesATaskThatWasReferencedWhenItWasMarked) {
  CronTaskQueue queue;
  auto held = taskAt(10);
  const std::weak_ptr<serviceCron> freed = held;
  queue.push(held);
  drop(queue, held);
  held.reset();

  queue.noteMarked(nullptr);

  EXPECT_TRUE(freed.expired());
}

TEST(CronTaskQueueTest, FreesATaskThatWasMarkedDuringItsRun) {
  CronTaskQueue queue;
  auto task = taskAt(10);
  const std::weak_ptr<serviceCron> freed = task;
  drop(queue, task);
  queue.push(std::move(task));

  queue.noteMarked(nullptr);

  EXPECT_TRUE(freed.expired());
}

/// Seconds that a queue of `size` tasks needs for 1,000 marks, after which it frees them.
double secondsToFree(std::size_t size) {
  CronTaskQueue queue;
  std::vector<std::shared_ptr<serviceCron>> tasks;
  for (std::size_t n = 0; n < size; ++n) {
    tasks.push_back(taskAt(static_cast<long>(n * 7919 % size)));
    queue.push(tasks.back());
  }
  std::vector<std::shared_ptr<serviceCron>> replaced;
  for (std::size_t n = 0; n < 1000; ++n) {
    replaced.push_back(std::move(tasks[n * (size / 1000)]));
  }
  tasks.clear();
  const std::clock_t begin = std::clock();
  for (auto& task : replaced) {
    drop(queue, std::move(task));
  }
  return static_cast<double>(std::clock() - begin) / CLOCKS_PER_SEC;
}

// Reading each record takes 0.04 s and more, and the lock is held meanwhile.
TEST(CronTaskQueueTest, FreesTasksWithoutReadingEachRecord) {
  if (mallinfo2().uordblks == 0) {
    GTEST_SKIP() << "the time is the sanitizer's";
  }
  std::array<double, 5> seconds{};
  std::ranges::generate(seconds, [] { return secondsToFree(300'000); });
  std::ranges::sort(seconds);

  EXPECT_LT(seconds[2], 0.02);
}

TEST(CronTaskQueueTest, YieldsEachOfTheTasksThatItFreed) {
  CronTaskQueue queue;
  for (const long time : {5, 3, 5, 1, 5, 3}) {
    auto task = taskAt(time);
    task->Setname(time == 3 ? "three" : "other");
    queue.push(task);
    drop(queue, std::move(task));
  }
  EXPECT_EQ(queue.size(), 6U);

  std::vector<std::string> yielded;
  while (!queue.empty()) {
    const auto task = queue.pop();
    yielded.push_back(task->Getname() + " " + std::to_string(task->GetExecTimeSec()));
  }

  EXPECT_EQ(yielded, (std::vector<std::string>{"other 1", "three 3", "three 3", "other 5",
                                               "other 5", "other 5"}));
}

TEST(CronTaskQueueTest, MixesTheFreedTasksWithTheOthers) {
  std::mt19937 random(7);
  CronTaskQueue queue;
  std::vector<long> times(5000);
  for (long& time : times) {
    time = static_cast<long>(random() % 1000);
    auto task = taskAt(time);
    queue.push(task);
    if (random() % 2 == 0) {
      drop(queue, std::move(task));
    }
  }
  std::sort(times.begin(), times.end());

  for (const long time : times) {
    ASSERT_EQ(queue.pop()->GetExecTimeSec(), time);
  }
  EXPECT_EQ(queue.pop(), nullptr);
}

TEST(CronTaskQueueTest, ForgetsTheFreedTasksWhenCleared) {
  CronTaskQueue queue;
  auto task = taskAt(10);
  queue.push(task);
  drop(queue, std::move(task));

  queue.clear();

  EXPECT_TRUE(queue.empty());
  EXPECT_EQ(queue.front(), nullptr);
}

TEST(CompareTaskTest, IsTrueWhenTheFirstIsDueLater) {
  const CompareTask compare;

  EXPECT_TRUE(compare(taskAt(2), taskAt(1)));
  EXPECT_FALSE(compare(taskAt(1), taskAt(2)));
  EXPECT_FALSE(compare(taskAt(1), taskAt(1)));
  EXPECT_FALSE(compare(taskAt(-1), taskAt(0)));
}

}  // namespace
