#include "web/webSessions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;

constexpr WebSessions::Time kNow{std::chrono::hours(100)};
constexpr std::chrono::seconds kSecond{1};

TEST(WebSessionsTest, KnowsACookie) {
  WebSessions sessions;
  const auto alice = sessions.begin("alice", true, kNow);
  const auto bob = sessions.begin("bob", false, kNow);
  EXPECT_NE(alice.cookie, bob.cookie);
  EXPECT_NE(alice.session.token, bob.session.token);
  EXPECT_NE(alice.cookie, alice.session.token);
  EXPECT_EQ(alice.cookie.size(), 64U) << "256 bits";
  const auto found = sessions.use(alice.cookie, kNow);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->role, "alice");
  EXPECT_TRUE(found->mayChange);
  EXPECT_FALSE(sessions.use(alice.session.id, kNow)) << "the digest is no cookie";
  EXPECT_FALSE(sessions.use("", kNow));
  sessions.end(alice.session.id);
  EXPECT_FALSE(sessions.use(alice.cookie, kNow));
  EXPECT_TRUE(sessions.use(bob.cookie, kNow));
}

TEST(WebSessionsTest, EndsAfterEightIdleHours) {
  WebSessions sessions;
  const auto begun = sessions.begin("alice", true, kNow);
  const auto last = kNow + WebSessions::kIdle - kSecond;
  EXPECT_TRUE(sessions.use(begun.cookie, last));
  EXPECT_TRUE(sessions.use(begun.cookie, last + WebSessions::kIdle - kSecond));
  EXPECT_FALSE(sessions.use(begun.cookie, last + 2 * WebSessions::kIdle));
  EXPECT_EQ(sessions.count(), 0U);
}

TEST(WebSessionsTest, EndsAfterADayInUse) {
  WebSessions sessions;
  const auto begun = sessions.begin("alice", true, kNow);
  for (auto now = kNow; now < kNow + WebSessions::kLongest; now += std::chrono::hours(7)) {
    EXPECT_TRUE(sessions.use(begun.cookie, now));
  }
  EXPECT_THAT(sessions.endOld(kNow + WebSessions::kLongest - kSecond), ElementsAre());
  EXPECT_THAT(sessions.endOld(kNow + WebSessions::kLongest), ElementsAre(begun.session.id));
}

TEST(WebSessionsTest, EndsThoseOfARole) {
  WebSessions sessions;
  const auto alice = sessions.begin("alice", true, kNow);
  const auto bob = sessions.begin("bob", true, kNow);
  EXPECT_THAT(sessions.roles(), ElementsAre("alice", "bob"));
  sessions.setMayChange("bob", false);
  EXPECT_FALSE(sessions.use(bob.cookie, kNow)->mayChange);
  EXPECT_TRUE(sessions.use(alice.cookie, kNow)->mayChange);
  EXPECT_THAT(sessions.endOf("alice"), ElementsAre(alice.session.id));
  EXPECT_FALSE(sessions.use(alice.cookie, kNow));
}

TEST(WebSessionsTest, KeepsABoundedNumberOfARole) {
  WebSessions sessions;
  const auto other = sessions.begin("bob", true, kNow);
  const auto first = sessions.begin("alice", true, kNow + kSecond);
  for (std::size_t i = 0; i < WebSessions::kMostOfRole; ++i) {
    sessions.begin("alice", true, kNow + 2 * kSecond);
  }
  EXPECT_EQ(sessions.count(), WebSessions::kMostOfRole + 1);
  EXPECT_FALSE(sessions.use(first.cookie, kNow + 3 * kSecond));
  EXPECT_TRUE(sessions.use(other.cookie, kNow + 3 * kSecond));
}

}  // namespace
