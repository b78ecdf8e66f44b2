#include "admin/listener.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <mutex>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include "admin/notificationBatch.h"
#include "core/globals.h"
#include "db/PostgresqlException.h"
#include "db/pgSafeThread.h"
#include "task/CronTaskQueue.h"
#include "task/serviceCron.h"
#include "tests/support/Globals.h"
#include "tests/support/Process.h"
#include "tests/support/waitUntil.h"

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::KilledBySignal;

class NotificationBatchTest : public GlobalsTest {
 protected:
  NotificationBatch batch;
};

TEST_F(NotificationBatchTest, CollectsTheIdsOfBothCommandsInOrder) {
  batch.add(R"({"TYPE":"SERVICE","COMMAND":"UPDATE","ID":5})");
  batch.add(R"({"TYPE":"SERVICE","COMMAND":"ADD","ID":9})");
  batch.add(R"({"TYPE":"SERVICE","COMMAND":"ADD","ID":7})");
  batch.add(R"({"TYPE":"SERVICE","COMMAND":"ADD","ID":9})");

  EXPECT_THAT(batch.additions(), ElementsAre(9, 7, 9));
  EXPECT_THAT(batch.updates(), ElementsAre(5));
}

TEST_F(NotificationBatchTest, LogsWhatItReceives) {
  const std::string payload = R"({"TYPE":"SERVICE","COMMAND":"ADD","ID":7})";

  batch.add(payload);

  EXPECT_THAT(log(), ElementsAre("DEBUG#TH LISTENER# Notify string receive :" + payload,
                                 "DEBUG#TH LISTENER# Notify Json receive :" + payload));
}

TEST_F(NotificationBatchTest, WarnsOfAPayloadThatIsNotJson) {
  batch.add("not json");
  batch.add("");

  EXPECT_THAT(log(), ElementsAre("DEBUG#TH LISTENER# Notify string receive :not json",
                                 "WARNING#TH ADMIN# Bad notify Json receive :not json",
                                 "DEBUG#TH LISTENER# Notify string receive :",
                                 "WARNING#TH ADMIN# Bad notify Json receive :"));
  EXPECT_THAT(batch.additions(), IsEmpty());
}

TEST_F(NotificationBatchTest, IgnoresOtherTypesAndCommands) {
  for (const char* payload :
       {R"({"TYPE":"HOST","COMMAND":"ADD","ID":7})", R"({"TYPE":"service","COMMAND":"ADD","ID":7})",
        R"({"TYPE":"SERVICE","COMMAND":"update","ID":7})",
        R"({"TYPE":"SERVICE","COMMAND":"DELETE","ID":"x"})", R"({"COMMAND":"ADD","ID":7})",
        R"({"TYPE":"SERVICE","ID":7})", R"({"TYPE":null,"COMMAND":7,"ID":7})", "{}", "null"}) {
    batch.add(payload);
    EXPECT_EQ(log().back(), std::string("DEBUG#TH LISTENER# Notify Json receive :") + payload);
  }

  EXPECT_THAT(batch.additions(), IsEmpty());
  EXPECT_THAT(batch.updates(), IsEmpty());
}

TEST_F(NotificationBatchTest, ReadsAMissingIdAsZero) {
  batch.add(R"({"TYPE":"SERVICE","COMMAND":"ADD"})");

  EXPECT_THAT(batch.additions(), ElementsAre(0));
}

TEST_F(NotificationBatchTest, AcceptsValuesThatJsonConvertsToAnInteger) {
  for (const char* id : {"-1", "2147483647", "7.9", "true", "null"}) {
    batch.add(R"({"TYPE":"SERVICE","COMMAND":"UPDATE","ID":)" + std::string(id) + "}");
  }

  EXPECT_THAT(batch.updates(), ElementsAre(-1, 2147483647, 7, 1, 0));
}

TEST_F(NotificationBatchTest, ThrowsForAnIdOutsideTheIntegers) {
  for (const char* id : {"2147483648", "-2147483649", "1e99"}) {
    EXPECT_THROW(batch.add(R"({"TYPE":"SERVICE","COMMAND":"ADD","ID":)" + std::string(id) + "}"),
                 Json::LogicError)
        << id;
  }
}

TEST_F(NotificationBatchTest, WarnsOfNestingBeyondTheLimit) {
  const std::string payload(1001, '[');

  batch.add(payload);

  EXPECT_THAT(log(), ElementsAre("DEBUG#TH LISTENER# Notify string receive :" + payload,
                                 "WARNING#TH ADMIN# Bad notify Json receive :" + payload));
}

TEST_F(NotificationBatchTest, AcceptsNestingUpToTheLimit) {
  const std::string depth(998, '[');
  const std::string payload =
      R"({"TYPE":"SERVICE","COMMAND":"ADD","ID":7,"x":)" + depth + std::string(998, ']') + "}";

  batch.add(payload);

  EXPECT_THAT(batch.additions(), ElementsAre(7));
}

TEST_F(NotificationBatchTest, ContinuesAfterABadPayload) {
  batch.add("{");
  batch.add(std::string(1001, '['));
  batch.add(R"({"TYPE":"SERVICE","COMMAND":"ADD","ID":7})");

  EXPECT_THAT(batch.additions(), ElementsAre(7));
}

TEST_F(NotificationBatchTest, ThrowsForAnIdOfTheWrongTypeAfterItsLogLine) {
  const std::string payload = R"({"TYPE":"SERVICE","COMMAND":"ADD","ID":"7"})";

  EXPECT_THROW(batch.add(payload), Json::LogicError);

  EXPECT_EQ(log().back(), "DEBUG#TH LISTENER# Notify Json receive :" + payload);
}

TEST_F(NotificationBatchTest, ThrowsForATypeOrCommandOfTheWrongTypeBeforeTheLogLine) {
  for (const char* payload : {R"({"TYPE":{},"COMMAND":"ADD","ID":7})",
                              R"({"TYPE":"HOST","COMMAND":[],"ID":7})", "[1]", "7"}) {
    EXPECT_THROW(batch.add(payload), Json::LogicError) << payload;
    EXPECT_EQ(log().back(), std::string("DEBUG#TH LISTENER# Notify string receive :") + payload);
  }
}

class ListenerTest : public DatabaseGlobalsTest {
 protected:
  void TearDown() override {
    stopListener();
    DatabaseGlobalsTest::TearDown();
  }

  void insert(int id) {
    TaskRow row;
    row.id = id;
    database.insertTask(row);
  }

  /// Returns once the LISTEN is in force.
  void startListener() {
    listener = std::thread(th_listener);
    ASSERT_TRUE(waitUntil([&] {
      return database.value(
                 "SELECT count(*) FROM pg_stat_activity WHERE usename = 'kodu' AND "
                 "datname = current_database() AND state = 'idle' AND "
                 "query = 'LISTEN koducronchannel;'") == "1";
    }));
  }

  void stopListener() {
    die_kodu = 1;
    if (listener.joinable()) {
      listener.join();
    }
  }

  static bool isLoaded(int id) {
    const std::lock_guard lock(mutexTaskMap);
    return cronTaskMap.contains(id);
  }

  /// The ids of the loader's queries as the server received them, in order.
  std::vector<std::string> loads() {
    std::vector<std::string> ids;
    for (const std::string& line : database.serverLog()) {
      if (const auto begin = line.find("cron_id IN ("); begin != std::string::npos) {
        ids.push_back(line.substr(begin + 11));
      }
    }
    return ids;
  }

  static std::string payload(const std::string& command, int id) {
    return R"({"TYPE":"SERVICE","COMMAND":")" + command + R"(","ID":)" + std::to_string(id) + "}";
  }

  std::thread listener;
};

TEST_F(ListenerTest, BeginsWithTheAdminThreadsLine) {
  startListener();

  EXPECT_THAT(log(), ElementsAre("DEBUG#TH ADMIN#START "));
}

TEST_F(ListenerTest, LoadsTheTaskThatAnAddNotificationNames) {
  insert(7);
  startListener();

  database.notify(payload("ADD", 7));

  EXPECT_TRUE(waitUntil([] { return isLoaded(7); }));
  EXPECT_THAT(loads(), ElementsAre("(7);"));
}

TEST_F(ListenerTest, LoadsAdditionsBeforeUpdates) {
  insert(5);
  insert(9);
  startListener();

  database.query("SELECT pg_notify('koducronchannel', '" + payload("UPDATE", 5) +
                 "'), pg_notify('koducronchannel', '" + payload("ADD", 9) + "')");

  EXPECT_TRUE(waitUntil([&] { return loads().size() == 2; }));
  EXPECT_THAT(loads(), ElementsAre("(9);", "(5);"));
  EXPECT_TRUE(isLoaded(9));
  EXPECT_FALSE(isLoaded(5)) << "an update adds no task";
}

TEST_F(ListenerTest, KeepsTheOrderOfTheNotificationsInOneBatch) {
  startListener();

  database.query("BEGIN");
  for (const int id : {3, 1, 2}) {
    database.notify(payload("ADD", id));
  }
  database.query("COMMIT");

  EXPECT_TRUE(waitUntil([&] { return !loads().empty(); }));
  EXPECT_THAT(loads(), ElementsAre("(3,1,2);"));
}

TEST_F(ListenerTest, ListsAnIdAsOftenAsItIsNotified) {
  insert(7);
  startListener();

  // The server drops a payload that equals one before it in the transaction.
  database.query("SELECT pg_notify('koducronchannel', '" + payload("ADD", 7) +
                 "'), pg_notify('koducronchannel', ' " + payload("ADD", 7) + "')");

  EXPECT_TRUE(waitUntil([] { return isLoaded(7); }));
  EXPECT_THAT(loads(), ElementsAre("(7,7);"));
  EXPECT_TRUE(waitUntil([&] { return logged("NOTICE#script reload successful") == 1; }));
  EXPECT_EQ(serviceQueue->size(), 1U);
}

TEST_F(ListenerTest, LoadsEachBatchOnce) {
  startListener();
  database.notify(payload("ADD", 1));
  ASSERT_TRUE(waitUntil([&] { return loads().size() == 1; }));

  database.notify(payload("ADD", 2));

  EXPECT_TRUE(waitUntil([&] { return loads().size() == 2; }));
  EXPECT_THAT(loads(), ElementsAre("(1);", "(2);"));
}

TEST_F(ListenerTest, ContinuesAfterAPayloadThatIsNotJson) {
  insert(7);
  startListener();

  database.notify("{not json");
  database.notify(payload("DELETE", 7));
  database.notify(payload("ADD", 7));

  EXPECT_TRUE(waitUntil([] { return isLoaded(7); }));
  EXPECT_EQ(logged("WARNING#TH ADMIN# Bad notify Json receive :{not json"), 1);
  EXPECT_THAT(loads(), ElementsAre("(7);"));
}

TEST_F(ListenerTest, ReadsNotificationsThatArrivedWithAStatementsReply) {
  insert(7);
  startListener();
  database.notify(payload("ADD", 7));

  PQclear(pgSQL->executeRequest("SELECT 1"));

  EXPECT_TRUE(waitUntil([] { return isLoaded(7); }));
}

TEST_F(ListenerTest, LeavesNotificationsDuringALoadToTheNextPass) {
  insert(1);
  insert(2);
  startListener();
  pgSafeThread other(database.conninfo());
  const auto notify = [&](int id) {
    PQclear(other.executeRequest("NOTIFY koducronchannel, '" + payload("ADD", id) + "'"));
  };
  database.query("BEGIN");
  database.query("LOCK TABLE kodu_plugins IN ACCESS EXCLUSIVE MODE");
  notify(1);
  EXPECT_TRUE(waitUntil([&] { return loads().size() == 1; }));
  EXPECT_FALSE(isLoaded(1)) << "the loader waits for the table";
  notify(2);
  database.query("COMMIT");

  EXPECT_TRUE(waitUntil([] { return isLoaded(1) && isLoaded(2); }));
  EXPECT_THAT(loads(), ElementsAre("(1);", "(2);"));
}

TEST_F(ListenerTest, EndsWithinSecondsOfTheStopFlag) {
  startListener();
  die_kodu = 1;
  std::atomic<bool> hasEnded = false;
  std::thread watcher([&] {
    listener.join();
    hasEnded = true;
  });

  EXPECT_TRUE(waitUntil([&] { return hasEnded.load(); }));
  watcher.join();
}

TEST_F(ListenerTest, EndsWithinSecondsWhileAnotherThreadsStatementHangs) {
  insert(7);
  startListener();
  database.query("BEGIN");
  database.query("UPDATE kodu_cron_plugin SET cron_status = 'held'");
  std::thread worker([] { PQclear(pgSQL->executePrepareRequest("UpdateCronProcess", {"7"})); });
  ASSERT_TRUE(waitUntil([&] { return database.waitingSessions() == 1; }));
  ASSERT_TRUE(waitUntil([] { return threadsIn(getpid(), SYS_futex) == 1; })) << "for its turn";
  die_kodu = 1;
  std::atomic<bool> hasEnded = false;
  std::thread watcher([&] {
    listener.join();
    hasEnded = true;
  });

  EXPECT_TRUE(waitUntil([&] { return hasEnded.load(); }));

  EXPECT_EQ(database.waitingSessions(), 1) << "the statement no longer hangs";
  database.query("COMMIT");
  worker.join();
  watcher.join();
}

TEST_F(ListenerTest, ReadsNotificationsThatArrivedDuringAHungStatement) {
  insert(7);
  insert(8);
  startListener();
  database.query("BEGIN");
  database.query("UPDATE kodu_cron_plugin SET cron_status = 'held' WHERE cron_id = 7");
  std::thread worker([] { PQclear(pgSQL->executePrepareRequest("UpdateCronProcess", {"7"})); });
  ASSERT_TRUE(waitUntil([&] { return database.waitingSessions() == 1; }));
  pgSafeThread other(database.conninfo());
  PQclear(other.executeRequest("NOTIFY koducronchannel, '" + payload("ADD", 8) + "'"));

  database.query("COMMIT");
  worker.join();

  EXPECT_TRUE(waitUntil([] { return isLoaded(8); }));
}

// Exceptions of the subscription are not caught.
using ListenerCrashTest = ListenerTest;

TEST_F(ListenerCrashTest, EndsTheProcessWhenTheSubscriptionFails) {
  PQclear(pgSQL->executeRequest("BEGIN"));
  EXPECT_THROW(pgSQL->executeRequest("broken"), PostgresqlException);

  EXPECT_EXIT(std::thread(th_listener).join(), KilledBySignal(SIGABRT),
              AllOf(HasSubstr("instance of 'PostgresqlException'"),
                    HasSubstr("execute failed:  ERROR:  current transaction is aborted")));

  EXPECT_THAT(log(), ElementsAre("DEBUG#TH ADMIN#START "));
}

TEST_F(ListenerTest, RunsWithAllSignalsUnblocked) {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  startListener();
  pthread_sigmask(SIG_SETMASK, &before, nullptr);

  static std::atomic<bool> isReceived = false;
  void (*previous)(int) = std::signal(SIGUSR1, [](int) { isReceived = true; });
  pthread_kill(listener.native_handle(), SIGUSR1);
  EXPECT_TRUE(waitUntil([] { return isReceived.load(); }));
  std::signal(SIGUSR1, previous);
}

}  // namespace
