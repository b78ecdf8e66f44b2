#include "web/pool.h"

#include <chrono>
#include <future>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ctl/failure.h"
#include "ctl/session/session.h"
#include "tests/support/Database.h"
#include "tests/support/waitUntil.h"

namespace {

class PoolTest : public testing::Test {
 protected:
  static Options optionsOf(const Database& database) {
    Options options;
    options.connection = "host=" + database.host() + " port=" + std::to_string(database.port()) +
                         " dbname=" + database.name() +
                         " user=kodu password=" + database.password();
    options.statementTimeout = 10;
    options.lockTimeout = 1;
    return options;
  }
  void runAs(const std::string& role) {
    pool.run(role, Access::kRead, [](Session&) {});
  }

  Database database;
  Pool pool{optionsOf(database), 1};
};

TEST_F(PoolTest, RefusesARoleThatItMayNotTake) {
  EXPECT_NO_THROW(runAs("none"));
  EXPECT_THROW(runAs("postgres"), RoleRefused);
  EXPECT_THROW(runAs("kodu_missing"), RoleRefused);
  EXPECT_NO_THROW(runAs("none"));
}

TEST_F(PoolTest, LetsOnlyAFewWait) {
  std::promise<void> begun;
  auto slow = std::async(std::launch::async, [&] {
    pool.run("none", Access::kRead, [&](Session& session) {
      begun.set_value();
      session.query("SELECT pg_sleep(8)");  // the others wait for five seconds
    });
  });
  begun.get_future().wait();
  std::vector<std::future<std::chrono::steady_clock::duration>> others;
  for (std::size_t i = 0; i <= Pool::kMostWaiting; ++i) {
    others.push_back(std::async(std::launch::async, [&] {
      const auto start = std::chrono::steady_clock::now();
      EXPECT_THROW(runAs("none"), Failure);
      return std::chrono::steady_clock::now() - start;
    }));
  }
  int atOnce = 0;
  for (auto& other : others) {
    atOnce += other.get() < std::chrono::seconds(2) ? 1 : 0;
  }
  EXPECT_EQ(atOnce, 1) << "the one too many";
  slow.get();
}

}  // namespace
