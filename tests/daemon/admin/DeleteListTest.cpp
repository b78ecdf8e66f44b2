#include "admin/DeleteList.h"

#include <limits>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

namespace {

TEST(DeleteListTest, KeepsDuplicates) {
  DeleteList list;
  list.push(5);
  list.push(5);

  EXPECT_TRUE(list.erase(5));

  EXPECT_EQ(list.size(), 1);
  EXPECT_TRUE(list.find(5));
}

TEST(DeleteListTest, TellsWhetherItContainsAnId) {
  DeleteList list;
  EXPECT_TRUE(list.empty());
  EXPECT_EQ(list.size(), 0);
  EXPECT_FALSE(list.find(7));
  EXPECT_FALSE(list.erase(7));

  list.push(std::numeric_limits<unsigned long long>::max());

  EXPECT_FALSE(list.empty());
  EXPECT_TRUE(list.find(std::numeric_limits<unsigned long long>::max()));
  EXPECT_FALSE(list.erase(7));
  EXPECT_EQ(list.size(), 1);
}

TEST(DeleteListTest, ErasesTheFirstOfEqualIds) {
  DeleteList list;
  for (const unsigned long long id : {3ULL, 7ULL, 3ULL}) {
    list.push(id);
  }
  EXPECT_TRUE(list.erase(3));

  testing::internal::CaptureStdout();
  list.show();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), " 7 3\n");
}

TEST(DeleteListTest, ShowsItsIdsInTheOrderOfTheirInsertion) {
  DeleteList list;
  list.push(3);
  list.push(7);

  testing::internal::CaptureStdout();
  list.show();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), " 3 7\n");
}

TEST(DeleteListTest, ShowsAnEmptyListAsAnEmptyLine) {
  testing::internal::CaptureStdout();
  DeleteList().show();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "\n");
}

TEST(DeleteListTest, LosesNothingBetweenThreads) {
  DeleteList list;
  std::vector<std::thread> threads;
  for (unsigned long long id = 0; id < 4; ++id) {
    threads.emplace_back([&list, id] {
      for (int i = 0; i < 500; ++i) {
        list.push(id);
        list.push(id);
        list.erase(id);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }

  EXPECT_EQ(list.size(), 2000);
  EXPECT_TRUE(std::has_virtual_destructor_v<DeleteList>);
}

}  // namespace
