#include "ctl/declared/planOutput.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl/declared/plan.h"
#include "tests/support/FakeTerminal.h"
#include "tests/support/Variable.h"
#include "tests/support/outputOf.h"

namespace {

using testing::HasSubstr;
using testing::Not;

Change changeOf(Change::Kind kind, const std::string& key, int id) {
  Change change;
  change.kind = kind;
  change.key = key;
  change.id = id;
  change.name = "name of " + key;
  return change;
}

/// A plan with a change of each kind.
Plan planOfEach() {
  Plan plan;
  plan.set = "web";
  plan.unchanged = 4;
  plan.changes = {changeOf(Change::Kind::kAdd, "new", 0), changeOf(Change::Kind::kChange, "old", 2),
                  changeOf(Change::Kind::kDelete, "gone", 3)};
  plan.changes[0].settings = {{"plugin", std::nullopt, "/p"}, {"every", std::nullopt, "5m"}};
  plan.changes[1].settings = {{"every", "5m", "6m"}, {"name", "x", std::nullopt}};
  return plan;
}

std::string changesOf(const Plan& plan) {
  return outputOf([&] { printChanges(plan); });
}
std::string summaryOf(const Plan& plan, bool isApplied) {
  return outputOf([&] { printSummary(plan, isApplied); });
}

TEST(PlanOutputTest, ShowsOldAndNewSettingsOfEachTask) {
  EXPECT_EQ(changesOf(planOfEach()),
            "+ new\n"
            "    plugin       /p\n"
            "    every        5m\n"
            "~ old  task 2 (name of old)\n"
            "    every        5m -> 6m\n"
            "    name         x -> (default)\n"
            "- gone  task 3 (name of gone)\n");
}

TEST(PlanOutputTest, NamesTheTaskOnceItIsAdded) {
  Plan plan;
  plan.changes = {changeOf(Change::Kind::kAdd, "new", 9)};
  EXPECT_EQ(changesOf(plan), "+ new  task 9 (name of new)\n");
}

TEST(PlanOutputTest, HasColoursOnATerminalOnly) {
  const Variable type("TERM", "xterm");
  const Variable colours("NO_COLOR", nullptr);
  FakeTerminal terminal(24, 100);
  printChanges(planOfEach());
  const std::string shown = terminal.finish();
  EXPECT_THAT(shown, HasSubstr("\x1b[32m+\x1b[0m new"));
  EXPECT_THAT(shown, HasSubstr("\x1b[33m~\x1b[0m old"));
  EXPECT_THAT(shown, HasSubstr("\x1b[31m-\x1b[0m gone"));
  EXPECT_THAT(changesOf(planOfEach()), Not(HasSubstr("\x1b")));
}

TEST(PlanOutputTest, CutsALongValueAndKeepsItOnOneLine) {
  Plan plan;
  plan.changes = {changeOf(Change::Kind::kChange, "k", 1)};
  plan.changes[0].name = "a\x1b[2Jb\nc";
  plan.changes[0].settings = {{"arguments", std::string(200, 'x'), std::string(201, 'y')},
                              {"name", "two\nlines", "bell\x07"}};
  EXPECT_EQ(changesOf(plan), "~ k  task 1 (a?[2Jb c)\n    arguments    " + std::string(200, 'x') +
                                 " -> " + std::string(200, 'y') +
                                 "...\n    name         two lines -> bell?\n");
}

TEST(PlanOutputTest, SumsUpWhatWasAndWhatWouldBeDone) {
  EXPECT_EQ(summaryOf(planOfEach(), true), "1 task added, 1 changed, 1 deleted, 4 unchanged\n");
  EXPECT_EQ(summaryOf(planOfEach(), false),
            "1 task to be added, 1 changed, 1 deleted, 4 unchanged\nNothing has been changed.\n");
  EXPECT_EQ(summaryOf(Plan(), false), "0 tasks to be added, 0 changed, 0 deleted, 0 unchanged\n");
}

TEST(PlanOutputTest, CountsTasksThatAreNoLongerDeclared) {
  Plan plan;
  plan.set = "web";
  plan.undeclared = 1;
  EXPECT_THAT(summaryOf(plan, true),
              HasSubstr("\n1 task of the set web is not declared; --prune deletes it\n"));
  plan.undeclared = 2;
  EXPECT_THAT(summaryOf(plan, true),
              HasSubstr("\n2 tasks of the set web are not declared; --prune deletes them\n"));
}

TEST(PlanOutputTest, SaysTheSameAsJson) {
  const Json::Value json = toJson(planOfEach(), false);
  EXPECT_FALSE(json["applied"].asBool());
  EXPECT_EQ(json["set"].asString(), "web");
  EXPECT_EQ(json["added"].asInt(), 1);
  EXPECT_EQ(json["changed"].asInt(), 1);
  EXPECT_EQ(json["deleted"].asInt(), 1);
  EXPECT_EQ(json["unchanged"].asInt(), 4);
  ASSERT_EQ(json["changes"].size(), 3U);
  EXPECT_EQ(json["changes"][0]["action"].asString(), "add");
  EXPECT_TRUE(json["changes"][0]["id"].isNull()) << "it has none yet";
  EXPECT_TRUE(json["changes"][0]["settings"]["every"]["old"].isNull());
  EXPECT_EQ(json["changes"][1]["action"].asString(), "change");
  EXPECT_EQ(json["changes"][1]["settings"]["every"]["old"].asString(), "5m");
  EXPECT_EQ(json["changes"][1]["settings"]["every"]["new"].asString(), "6m");
  EXPECT_TRUE(json["changes"][1]["settings"]["name"]["new"].isNull());
  EXPECT_EQ(json["changes"][2]["action"].asString(), "delete");
  EXPECT_EQ(json["changes"][2]["id"].asInt(), 3);
  EXPECT_TRUE(json["changes"][2]["settings"].isObject());
}

TEST(PlanOutputTest, HasNoSetAndNoChangesInJsonWhereThereAreNone) {
  const Json::Value json = toJson(Plan(), true);
  EXPECT_TRUE(json["applied"].asBool());
  EXPECT_TRUE(json["set"].isNull());
  EXPECT_TRUE(json["changes"].isArray());
  EXPECT_EQ(json["changes"].size(), 0U);
}

}  // namespace
