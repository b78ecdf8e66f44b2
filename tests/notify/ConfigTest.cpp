#include "notify/config.h"

#include <filesystem>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/Files.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class NotifyConfigTest : public testing::Test {
 protected:
  NotifyConfig read(const std::string& text) const {
    writeFile(path, text);
    return readNotifyConfig(path);
  }
  std::string refusalOf(const std::string& text) const {
    try {
      read(text);
    } catch (const ConfigError& e) {
      return e.what();
    }
    return "";
  }

  const TempDir directory;
  const std::string path = directory / "notify.yaml";
};

TEST_F(NotifyConfigTest, ReadsACommand) {
  const NotifyConfig config = read(
      "database: dbname=kodu\nreader: pager\nevents: [failed, recovered]\n"
      "command: [/bin/echo, \"{task}\", -x]\ntries: 3\nwait: 0.5\nlongest_wait: 60\ntimeout: 2\n");
  EXPECT_EQ(config.database, "dbname=kodu");
  EXPECT_EQ(config.reader, "pager");
  EXPECT_THAT(config.events, ElementsAre("failed", "recovered"));
  EXPECT_THAT(config.command, ElementsAre("/bin/echo", "{task}", "-x"));
  EXPECT_EQ(config.tries, 3);
  EXPECT_EQ(config.wait.count(), 500);
  EXPECT_EQ(config.longestWait.count(), 60000);
  EXPECT_EQ(config.timeout.count(), 2000);
  EXPECT_EQ(config.batch, 1);
}

TEST_F(NotifyConfigTest, HasDefaults) {
  const NotifyConfig config = read("database: dbname=kodu\nreader: r\nhttp: https://a/b\n");
  EXPECT_EQ(config.events.size(), 4U);
  EXPECT_EQ(config.batch, 50);
  EXPECT_EQ(config.tries, 10);
  EXPECT_EQ(read("database: d\nreader: r\nhttp: http://a\nbody: '{name}'\n").batch, 1);
}

TEST_F(NotifyConfigTest, SaysWhereAMistakeIs) {
  const std::string start = "database: dbname=kodu\nreader: r\n";
  for (const auto& [line, said] : std::vector<std::pair<std::string, std::string>>{
           {"nothing: 1", ":3: unknown key nothing"},
           {"reader: two words", ":3: reader needs one word"},
           {"events: [failed, broken]", ":3: there is no event broken"},
           {"events: []", ":3: events needs a list"},
           {"command: echo", ":3: command needs a list that begins with a path"},
           {"command: [echo]", ":3: command needs a list that begins with a path"},
           {"command: [\"/bin/{name}\"]", ":3: command needs a list that begins with a path"},
           {"command: [/bin/echo, \"{nothing}\"]", ":3: command: there is no {nothing}"},
           {"http: ftp://a", ":3: http needs a URL"},
           {"http: http://a\nbody: '{nothing}'", ":4: body: there is no {nothing}"},
           {"tries: 0", ":3: tries needs a number from 1 to 1000"},
           {"wait: soon", ":3: wait needs a number from 0.01 to 3600"},
           {"batch: 1.0e9", ":3: batch needs a number from 1 to 1000"},
           {"http: [", ":4: "},
           {"http: http://a\ncommand: [/bin/echo]", ": write either command or http"},
           {"tries: 1", ": write either command or http"},
           {"command: [/bin/echo]\nheader_file: x", ": header_file and body belong to http"}}) {
    EXPECT_THAT(refusalOf(start + line + "\n"), HasSubstr(path + said)) << line;
  }
  EXPECT_THAT(refusalOf("reader: r\nhttp: http://a\n"), HasSubstr("database is missing"));
  EXPECT_THAT(refusalOf("database: d\nhttp: http://a\n"), HasSubstr("reader is missing"));
  EXPECT_THAT(refusalOf("- a\n"), HasSubstr("write a key in each line"));
  std::filesystem::remove(path);
  EXPECT_THROW(readNotifyConfig(path), ConfigError);
}

TEST_F(NotifyConfigTest, FindsFilesThatDoNotExist) {
  NotifyConfig config;
  config.command = {directory / "none"};
  EXPECT_THROW(checkFiles(config), ConfigError);
  config.command = {"/bin/true"};
  EXPECT_NO_THROW(checkFiles(config));
  config.headerFile = directory / "none";
  EXPECT_THROW(checkFiles(config), ConfigError);
}

}  // namespace
