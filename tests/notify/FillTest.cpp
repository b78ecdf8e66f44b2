#include "notify/fill.h"

#include <gtest/gtest.h>

namespace {

Event eventNamed(const std::string& name) {
  Event event;
  event.fields["name"] = name;
  event.fields["task"] = 7;
  event.fields["reason"] = Json::Value();
  return event;
}

TEST(FillTest, ReplacesFields) {
  EXPECT_EQ(filled("{task}: {name}{reason}!", eventNamed("web")), "7: web!");
  EXPECT_EQ(filled("{name}", eventNamed("{task}")), "{task}") << "a value is not a template";
}

TEST(FillTest, LeavesOtherBracesAlone) {
  const std::string text = R"({"a": {"b": "{}"}} { name } {name)";
  EXPECT_EQ(filled(text, eventNamed("web")), text);
}

TEST(FillTest, EscapesForJson) {
  EXPECT_EQ(filledAsJson(R"({"text": "{name} {task}"})", eventNamed("a\"b\\c\n1")),
            R"({"text": "a\"b\\c\n1 7"})");
}

TEST(FillTest, FindsUnknownPlaceholders) {
  EXPECT_EQ(unknownPlaceholder("{name} {nothing} {x}"), "nothing");
  EXPECT_EQ(unknownPlaceholder(R"({"a": "{name}"})"), "");
  for (const std::string& name : placeholders()) {
    EXPECT_EQ(unknownPlaceholder("{" + name + "}"), "");
  }
}

}  // namespace
