#include "ctl/terminal/jsonList.h"

#include <cstdio>
#include <optional>
#include <sstream>
#include <string>

#include <gtest/gtest.h>
#include <json/json.h>

#include "ctl/task/task.h"
#include "ctl/terminal/text.h"

namespace {

/// What `print` writes to standard output.
template <typename Print>
std::string printed(const Print& print) {
  testing::internal::CaptureStdout();
  print();
  std::fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

Json::Value parsed(const std::string& text) {
  Json::Value value;
  std::istringstream stream(text);
  std::string errors;
  EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), stream, &value, &errors))
      << errors << text;
  return value;
}

Task taskNamed(const std::string& name) {
  Task task;
  task.id = 7;
  task.name = name;
  task.path = "/opt/check";
  task.fileName = "$SERVICEID_$DATE.txt";
  task.outputDirectory = "/var/out";
  task.next = 1714564800;
  task.every = 300;
  return task;
}

TEST(JsonTextTest, WritesMembersAsPrintJsonDoes) {
  JsonText text(0);
  text.begin();
  text.name("a");
  text.value("word");
  text.name("b");
  text.value(-5L);
  text.name("c");
  text.value(true);
  text.name("d");
  text.null();
  text.name("e");
  text.begin();
  text.name("f");
  text.value(false);
  text.end();
  text.end();
  Json::Value same;
  same["a"] = "word";
  same["b"] = -5;
  same["c"] = true;
  same["d"] = Json::Value();
  same["e"]["f"] = false;
  EXPECT_EQ(text.take() + "\n", printed([&] { printJson(same); }));
  EXPECT_EQ(text.take(), "");
}

TEST(JsonTextTest, EscapesWhatPrintJsonEscapes) {
  for (const std::string& hostile :
       {std::string(R"("quoted" \ back)"), std::string("line\nfeed\ttab"), std::string("\x1b[31m"),
        std::string("\u009b31m"), std::string("\xff\xfe"), std::string("ä€😀"),
        std::string("\u202e"), std::string("nul\0byte", 8), std::string()}) {
    JsonText text(0);
    text.value(hostile);
    EXPECT_EQ(text.take() + "\n", printed([&] { printJson(Json::Value(hostile)); }));
  }
}

TEST(JsonListTest, IsEmptyWithoutElements) {
  EXPECT_EQ(printed([] { JsonList().end(); }), "[]\n");
}

TEST(JsonListTest, SeparatesItsElements) {
  EXPECT_EQ(printed([] {
              JsonList list;
              list.add("1");
              list.add("\"two\"");
              list.end();
            }),
            "[\n  1,\n  \"two\"\n]\n");
}

TEST(TaskTextTest, SaysTheSameAsTheValue) {
  Task plain = taskNamed("load");
  Task paused = taskNamed("a \"b\" \x1b[31m");
  paused.pause = Pause{1714564801, std::nullopt, "alice", "new\ndisks"};
  paused.status = "OK";
  paused.retryDue = 1714564900;
  paused.isRunning = paused.isFlagged = paused.isLate = true;
  Task unknown = taskNamed("");
  unknown.pause = Pause{};
  unknown.next = unknown.every = std::nullopt;
  for (const Task& task : {plain, paused, unknown}) {
    const std::string list = printed([&] {
      JsonList tasks;
      tasks.add(toJsonText(task));
      tasks.end();
    });
    Json::Value same(Json::arrayValue);
    same.append(toJson(task));
    EXPECT_EQ(parsed(list), parsed(printed([&] { printJson(same); })));
  }
}

TEST(TaskTextTest, GivesTheMembersByName) {
  const std::string text = toJsonText(taskNamed("load"));
  const Json::Value json = parsed(text);
  std::size_t last = 0;
  for (const std::string& name : json.getMemberNames()) {  // sorted
    const std::size_t place = text.find("\"" + name + "\" : ");
    EXPECT_GT(place, last) << name;
    last = place;
  }
  EXPECT_EQ(json["due"].asString(), "2024-05-01T12:00:00Z");
  EXPECT_EQ(json["output_file"].asString(), "/var/out/7_last.txt");
  EXPECT_EQ(json["archive"].asString(), "/var/out/archive/7/");
  EXPECT_TRUE(json["status"].isNull());
}

TEST(GroupedTest, PutsACommaBetweenThousands) {
  EXPECT_EQ(grouped(0), "0");
  EXPECT_EQ(grouped(999), "999");
  EXPECT_EQ(grouped(1000), "1,000");
  EXPECT_EQ(grouped(999950), "999,950");
  EXPECT_EQ(grouped(1000000), "1,000,000");
}

}  // namespace
