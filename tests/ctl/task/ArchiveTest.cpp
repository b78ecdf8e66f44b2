#include "ctl/task/archive.h"

#include <sys/stat.h>

#include <memory>
#include <string>
#include <vector>

#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/session.h"
#include "ctl/task/task.h"
#include "tests/ctl/CtlTest.h"

namespace {

using testing::ElementsAre;
using testing::Eq;
using testing::IsEmpty;
using testing::Optional;

TEST(StaysBelowTest, RefusesNamesThatCanLeaveTheFolder) {
  for (const char* name :
       {"a", "a.txt", "7_2024.txt", ".hidden", "a/b", "a b", "\u00e9", "-", "a.", "~"}) {
    EXPECT_TRUE(staysBelow(name)) << name;
  }
  for (const char* name : {"", "/", "/etc/passwd", "..", "../x", "a/..", "a/../b", "a..b"}) {
    EXPECT_FALSE(staysBelow(name)) << name;
  }
}

class FirstLineTest : public testing::Test {
 protected:
  std::string firstLine(const std::string& content) const {
    writeFile(directory / "output", content);
    return firstLineOf(directory / "output");
  }
  TempDir directory;
};

TEST_F(FirstLineTest, EndsAtTheFirstNewline) {
  EXPECT_EQ(firstLine("one\ntwo\n"), "one");
  EXPECT_EQ(firstLine("one"), "one");
  EXPECT_EQ(firstLine(""), "");
  EXPECT_EQ(firstLine("\none"), "");
  EXPECT_EQ(firstLine("one\r\n"), "one\r");
}

TEST_F(FirstLineTest, HasAtMost240Bytes) {
  EXPECT_EQ(firstLine(std::string(240, 'x') + "\n").size(), 240U);
  EXPECT_EQ(firstLine(std::string(241, 'x')).size(), 240U);
  EXPECT_EQ(firstLine(std::string(1'000'000, 'x')).size(), 240U);
}

TEST_F(FirstLineTest, IsCutBetweenCharacters) {
  // Of two, three and four bytes.
  for (const std::string character : {"\u00e9", "\u65e5", "\U0001f600"}) {
    for (std::size_t inside = 0; inside <= character.size(); ++inside) {
      std::string text(240 - inside, 'x');
      const std::string begin = text;
      text.append(character).append(character);
      EXPECT_EQ(firstLine(text), inside == character.size() ? text.substr(0, 240) : begin)
          << character << " with " << inside << " bytes before the cut";
    }
  }
}

TEST_F(FirstLineTest, KeepsInvalidTextAtItsEnd) {
  for (const char* text : {"\xff\x80\x80\x80\x80", "\x80", "\x80\x80\x80\x80", "x\xc3\xa9\xa9"}) {
    EXPECT_EQ(firstLine(text), text);
  }
  EXPECT_EQ(firstLine("x\xc3"), "x") << "the first byte of a longer character";
}

TEST_F(FirstLineTest, IsEmptyForAFileThatCannotBeRead) {
  EXPECT_EQ(firstLineOf(directory / "missing"), "");
  EXPECT_EQ(firstLineOf(directory.path()), "");
  ASSERT_EQ(mkfifo((directory / "fifo").c_str(), 0666), 0);
  EXPECT_EQ(firstLineOf(directory / "fifo"), "");
}

TEST(ReadOutputTest, ReadsTheWholeFile) {
  const TempDir directory;
  const std::string content = std::string("a\0\xff", 3) + std::string(300'000, '\n');
  writeFile(directory / "output", content);
  EXPECT_EQ(readOutput(directory / "output"), content);
  EXPECT_THROW(readOutput(directory / "missing"), Failure);
}

/// The history of a task in the database, with copies in its archive folder.
class FailedRunsTest : public CtlTest {
 protected:
  void SetUp() override {
    CtlTest::SetUp();
    Options options;
    options.configFile = daemon.mainConfig();
    session = std::make_unique<Session>(options);
    database.insertTask(quietTask(7));
    task = readTask(*session, 7);
  }
  std::vector<std::string> names(int limit) const {
    std::vector<std::string> found;
    for (const FailedRun& run : readFailedRuns(*session, task, limit)) {
      found.push_back(run.name);
    }
    return found;
  }

  std::unique_ptr<Session> session;
  Task task;
};

TEST_F(FailedRunsTest, AreListedWithTheLatestFirst) {
  addFailure(7, 300, "c", "");
  addFailure(7, 100, "a", "");
  addFailure(7, 200, "b", "");
  EXPECT_THAT(names(10), ElementsAre("a", "b", "c"));
  EXPECT_THAT(names(2), ElementsAre("a", "b"));
  EXPECT_THAT(names(0), IsEmpty());
}

TEST_F(FailedRunsTest, AreListedByTheirNumbersWithinASecond) {
  database.query(
      "INSERT INTO kodu_cron_error (cron_id, cron_date, cron_logfile)"
      " VALUES (7, '2024-05-01', 'first'), (7, '2024-05-01', 'second')");
  EXPECT_THAT(names(10), ElementsAre("second", "first"));
}

TEST_F(FailedRunsTest, AreThoseOfTheTask) {
  database.insertTask(quietTask(8));
  addFailure(8, 10, "other", "");
  EXPECT_THAT(names(10), IsEmpty());
}

TEST_F(FailedRunsTest, HaveTheTimeAndTheSizeOfTheirCopies) {
  addFailure(7, 0, "empty", "");
  addFailure(7, 10, "gone", "");
  addFailure(7, 20, "text", "12345");
  database.query(
      "UPDATE kodu_cron_error SET cron_date = '2024-05-01 12:00:00'"
      " WHERE cron_logfile = 'text'");
  std::filesystem::remove(archive(7) + "/gone");
  const std::vector<FailedRun> runs = readFailedRuns(*session, task, 10);
  ASSERT_EQ(runs.size(), 3U);
  EXPECT_THAT(runs[0].size, Optional(Eq(0U)));
  EXPECT_EQ(runs[1].size, std::nullopt);
  EXPECT_THAT(runs[2].size, Optional(Eq(5U)));
  EXPECT_EQ(runs[2].time, 1714564800);
  EXPECT_EQ(runs[2].path, archive(7) + "/text");
}

TEST_F(FailedRunsTest, OmitInfiniteTimes) {
  database.takeAnyRow();
  database.query(
      "INSERT INTO kodu_cron_error (cron_id, cron_date, cron_logfile)"
      " VALUES (7, 'infinity', 'never')");
  EXPECT_THAT(names(10), IsEmpty());
}

}  // namespace
