#include "web/failedLogins.h"

#include <malloc.h>

#include <string>

#include <gtest/gtest.h>

namespace {

constexpr FailedLogins::Time kNow{std::chrono::hours(1)};
constexpr std::chrono::seconds kLater{59};

TEST(FailedLoginsTest, LetsFiveOfAPairFailInAMinute) {
  FailedLogins logins;
  for (int i = 0; i < 5; ++i) {
    EXPECT_TRUE(logins.begin("10.0.0.1", "alice", kNow + std::chrono::seconds(i)));
  }
  EXPECT_FALSE(logins.begin("10.0.0.1", "alice", kNow + kLater));
  EXPECT_TRUE(logins.begin("10.0.0.1", "bob", kNow + kLater));
  EXPECT_TRUE(logins.begin("10.0.0.2", "alice", kNow + kLater));
  EXPECT_TRUE(logins.begin("10.0.0.1", "alice", kNow + std::chrono::minutes(1)));
  EXPECT_FALSE(logins.begin("10.0.0.1", "alice", kNow + std::chrono::minutes(1)));
}

TEST(FailedLoginsTest, DoesNotCountSuccess) {
  FailedLogins logins;
  for (int i = 0; i < 100; ++i) {
    EXPECT_TRUE(logins.begin("10.0.0.1", "alice", kNow));
    logins.succeed("10.0.0.1", "alice");
  }
}

TEST(FailedLoginsTest, LimitsAnAddressThatTriesManyRoles) {
  FailedLogins logins;
  for (int i = 0; i < 50; ++i) {
    EXPECT_TRUE(logins.begin("10.0.0.1", "role" + std::to_string(i), kNow));
  }
  EXPECT_FALSE(logins.begin("10.0.0.1", "alice", kNow));
}

TEST(FailedLoginsTest, KeepsABoundedNumber) {
  FailedLogins logins;
  const auto addressOf = [](int i) {
    return "10.1." + std::to_string(i / 256) + "." + std::to_string(i % 256);
  };
  const auto half = static_cast<int>(FailedLogins::kMostKept / 2);
  for (int i = 0; i < half; ++i) {
    EXPECT_TRUE(logins.begin(addressOf(i), "alice", kNow));
  }
  EXPECT_FALSE(logins.begin(addressOf(half), "alice", kNow));
  EXPECT_TRUE(logins.begin(addressOf(half), "alice", kNow + std::chrono::minutes(1)));
}

TEST(FailedLoginsTest, KeepsNoLongNames) {
  FailedLogins logins;
  const auto used = [] { return mallinfo2().uordblks + mallinfo2().hblkhd; };
  const std::size_t before = used();
  for (int i = 0; i < 50; ++i) {
    logins.begin("10.0.0.1", std::to_string(i) + std::string(1000000, 'x'), kNow);
  }
  EXPECT_LT(used(), before + 1000000);
}

TEST(FailedLoginsTest, TakesANetworkOfIpv6AsOne) {
  EXPECT_EQ(networkOf("2001:db8:1:2:3:4:5:6"), "2001:db8:1:2::");
  EXPECT_EQ(networkOf("10.0.0.1"), "10.0.0.1");
  EXPECT_EQ(networkOf("nonsense"), "nonsense");
}

}  // namespace
