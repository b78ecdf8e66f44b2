#include "ctl/command/hostPlan.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;

/// Open hosts, and tasks of which each is given as its host and its weight.
HostPlan makePlan(std::size_t hosts, const std::vector<std::pair<std::size_t, double>>& tasks) {
  HostPlan plan;
  for (std::size_t i = 0; i < hosts; ++i) {
    plan.hosts.push_back({std::string(1, static_cast<char>('a' + i)), true});
  }
  for (const auto& [host, weight] : tasks) {
    plan.tasks.push_back({static_cast<int>(plan.tasks.size()), host, weight, weight});
    plan.targets.push_back(host);
    HostLoad& load = plan.hosts[host].now;
    ++load.tasks;
    load.runs += weight;
    load.weight += weight;
  }
  for (PlannedHost& host : plan.hosts) {
    host.then = host.now;
  }
  return plan;
}

TEST(HostPlanTest, MovesAsLittleAsMakesHostsEven) {
  HostPlan plan = makePlan(2, {{0, 4}, {0, 1}, {0, 1}, {1, 2}});
  evenOut(plan);
  EXPECT_EQ(plan.moves(), 2);
  EXPECT_THAT(plan.targets, ElementsAre(0U, 1U, 1U, 1U));
  EXPECT_DOUBLE_EQ(plan.hosts[0].then.weight, 4);
  EXPECT_DOUBLE_EQ(plan.hosts[1].then.weight, 4);
  EXPECT_EQ(plan.hosts[1].then.tasks, 3);
}

TEST(HostPlanTest, LeavesHostsThatAreEven) {
  HostPlan plan = makePlan(2, {{0, 1}, {1, 1.01}, {0, 0}});
  evenOut(plan);
  EXPECT_EQ(plan.moves(), 0);
}

TEST(HostPlanTest, DoesNotTurnTheImbalanceAround) {
  HostPlan plan = makePlan(2, {{0, 10}});
  evenOut(plan);
  EXPECT_EQ(plan.moves(), 0);
}

TEST(HostPlanTest, SpreadsManyEqualTasks) {
  HostPlan plan = makePlan(3, std::vector<std::pair<std::size_t, double>>(300, {0, 0.1}));
  evenOut(plan);
  EXPECT_NEAR(static_cast<double>(plan.hosts[0].then.tasks), 100, 3);
  EXPECT_NEAR(static_cast<double>(plan.hosts[1].then.tasks), 100, 3);
  EXPECT_NEAR(static_cast<double>(plan.hosts[2].then.tasks), 100, 3);
}

TEST(HostPlanTest, EmptiesAHostAndItsPausedTasksToo) {
  HostPlan plan = makePlan(3, {{0, 3}, {0, 0}, {0, 0}, {1, 3}});
  empty(plan, 0);
  EXPECT_EQ(plan.hosts[0].then.tasks, 0);
  EXPECT_THAT(plan.targets, ElementsAre(2U, 1U, 2U, 1U));
}

TEST(HostPlanTest, GivesNothingToAHostThatIsNotOpen) {
  HostPlan plan = makePlan(3, {{0, 3}, {0, 3}});
  plan.hosts[1].isOpen = false;
  evenOut(plan);
  EXPECT_THAT(plan.targets, ElementsAre(2U, 0U));
  plan.hosts[2].isOpen = false;
  empty(plan, 0);
  EXPECT_EQ(plan.hosts[0].then.tasks, 1);
}

}  // namespace
