#include "ctl/declared/declaration.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl/declared/plan.h"
#include "ctl/declared/sources.h"
#include "ctl/failure.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;
using testing::StartsWith;

std::string textOf(const Mistakes& mistakes) {
  try {
    mistakes.throwIfAny();
    return "";
  } catch (const Failure& e) {
    return e.what();
  }
}

std::string mistakesIn(const std::vector<Source>& sources) {
  Mistakes mistakes;
  readDeclaration(sources, mistakes);
  return textOf(mistakes);
}

/// The mistakes in the settings of one task, whose first is in line 3.
std::string mistakesInTask(const std::string& settings) {
  return mistakesIn({{"f", "tasks:\n  k:\n    plugin: /p\n    every: 5m\n    " + settings + "\n"}});
}

Definition definitionWith(const std::string& settings) {
  Mistakes mistakes;
  const Declaration declaration = readDeclaration(
      {{"f", "tasks:\n  k:\n    plugin: /p\n    every: 5m\n    " + settings + "\n"}}, mistakes);
  EXPECT_EQ(textOf(mistakes), "") << settings;
  return declaration.tasks.empty() ? Definition{} : declaration.tasks.front().definition;
}

TEST(DeclarationTest, ReadsTheTasksOfSeveralFilesAsOneSet) {
  Mistakes mistakes;
  const Declaration declaration = readDeclaration(
      {{"a", "set: web\ntasks:\n  one: {plugin: /p, every: 1m}\n"},
       {"b", "tasks:\n  two:\n    plugin: /q\n    every: 2m\n    arguments: [-w, \"5\", a b]\n"},
       {"c", "tasks: {}\nset: web\n"}},
      mistakes);
  EXPECT_EQ(textOf(mistakes), "");
  EXPECT_EQ(declaration.set, "web");
  ASSERT_EQ(declaration.tasks.size(), 2U);
  EXPECT_EQ(declaration.tasks[1].key, "two");
  EXPECT_EQ(declaration.tasks[1].place.file, "b");
  EXPECT_EQ(declaration.tasks[1].place.line, 2);
  EXPECT_EQ(declaration.tasks[1].placeOf("every").line, 4);
  EXPECT_EQ(declaration.tasks[1].placeOf("name").line, 2);
  EXPECT_THAT(
      declaration.tasks[1].definition,
      ElementsAre(Pair("arguments", "-w 5 \"a b\""), Pair("every", "2m"), Pair("plugin", "/q")));
}

TEST(DeclarationTest, TakesParametersAsTheyAre) {
  EXPECT_EQ(definitionWith("parameters: \"it's \\\"open\"").at("arguments"), "it's \"open");
  EXPECT_EQ(definitionWith("parameters: \"\"").count("arguments"), 0U);
  EXPECT_EQ(definitionWith("arguments: []").count("arguments"), 0U);
}

TEST(DeclarationTest, AcceptsEachSetting) {
  EXPECT_EQ(definitionWith("retries: 0").at("retries"), "0");
  EXPECT_EQ(definitionWith("retries: \"1000000\"").at("retries"), "1000000");
  EXPECT_EQ(definitionWith("paused: false").at("paused"), "false");
  EXPECT_EQ(definitionWith("first: 2026-12-01 08:00").at("first"), "2026-12-01 08:00");
  EXPECT_EQ(definitionWith("paused: true\n    until: 2034-01-01 08:00").at("until"),
            "2034-01-01 08:00");
  EXPECT_EQ(definitionWith("name: no").at("name"), "no");
  EXPECT_EQ(definitionWith("reason: \"\"").at("reason"), "");
}

TEST(DeclarationTest, NamesFileLineKeyAndSettingOfAMistake) {
  EXPECT_EQ(mistakesInTask("retries: 010"),
            "f:5: k: retries must be a number from 0 to 1000000, without leading zeros\n"
            "nothing was changed");
  for (const char* wrong : {"retries: -1", "retries: 0x10", "retries: 1.0", "retries: 1000001",
                            "retries: 99999999999999999999", "retries: \"\""}) {
    EXPECT_THAT(mistakesInTask(wrong), HasSubstr("retries must be a number")) << wrong;
  }
  for (const char* wrong : {"paused: yes", "paused: True", "paused: 1", "paused: \"\""}) {
    EXPECT_THAT(mistakesInTask(wrong), HasSubstr("paused must be true or false")) << wrong;
  }
  EXPECT_THAT(mistakesInTask("first: tomorrow"), HasSubstr("such as 2026-12-01 08:00"));
  EXPECT_THAT(mistakesInTask("until: 2h"), HasSubstr("until must be a time in UTC"));
  EXPECT_THAT(mistakesInTask("until: 2034-01-01 00:00"), HasSubstr("it needs paused: true"));
  for (const char* wrong : {"name:", "name: ~", "name: null", "name: [a]", "name: {a: b}"}) {
    EXPECT_THAT(mistakesInTask(wrong), StartsWith("f:5: k: name must be a text")) << wrong;
  }
}

TEST(DeclarationTest, RefusesArgumentsThatThePluginCannotGet) {
  for (const char* wrong : {"arguments: -w 5", "arguments: [[a]]", "arguments: [~]",
                            "arguments: {a: b}", "arguments:"}) {
    EXPECT_THAT(mistakesInTask(wrong), StartsWith("f:5: k: arguments must be a list")) << wrong;
  }
  EXPECT_THAT(mistakesInTask("arguments: [\"it's\"]"), HasSubstr("contains a quote"));
  EXPECT_THAT(mistakesInTask("arguments: [\"\"]"), HasSubstr("cannot get an empty argument"));
  EXPECT_THAT(mistakesInTask("parameters: [a]"), HasSubstr("parameters must be a text"));
  EXPECT_THAT(mistakesInTask("parameters: a\n    arguments: [b]"),
              StartsWith("f:6: k: arguments and parameters exclude each other"));
}

TEST(DeclarationTest, SuggestsTheSettingThatIsMeant) {
  EXPECT_THAT(mistakesInTask("retry_after: 5m"),
              StartsWith("f:5: k: there is no setting retry_after; did you mean retry-after?"));
  EXPECT_THAT(mistakesInTask("parameter: x"), HasSubstr("did you mean parameters?"));
  EXPECT_THAT(mistakesInTask("interval: 5m"), HasSubstr("; there are plugin, name, at, zone, "));
  EXPECT_THAT(mistakesIn({{"f", "task: {}\ntasks: {}\n"}}),
              StartsWith("f:1: there is no task here; did you mean tasks?"));
}

TEST(DeclarationTest, RefusesTasksThatLackWhatTheyNeed) {
  EXPECT_EQ(mistakesIn({{"f", "tasks:\n  k: {name: x}\n"}}),
            "f:2: k: plugin: is missing\nf:2: k: every: or at: is missing\nnothing was changed");
  EXPECT_THAT(mistakesIn({{"f", "tasks:\n  k:\n"}}), HasSubstr("f:2: k: settings are missing"));
  EXPECT_THAT(mistakesIn({{"f", "tasks: [a]\n"}}), HasSubstr("f:1: tasks must be a map"));
  EXPECT_THAT(mistakesIn({{"f", "tasks:\n"}}), HasSubstr("f:1: tasks must be a map"));
  EXPECT_THAT(mistakesIn({{"f", "- a\n"}}), HasSubstr("f:1: a map with tasks: is expected"));
  EXPECT_THAT(mistakesIn({{"f", "set: a\n"}}), HasSubstr("f: tasks: is missing"));
  EXPECT_THAT(mistakesIn({{"f", ""}}), HasSubstr("f: the file is empty"));
}

TEST(DeclarationTest, TakesOneWordForAKeyAndASet) {
  const std::string longest(200, 'k');
  EXPECT_EQ(mistakesIn({{"f", "set: a.b_c:d/e@f-9\ntasks:\n  " + longest +
                                  ": {plugin: /p, every: 1m}\n"}}),
            "");
  for (const std::string& wrong :
       {std::string("\"\""), std::string("a b"), std::string("-a"), std::string("\xc3\xa9"),
        longest + "k", '"' + std::string(3000000, 'k') + '"'}) {
    EXPECT_THAT(mistakesIn({{"f", "tasks: {? " + wrong + " : {plugin: /p, every: 1m}}\n"}}),
                HasSubstr("the key must be one word of at most 200 letters"));
    EXPECT_THAT(mistakesIn({{"f", "set: " + wrong + "\ntasks: {}\n"}}),
                HasSubstr("the name of the set must be one word"));
  }
}

TEST(DeclarationTest, RefusesAKeyInTwoFilesAndTwoSets) {
  EXPECT_THAT(mistakesIn({{"a", "tasks: {k: {plugin: /p, every: 1m}}"},
                          {"b", "tasks: {k: {plugin: /p, every: 1m}}"}}),
              StartsWith("b:1: k: the key stands in a already"));
  EXPECT_THAT(mistakesIn({{"a", "set: x\ntasks: {}"}, {"b", "tasks: {}\nset: y"}}),
              StartsWith("b:2: another file belongs to the set x"));
}

/// The plan for a stored task, "k" of every 5 minutes, and a declared one.
Plan planFor(const StoredTask& stored, const Definition& declared, const std::string& set = "",
             bool withDeletions = false) {
  Mistakes mistakes;
  Declaration declaration{set, {{"k", {"f", 1}, declared, {}}}};
  Plan plan = makePlan(declaration, {stored}, withDeletions, mistakes);
  EXPECT_EQ(textOf(mistakes), "");
  return plan;
}

StoredTask storedTask() {
  StoredTask task;
  task.id = 7;
  task.key = "k";
  task.definition = {{"plugin", "/p"}, {"every", "5m"}};
  task.now = 1000000;
  task.due = 1000100;  // 200 seconds after a multiple of 5 minutes
  return task;
}

TEST(DeclaredPlanTest, IsEmptyForEqualTasks) {
  const Plan plan = planFor(storedTask(), {{"plugin", "/p"}, {"every", "5m"}});
  EXPECT_TRUE(plan.changes.empty());
  EXPECT_EQ(plan.unchanged, 1);
}

TEST(DeclaredPlanTest, MovesATaskOnlyToAnotherRhythm) {
  const Definition present = {{"plugin", "/p"}, {"every", "5m"}, {"first", "1970-01-01 00:03:20"}};
  EXPECT_TRUE(planFor(storedTask(), present).changes.empty());
  Definition other = present;
  other["first"] = "2030-01-01 00:00:00";
  const Plan plan = planFor(storedTask(), other);
  ASSERT_EQ(plan.changes.size(), 1U);
  EXPECT_TRUE(plan.changes[0].isMoved);
  EXPECT_EQ(plan.changes[0].settings[0].before, "1970-01-01 00:03:20");
}

TEST(DeclaredPlanTest, LeavesThePauseOfATaskThatDoesNotMentionIt) {
  StoredTask paused = storedTask();
  paused.isPaused = true;
  Definition declared = {{"plugin", "/p"}, {"every", "5m"}, {"first", "1970-01-01 00:00:01"}};
  EXPECT_TRUE(planFor(paused, declared).changes.empty());
  declared["paused"] = "true";
  EXPECT_TRUE(planFor(paused, declared).changes.empty());
  declared["paused"] = "false";
  const Plan plan = planFor(paused, declared);
  ASSERT_EQ(plan.changes.size(), 1U);
  EXPECT_EQ(plan.changes[0].isPaused, false);
  EXPECT_TRUE(plan.changes[0].isMoved);
}

TEST(DeclaredPlanTest, TellsTheRhythmOfATask) {
  StoredTask task = storedTask();
  EXPECT_EQ(rhythmOf(task), "1970-01-01 00:03:20");
  task.due = task.now + 360;
  EXPECT_EQ(rhythmOf(task), "1970-01-01 00:02:40");
  task.due = task.now + 361;
  EXPECT_EQ(rhythmOf(task), "1970-01-12 13:52:41");
  task.definition["every"] = "2.5s";
  EXPECT_FALSE(rhythmOf(task));
  task.definition["every"] = "1 mon";
  EXPECT_FALSE(rhythmOf(task));
  task = storedTask();
  task.due.reset();
  EXPECT_FALSE(rhythmOf(task));
}

TEST(DeclaredPlanTest, DeletesOnlyWhatBelongsToTheSet) {
  StoredTask other = storedTask();
  other.key = "other";
  const Definition declared = {{"plugin", "/p"}, {"every", "5m"}};
  EXPECT_EQ(planFor(other, declared, "web", true).count(Change::Kind::kDelete), 0);
  other.set = "web";
  EXPECT_EQ(planFor(other, declared, "web", true).count(Change::Kind::kDelete), 1);
  EXPECT_EQ(planFor(other, declared, "", true).count(Change::Kind::kDelete), 0);
  const Plan kept = planFor(other, declared, "web");
  EXPECT_EQ(kept.count(Change::Kind::kDelete), 0);
  EXPECT_EQ(kept.undeclared, 1);
}

TEST(DeclaredPlanTest, RefusesAKeyOfAnotherSet) {
  StoredTask task = storedTask();
  task.set = "db";
  Mistakes mistakes;
  makePlan({"web", {{"k", {"f", 3}, {}, {}}}}, {task}, false, mistakes);
  EXPECT_THAT(textOf(mistakes), StartsWith("f:3: k: the key belongs to task 7 of the set db"));
}

}  // namespace
