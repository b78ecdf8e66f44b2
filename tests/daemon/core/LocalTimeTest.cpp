#include "core/localTime.h"

#include <cstdlib>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/Files.h"
#include "tests/support/FixedClock.h"
#include "tests/support/Heap.h"
#include "tests/support/Mount.h"
#include "tests/support/ZoneFile.h"

namespace {

std::string text(std::time_t seconds) {
  const std::tm parts = calendarTime(seconds);
  std::array<char, 64> line{};
  std::strftime(line.data(), line.size(), "%a %Y-%m-%d %H:%M:%S", &parts);
  return line.data();
}

TEST(CalendarTimeTest, IsUtcWithoutAnOffset) {
  EXPECT_EQ(text(0), "Thu 1970-01-01 00:00:00");
  EXPECT_EQ(text(kMayDay), "Wed 2024-05-01 13:02:09");
  EXPECT_EQ(text(-1), "Wed 1969-12-31 23:59:59");
}

TEST(CalendarTimeTest, KnowsLeapYears) {
  EXPECT_EQ(text(1709251199), "Thu 2024-02-29 23:59:59");
  EXPECT_EQ(text(1709251200), "Fri 2024-03-01 00:00:00");
  EXPECT_EQ(text(4107542400), "Mon 2100-03-01 00:00:00");
}

class UtcOffsetTest : public testing::Test {
 protected:
  void SetUp() override { readZone(); }  // so that no two tests read the zone in the same second
  void TearDown() override { unsetenv("TZ"); }

  static void setZone(const char* zone) { setenv("TZ", zone, 1); }
};

TEST_F(UtcOffsetTest, IsPositiveEastOfGreenwich) {
  setZone("NPT-5:45");

  EXPECT_EQ(utcOffset(kMayDay), 5 * 3600 + 45 * 60);
  EXPECT_EQ(lastUtcOffset(), 5 * 3600 + 45 * 60);
}

TEST_F(UtcOffsetTest, FollowsDaylightSavingTimeToTheSecond) {
  setZone("CET-1CEST,M3.5.0,M10.5.0/3");
  constexpr std::time_t kSpring = 1711846800;

  EXPECT_EQ(utcOffset(kSpring - 1), 3600);
  EXPECT_EQ(utcOffset(kSpring), 7200);
  EXPECT_EQ(utcOffset(kSpring - 1), 3600);
}

TEST_F(UtcOffsetTest, ReadsTheZoneOnceASecond) {
  setZone("AAA-1");
  EXPECT_EQ(utcOffset(kMayDay), 3600);

  setZone("BBB-2");

  EXPECT_EQ(utcOffset(kMayDay), 3600);
  EXPECT_EQ(utcOffset(kMayDay + 1), 7200);
}

TEST_F(UtcOffsetTest, ReadsTheZoneAtOnceOnRequest) {
  setZone("AAA-1");
  EXPECT_EQ(utcOffset(kMayDay), 3600);

  setZone("BBB-2");
  readZone();

  EXPECT_EQ(lastUtcOffset(), 7200);
  EXPECT_EQ(utcOffset(kMayDay), 7200);
}

TEST_F(UtcOffsetTest, AllocatesNothingBetweenTwoReads) {
  readZone();
  const long before = heapRequests();

  lastUtcOffset();
  calendarTime(kMayDay);

  EXPECT_EQ(heapRequests(), before);
}

TEST_F(UtcOffsetTest, FollowsTheZoneFileInEveryThread) {
  const TempDir directory;
  ZoneFile zone(directory / "zone", 0);
  const Mount mount = Mount::file(zone.name(), "/etc/localtime");
  if (!mount.isMounted()) {
    GTEST_SKIP() << "only an administrator can replace /etc/localtime";
  }
  unsetenv("TZ");
  for (long hours = -8; hours <= 8; ++hours) {
    zone.set(static_cast<int>(hours));
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([=] {
        for (int second = 1; second <= 100; ++second) {
          EXPECT_EQ(utcOffset(kMayDay + hours * 1000 + second), hours * 3600);
        }
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
  }
}

}  // namespace
