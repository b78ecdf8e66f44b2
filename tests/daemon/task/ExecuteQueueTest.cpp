#include "task/ExecuteQueue.h"

#include <atomic>
#include <csignal>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/waitUntil.h"

namespace {

TEST(ExecuteQueueTest, YieldsInTheOrderOfThePushes) {
  ExecuteQueue<std::string> queue;
  for (const char* element : {"A", "B", "C"}) {
    queue.push(element);
  }

  EXPECT_EQ(queue.pop(), "A");
  EXPECT_EQ(queue.pop(), "B");
  EXPECT_EQ(queue.pop(), "C");
}

TEST(ExecuteQueueTest, ThrowsWhenAnEmptyQueueIsPopped) {
  ExecuteQueue<int> queue;
  try {
    queue.pop();
    FAIL() << "nothing was thrown";
  } catch (const EmptyQueueException& e) {
    EXPECT_STREQ(e.what(), "queue is empty");
  }

  queue.push(1);
  EXPECT_EQ(queue.pop(), 1) << "the queue is neither locked nor changed";
}

TEST(ExecuteQueueTest, DoesNotWaitWhileItHoldsAnElementOrTheFlagIsSet) {
  ExecuteQueue<int> queue;
  volatile int stop = 1;
  queue.waitForTask(stop);

  stop = 0;
  queue.push(1);
  queue.waitForTask(stop);

  EXPECT_EQ(queue.pop(), 1);
}

/// Workers that take elements until the stop flag is set, like the daemon's.
class Workers {
 public:
  Workers(ExecuteQueue<int>& sharedQueue, int count) : queue(sharedQueue) {
    for (int i = 0; i < count; ++i) {
      threads.emplace_back([this] { work(); });
    }
  }

  /// Sends `number` to each of them.
  void signalAll(int number) {
    for (std::thread& thread : threads) {
      pthread_kill(thread.native_handle(), number);
    }
  }

  /// Stops and joins them; false when one does not end.
  bool stopAll() {
    stop = 1;
    // Repeats the broadcast: a worker that does not wait yet misses it.
    const bool haveEnded = waitUntil([&] {
      queue.wakeAll();
      return ended == static_cast<int>(threads.size());
    });
    for (std::thread& thread : threads) {
      haveEnded ? thread.join() : thread.detach();
    }
    return haveEnded;
  }

  std::atomic<int> waiting = 0;
  std::atomic<int> sum = 0;
  std::atomic<int> taken = 0;

 private:
  void work() {
    while (stop == 0) {
      ++waiting;
      queue.waitForTask(stop);
      try {
        sum += queue.pop();
        ++taken;
      } catch (const EmptyQueueException&) {
        // Another worker was faster, or the workers are being stopped.
      }
    }
    ++ended;
  }

  ExecuteQueue<int>& queue;
  std::atomic<int> stop = 0;
  std::atomic<int> ended = 0;
  std::vector<std::thread> threads;
};

// The handler's broadcast reaches the worker that has been waiting longest.
TEST(ExecuteQueueTest, ToleratesTheHandlerForAWaitingWorker) {
  static ExecuteQueue<int>* signalled = nullptr;
  static std::atomic<int> handled = 0;
  ExecuteQueue<int> queue;
  signalled = &queue;
  void (*previous)(int) = std::signal(SIGTERM, [](int) {
    signalled->wakeAll();
    ++handled;
  });
  Workers workers(queue, 3);
  ASSERT_TRUE(waitUntil([&] { return workers.waiting == 3; }));
  queue.push(1);
  ASSERT_TRUE(waitUntil([&] { return workers.waiting == 4; }));

  workers.signalAll(SIGTERM);
  for (int i = 0; i < 100; ++i) {
    queue.push(i);  // each worker wakes up at some time, and the handler runs then
  }

  EXPECT_TRUE(waitUntil([&] { return workers.taken == 101; }));
  EXPECT_TRUE(workers.stopAll());
  EXPECT_EQ(handled, 3);
  std::signal(SIGTERM, previous);
}

TEST(ExecuteQueueTest, GivesOneOfTwoWaitingWorkersTheElement) {
  ExecuteQueue<int> queue;
  Workers workers(queue, 2);
  ASSERT_TRUE(waitUntil([&] { return workers.waiting >= 2; }));

  queue.push(1);

  EXPECT_TRUE(waitUntil([&] { return workers.taken == 1; }));
  ASSERT_TRUE(workers.stopAll());
  EXPECT_EQ(workers.taken, 1);
}

/// A stop flag that counts how often it was read: before a wait, and after each wake-up without an
/// element.
class CountingFlag {
 public:
  bool operator==(int value) const {
    ++looks;
    return stop == value;
  }

  std::atomic<int> stop = 0;
  mutable std::atomic<int> looks = 0;
};

TEST(ExecuteQueueTest, ReleasesEveryWaitingWorkerWhenTheFlagIsSet) {
  ExecuteQueue<int> queue;
  CountingFlag flag;
  std::atomic<int> released = 0;
  std::vector<std::thread> workers;
  for (int i = 0; i < 4; ++i) {
    workers.emplace_back([&] {
      queue.waitForTask(flag);
      ++released;
    });
  }
  ASSERT_TRUE(waitUntil([&] { return flag.looks == 4; }));
  EXPECT_EQ(released, 0);

  flag.stop = 1;
  EXPECT_TRUE(waitUntil([&] {
    queue.wakeAll();
    return released == 4;
  }));
  for (std::thread& worker : workers) {
    worker.join();
  }
}

TEST(ExecuteQueueTest, KeepsWaitingAfterABroadcastWithoutAReason) {
  ExecuteQueue<int> queue;
  CountingFlag flag;
  std::atomic<bool> isReleased = false;
  std::thread worker([&] {
    queue.waitForTask(flag);
    isReleased = true;
  });
  EXPECT_TRUE(waitUntil([&] {
    queue.wakeAll();
    return flag.looks >= 3;
  }));
  EXPECT_FALSE(isReleased);

  queue.push(1);
  EXPECT_TRUE(waitUntil([&] { return isReleased.load(); }));
  worker.join();
}

TEST(ExecuteQueueTest, ReleasesItsElementsWhenCleared) {
  ExecuteQueue<std::shared_ptr<int>> queue;
  const auto element = std::make_shared<int>(1);
  queue.push(element);
  queue.push(element);

  queue.clear();

  EXPECT_EQ(element.use_count(), 1);
  EXPECT_THROW(queue.pop(), EmptyQueueException);
}

TEST(ExecuteQueueTest, ReleasesTheOldestFirstWhenCleared) {
  std::vector<int> released;
  ExecuteQueue<std::shared_ptr<int>> queue;
  for (const int value : {3, 1, 2}) {
    queue.push({new int(value), [&released](const int* element) {
                  released.push_back(*element);
                  delete element;
                }});
  }

  queue.clear();

  EXPECT_EQ(released, (std::vector<int>{3, 1, 2}));
}

TEST(ExecuteQueueTest, ReleasesItsElementsWhenDestroyed) {
  const auto element = std::make_shared<int>(1);
  {
    ExecuteQueue<std::shared_ptr<int>> queue;
    queue.push(element);
    EXPECT_EQ(element.use_count(), 2);
  }

  EXPECT_EQ(element.use_count(), 1);
  EXPECT_TRUE(std::has_virtual_destructor_v<ExecuteQueue<int>>);
}

TEST(ExecuteQueueTest, YieldsEachElementToOneWorkerOnly) {
  constexpr int kElements = 2000;
  ExecuteQueue<int> queue;
  Workers workers(queue, 4);
  for (int i = 1; i <= kElements; ++i) {
    queue.push(i);
  }

  EXPECT_TRUE(waitUntil([&] { return workers.taken == kElements; }));
  ASSERT_TRUE(workers.stopAll());
  EXPECT_EQ(workers.taken, kElements);
  EXPECT_EQ(workers.sum, kElements * (kElements + 1) / 2);
}

}  // namespace
