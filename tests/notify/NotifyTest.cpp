#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include "db/pgSafeThread.h"
#include "db/statements.h"
#include "tests/notify/HttpServer.h"
#include "tests/support/Database.h"
#include "tests/support/Files.h"
#include "tests/support/Ledger.h"
#include "tests/support/Process.h"
#include "tests/support/builtProgram.h"
#include "tests/support/waitUntil.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

/// kodunotify as a child process, beside a database with the events and a session with the daemon's
/// statements.
class NotifyTest : public testing::Test {
 protected:
  void SetUp() override {
    database.query(readFile(projectFile("sql/events.sql")));
    for (const int id : {1, 2}) {
      addTask(id, "task" + std::to_string(id));
    }
    prepareNamedStatements(daemon);
    database.query("SELECT kodu_events('pager')");  // makes the reader
  }
  void TearDown() override {
    for (const pid_t pid : started) {
      if (pid > 1) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
      }
    }
  }

  void addTask(int id, const std::string& name) const {
    TaskRow row;
    row.id = id;
    row.name = name;
    database.insertTask(row);
  }
  void end(int id, const std::string& status) const {
    PQclear(daemon.executePrepareRequest("UpdateCronProcess", {std::to_string(id)}));
    PQclear(daemon.executePrepareRequest("UpdateCronState", {std::to_string(id), status}));
  }
  /// Waits until a reader gets all that has happened, which older transactions of other tests
  /// delay.
  void awaitHorizon() const {
    const std::string xact = database.value("SELECT pg_current_xact_id()");
    ASSERT_TRUE(waitUntil([&] {
      return database.value("SELECT pg_snapshot_xmin(pg_current_snapshot())::text::bigint > " +
                            xact) == "t";
    }));
  }

  /// Writes a configuration with fast retries.
  void configure(const std::string& text) const {
    writeFile(configPath, "database: " + database.adminConninfo() +
                              "\nreader: pager\nwait: 0.02\nlongest_wait: 0.1\ntimeout: 5\n" +
                              text);
  }
  /// Starts it; its outputs go to logPath.
  pid_t start(std::vector<std::string> arguments = {}) {
    arguments.insert(arguments.begin(), {builtProgram("KODU_TEST_NOTIFY"), "-f", configPath});
    std::vector<char*> pointers;
    for (std::string& argument : arguments) {
      pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
      const int log = open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
      dup2(log, STDOUT_FILENO);
      dup2(log, STDERR_FILENO);
      execv(pointers[0], pointers.data());
      _exit(127);
    }
    started.push_back(pid);
    return pid;
  }
  int finish(pid_t pid, int signal = 0) {
    int status = 0;
    if (signal != 0) {
      kill(pid, signal);
    }
    waitpid(pid, &status, 0);
    std::erase(started, pid);
    return signal == SIGKILL ? signalOf(status) : exitStatusOf(status);
  }
  int run(const std::vector<std::string>& arguments = {"--once"}) {
    return finish(start(arguments));
  }
  std::string log() const { return readFile(logPath); }

  static Json::Value parsed(const std::string& text) {
    Json::Value value;
    std::istringstream(text) >> value;
    return value;
  }
  /// "failed 1" for each event that the server has taken with one of its answers.
  static std::vector<std::string> eventsIn(const HttpRequest& request) {
    std::vector<std::string> texts;
    const Json::Value body = parsed(request.body);
    for (const Json::Value& event : body["events"]) {
      texts.push_back(event["event"].asString() + " " + event["task"].asString());
    }
    return texts;
  }
  static bool hasTask(const HttpRequest& request, int id) {
    const Json::Value body = parsed(request.body);
    for (const Json::Value& event : body["events"]) {
      if (event["task"].asInt() == id) {
        return true;
      }
    }
    return false;
  }
  std::string deadLetters() const {
    return database.value(
        "SELECT string_agg((event ->> 'task') || ' ' || tries || ' ' || error, '; ' ORDER BY key)"
        " FROM kodu_event_dead");
  }
  std::string left() const { return database.value("SELECT count(*) FROM kodu_events('pager')"); }

  const TempDir directory;
  const std::string configPath = directory / "notify.yaml";
  const std::string logPath = directory / "log";
  Database database;
  Ledger ledger{database};
  mutable pgSafeThread daemon{database.conninfo()};
  std::vector<pid_t> started;
};

// Endpoint
// ---------------------------------------------------------------------------------------

TEST_F(NotifyTest, PostsEvents) {
  const HttpServer server([](const HttpRequest&) { return 204; });
  writeFile(directory / "headers", "# of the pager\nAuthorization: Bearer hidden\n");
  configure("http: " + server.url() + "\nheader_file: " + (directory / "headers") + "\n");
  end(1, "FAILED");
  end(1, "OK");
  end(2, "FAILED");
  awaitHorizon();
  EXPECT_EQ(run(), 0) << log();
  const std::vector<HttpRequest> requests = server.requests();
  ASSERT_EQ(requests.size(), 1U) << log();
  EXPECT_THAT(eventsIn(requests[0]), ElementsAre("failed 1", "recovered 1", "failed 2"));
  EXPECT_THAT(requests[0].head, HasSubstr("POST /hook?token=s3cret HTTP/1.1"));
  EXPECT_THAT(requests[0].head, HasSubstr("\r\nContent-Type: application/json"));
  EXPECT_THAT(requests[0].head, HasSubstr("\r\nAuthorization: Bearer hidden"));
  EXPECT_EQ(left(), "0");
}

TEST_F(NotifyTest, PostsATemplate) {
  const HttpServer server([](const HttpRequest&) { return 200; });
  configure("http: " + server.url() + "\nbody: '{\"text\": \"{name} has {event}\"}'\n");
  database.query("UPDATE kodu_plugins SET plugin_name = 'a \"b\"' WHERE plugin_id = 1");
  end(1, "FAILED");
  end(1, "OK");
  awaitHorizon();
  EXPECT_EQ(run(), 0) << log();
  const std::vector<HttpRequest> requests = server.requests();
  ASSERT_EQ(requests.size(), 2U) << log();
  EXPECT_EQ(parsed(requests[0].body)["text"].asString(), "a \"b\" has failed");
  EXPECT_EQ(parsed(requests[1].body)["text"].asString(), "a \"b\" has recovered");
  EXPECT_THAT(requests[0].head, HasSubstr("\r\nIdempotency-Key: "));
}

TEST_F(NotifyTest, TriesAgainUntilTheEndpointTakesThem) {
  std::atomic<int> count = 0;
  const HttpServer server([&](const HttpRequest&) {
    const int number = ++count;
    return number == 1 ? 503 : number == 2 ? 0 : 200;
  });
  configure("http: " + server.url() + "\n");
  end(1, "FAILED");
  awaitHorizon();
  EXPECT_EQ(run(), 0) << log();
  ASSERT_EQ(server.requests().size(), 3U) << log();
  EXPECT_THAT(log(), HasSubstr("the endpoint answers with HTTP status 503; try 2 of 10 follows"));
  EXPECT_THAT(log(), HasSubstr("the endpoint does not answer: "));
  EXPECT_THAT(log(), Not(HasSubstr("s3cret")));
  EXPECT_EQ(deadLetters(), "");
}

TEST_F(NotifyTest, PutsAnEventAsideThatIsRefused) {
  const HttpServer server(
      [&](const HttpRequest& request) { return hasTask(request, 1) ? 422 : 200; });
  configure("http: " + server.url() + "\ntries: 2\n");
  end(1, "FAILED");
  end(2, "FAILED");
  awaitHorizon();
  EXPECT_EQ(run(), 0) << log();
  EXPECT_EQ(deadLetters(), "1 3 the endpoint answers with HTTP status 422");
  EXPECT_THAT(eventsIn(server.requests().back()), ElementsAre("failed 2"));
  EXPECT_EQ(left(), "0");
}

TEST_F(NotifyTest, DeliversOnlyWhatIsWanted) {
  const HttpServer server([](const HttpRequest&) { return 200; });
  configure("http: " + server.url() + "\nevents: [recovered]\nbatch: 1\n");
  end(1, "FAILED");
  end(1, "OK");
  end(2, "FAILED");
  awaitHorizon();
  EXPECT_EQ(run(), 0) << log();
  ASSERT_EQ(server.requests().size(), 1U);
  EXPECT_THAT(eventsIn(server.requests()[0]), ElementsAre("recovered 1"));
  EXPECT_EQ(left(), "0");
}

// Command
// ----------------------------------------------------------------------------------------

TEST_F(NotifyTest, RunsACommandWithoutAShell) {
  const std::string out = directory / "out";
  const std::string script = directory / "hook";
  writeFile(script,
            "#!/bin/sh\n{ printf '%s|' \"$@\" \"$KODU_EVENT\" \"$KODU_NAME\"; cat; env; } >" + out +
                "\n");
  std::filesystem::permissions(script, std::filesystem::perms::owner_all);
  configure("command: [" + script + ", \"{name}\", \"{task}\"]\n");
  addTask(3, "x; touch $(id) '\"");
  setenv("SECRET", "hidden", 1);
  end(3, "FAILED");
  awaitHorizon();
  EXPECT_EQ(run(), 0) << log();
  const std::string said = readFile(out);
  EXPECT_THAT(said,
              testing::StartsWith("x; touch $(id) '\"|3|failed|x; touch $(id) '\"|{\"version\""));
  EXPECT_THAT(said, HasSubstr("\nKODU_TASK=3\n"));
  EXPECT_THAT(said, HasSubstr("\nKODU_TASK_KEY=task-3\n"));
  EXPECT_THAT(said, Not(HasSubstr("SECRET")));
  EXPECT_EQ(left(), "0");
}

TEST_F(NotifyTest, PutsAnEventAsideWhoseCommandFails) {
  configure("command: [/bin/sh, -c, \"test {task} != 1\"]\ntries: 3\n");
  end(1, "FAILED");
  end(2, "FAILED");
  awaitHorizon();
  EXPECT_EQ(run(), 0) << log();
  EXPECT_EQ(deadLetters(), "1 3 /bin/sh ended with exit status 1");
  EXPECT_THAT(log(), HasSubstr("is put aside after 3 tries"));
}

TEST_F(NotifyTest, DeliversWhatWasPutAsideWhenItIsTold) {
  const std::string out = directory / "out";
  configure("command: [/bin/sh, -c, \"test -e " + out + " && echo {event} {task} >>" + out +
            "\"]\ntries: 1\n");
  end(1, "FAILED");
  end(2, "FAILED");
  awaitHorizon();
  EXPECT_EQ(run(), 0) << log();
  ASSERT_EQ(database.value("SELECT count(*) FROM kodu_event_dead"), "2") << log();
  writeFile(out, "");
  EXPECT_EQ(run(), 0) << log();
  EXPECT_EQ(readFile(out), "");
  database.query("SELECT kodu_events_redeliver('pager')");
  EXPECT_EQ(run(), 0) << log();
  EXPECT_EQ(readFile(out), "failed 1\nfailed 2\n");
  EXPECT_EQ(deadLetters(), "");
}

TEST_F(NotifyTest, EndsACommandThatTakesTooLong) {
  configure("command: [/bin/sh, -c, \"sleep 1000 & sleep 1000\"]\ntries: 1\n");
  writeFile(configPath, readFile(configPath) + "timeout: 0.2\n");
  end(1, "FAILED");
  awaitHorizon();
  EXPECT_EQ(run(), 0) << log();
  EXPECT_EQ(deadLetters(), "1 1 /bin/sh did not end within 0.2 s");
}

TEST_F(NotifyTest, GivesAnEventToACommandThatDoesNotReadIt) {
  configure("command: [/bin/true]\n");
  end(1, "FAILED");
  awaitHorizon();
  EXPECT_EQ(run(), 0) << log();
  EXPECT_EQ(deadLetters(), "");
}

// Faults
// -----------------------------------------------------------------------------------------

TEST_F(NotifyTest, DeliversAgainAfterItWasKilledAndOnceOtherwise) {
  std::atomic<pid_t> victim = 0;
  const HttpServer server([&](const HttpRequest&) {
    const pid_t pid = victim.exchange(0);
    if (pid > 1) {
      kill(pid, SIGKILL);  // after the delivery, before its record
    }
    return 200;
  });
  configure("http: " + server.url() + "\nbatch: 1\n");
  victim = start();
  end(1, "FAILED");
  ASSERT_TRUE(waitUntil([&] { return server.requests().size() == 1; })) << log();
  EXPECT_EQ(finish(started[0], SIGKILL), SIGKILL);
  const pid_t pid = start();
  end(2, "FAILED");
  ASSERT_TRUE(waitUntil([&] { return server.requests().size() == 3; })) << log();
  EXPECT_EQ(finish(pid, SIGTERM), 0);
  const std::vector<HttpRequest> requests = server.requests();
  ASSERT_EQ(requests.size(), 3U);
  EXPECT_EQ(requests[0].body, requests[1].body) << "with the same key";
  EXPECT_THAT(eventsIn(requests[2]), ElementsAre("failed 2"));
}

TEST_F(NotifyTest, DoesNotRepeatWhatItDeliveredWhenItsSessionEnds) {
  std::atomic<int> count = 0;
  const HttpServer server([&](const HttpRequest&) {
    ++count;
    return 200;
  });
  // The session ends when the delivery is to be recorded.
  database.query(
      "CREATE FUNCTION refuse_once() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN"
      " IF NEW.ledger_id > OLD.ledger_id AND nextval('refusals') = 1 THEN"
      "  PERFORM pg_terminate_backend(pg_backend_pid()); END IF; RETURN NEW; END $$;"
      "CREATE SEQUENCE refusals; CREATE TRIGGER refuse BEFORE UPDATE ON kodu_event_reader"
      " FOR EACH ROW EXECUTE FUNCTION refuse_once()");
  configure("http: " + server.url() + "\n");
  end(1, "FAILED");
  awaitHorizon();
  EXPECT_EQ(run(), 0) << log();
  EXPECT_THAT(log(), HasSubstr("database: "));
  EXPECT_EQ(count, 1) << log();
  EXPECT_EQ(left(), "0");
}

TEST_F(NotifyTest, WaitsForADatabaseThatIsAway) {
  const HttpServer server([](const HttpRequest&) { return 200; });
  configure("http: " + server.url() + "\n");
  const std::string right = readFile(configPath);
  const std::string port = "port=" + std::to_string(database.port());
  std::string wrong = right;
  wrong.replace(wrong.find(port), port.size(), "port=1");
  writeFile(configPath, wrong);
  const pid_t pid = start();
  ASSERT_TRUE(waitUntil([&] { return log().find("; trying again") != std::string::npos; }));
  EXPECT_EQ(finish(pid, SIGINT), 0) << "it can be stopped meanwhile";
}

TEST_F(NotifyTest, LeavesAReaderToOneProcess) {
  const HttpServer server([](const HttpRequest&) { return 200; });
  configure("http: " + server.url() + "\n");
  const pid_t first = start();
  ASSERT_TRUE(waitUntil([&] { return log().find("delivering the events") != std::string::npos; }));
  const pid_t second = start();
  ASSERT_TRUE(waitUntil([&] {
    return log().find("another process delivers") != std::string::npos;
  })) << log();
  finish(first, SIGKILL);
  end(1, "FAILED");
  ASSERT_TRUE(waitUntil([&] { return server.requests().size() == 1; })) << log();
  EXPECT_EQ(finish(second, SIGTERM), 0);
}

TEST_F(NotifyTest, CompletesADeliveryThatASignalInterrupts) {
  std::atomic<bool> isAsked = false;
  std::atomic<bool> isReleased = false;
  const HttpServer server([&](const HttpRequest&) {
    isAsked = true;
    waitUntil([&] { return isReleased.load(); });
    return 200;
  });
  configure("http: " + server.url() + "\n");
  const pid_t pid = start();
  end(1, "FAILED");
  ASSERT_TRUE(waitUntil([&] { return isAsked.load(); })) << log();
  kill(pid, SIGTERM);
  isReleased = true;
  EXPECT_EQ(finish(pid), 0);
  EXPECT_EQ(left(), "0");
}

TEST_F(NotifyTest, NeedsOnlyTheRoleOfReaders) {
  const HttpServer server([](const HttpRequest&) { return 200; });
  const std::string role = "reader_of_" + database.name();
  database.query("CREATE ROLE " + role + " LOGIN PASSWORD 'secret' IN ROLE kodu_reader");
  database.query("SELECT kodu_events_forget('pager')");
  writeFile(directory / "pass", "*:*:*:*:secret\n");
  std::filesystem::permissions(directory / "pass", std::filesystem::perms::owner_read);
  writeFile(configPath, "database: host=" + database.host() + " port=" +
                            std::to_string(database.port()) + " dbname=" + database.name() +
                            " user=" + role + " passfile=" + (directory / "pass") +
                            "\nreader: pager\nhttp: " + server.url() + "\n");
  const pid_t pid = start();
  ASSERT_TRUE(waitUntil([&] {
    return database.value("SELECT count(*) FROM kodu_event_reader") == "1";
  })) << log();
  end(1, "FAILED");
  ASSERT_TRUE(waitUntil([&] { return server.requests().size() == 1; })) << log();
  EXPECT_EQ(finish(pid, SIGTERM), 0);
  database.query("DROP OWNED BY " + role + "; DROP ROLE " + role);
}

// Command line
// -----------------------------------------------------------------------------------

TEST_F(NotifyTest, ChecksItsConfiguration) {
  configure("command: [/bin/true]\n");
  EXPECT_EQ(run({"--check"}), 0);
  EXPECT_THAT(log(), HasSubstr(configPath + " is valid: reader pager, to a command\n"));
  configure("command: [/nowhere]\n");
  EXPECT_EQ(run({"--check"}), 78);
  EXPECT_THAT(log(), HasSubstr("kodunotify: /nowhere cannot be executed"));
  configure("http: http://127.0.0.1:1/\n");
  EXPECT_EQ(run({"--check", "--header-file", directory / "none"}), 78);
  EXPECT_EQ(run({"--check", "--header-file", configPath}), 0);
}

TEST_F(NotifyTest, ExplainsItsOptions) {
  EXPECT_EQ(run({"--help"}), 0);
  EXPECT_EQ(run({"--version"}), 0);
  EXPECT_EQ(run({"--wrong"}), 64);
  EXPECT_EQ(run({"word"}), 64);
  EXPECT_THAT(log(), HasSubstr("Usage: kodunotify [-f FILE]"));
  EXPECT_THAT(log(), HasSubstr("kodunotify: unknown option"));
}

}  // namespace
