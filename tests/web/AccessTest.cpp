#include "tests/web/WebTest.h"

namespace {

using testing::HasSubstr;
using testing::Not;

using AccessTest = WebTest;

TEST_F(AccessTest, GivesASessionForTheRightPassword) {
  start();
  EXPECT_EQ(loggedOut().api("session").status, 401);
  const WebAnswer answer = tryLogin(admin, "right");
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.json()["role"], admin);
  EXPECT_TRUE(answer.json()["may_change"].asBool());
  EXPECT_THAT(
      answer.header("Set-Cookie"),
      testing::MatchesRegex("kodu_session=[0-9a-f]{64}; Path=/; HttpOnly; SameSite=Strict"));
  const Browser browser = login(viewer);
  const Json::Value session = browser.api("session").json();
  EXPECT_EQ(session["role"], viewer);
  EXPECT_FALSE(session["may_change"].asBool());
  EXPECT_EQ(session["token"], browser.token);
  EXPECT_FALSE(session["anonymous"].asBool());
}

TEST_F(AccessTest, SaysTheSameOfEachWrongPair) {
  start();
  const WebAnswer wrong = tryLogin(admin, "wrong");
  EXPECT_EQ(wrong.status, 401);
  EXPECT_EQ(wrong.json()["error"], "The role or the password is wrong.");
  EXPECT_EQ(wrong.header("Set-Cookie"), "");
  for (const auto& [role, password] : {std::pair<std::string, std::string>{"missing", "right"},
                                       {admin, ""},
                                       {"", "right"},
                                       {admin, std::string(2000, 'x')},
                                       {admin + " dbname=postgres", "right"}}) {
    EXPECT_EQ(tryLogin(role, password).body, wrong.body) << role;
  }
  EXPECT_EQ(loggedOut().send("login", "{\"role\":[]}", "").status, 400);
  EXPECT_EQ(loggedOut().send("login", "[", "").status, 400);
  EXPECT_EQ(loggedOut().send("login", std::string(5000, '['), "").status, 400);
}

TEST_F(AccessTest, RefusesAfterFiveFailures) {
  start();
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(tryLogin(admin, "wrong").status, 401);
  }
  EXPECT_EQ(tryLogin(admin, "right").status, 429);
  EXPECT_EQ(tryLogin(viewer, "right").status, 200) << "another role";
}

TEST_F(AccessTest, BearsTenThousandBadLogins) {
  start();
  const Browser browser = login(viewer);
  int refused = 0;
  for (int i = 0; i < 10000; i += 100) {
    const HttpClient client(port);
    const std::string body = R"({"role":"r)" + std::to_string(i) + R"(","password":"x"})";
    for (int n = 0; n < 100; ++n) {
      client.send(
          "POST /api/v1/login HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\n"
          "Content-Length: " +
          std::to_string(body.size()) + "\r\n\r\n" + body);
      refused += WebAnswer(client.receive("}\n")).status >= 400 ? 1 : 0;
    }
  }
  EXPECT_EQ(refused, 10000);
  EXPECT_EQ(browser.api("session").status, 200) << "who is logged in goes on";
  EXPECT_LE(database
                .query("SELECT FROM pg_stat_activity WHERE application_name = "
                       "'kodu_web login' AND datname = current_database()")
                .size(),
            3U);
}

TEST_F(AccessTest, RefusesARoleThatWasNotAllowed) {
  database.query("SELECT kodu_web_forbid('" + viewer + "')");
  start();
  const WebAnswer answer = tryLogin(viewer, "right");
  EXPECT_EQ(answer.status, 403);
  EXPECT_THAT(answer.body, HasSubstr("kodu_web_allow('" + viewer + "')"));
}

TEST_F(AccessTest, EndsTheSessionAtTheLogout) {
  start();
  const Browser browser = login(viewer);
  EXPECT_EQ(browser.post("logout").status, 204);
  EXPECT_EQ(browser.api("session").status, 401);
  EXPECT_EQ(browser.post("logout").status, 401);
}

TEST_F(AccessTest, TakesNoChangeFromAnotherPageOrSession) {
  start();
  const Browser browser = login(admin);
  const std::string token = "X-Kodu-Token: " + browser.token + "\r\n";
  const std::string origin = "Origin: http://x\r\n";
  const std::string others = "X-Kodu-Token: " + login(viewer).token + "\r\n";
  for (const std::string& headers :
       {std::string(), token, origin, token + "Origin: http://evil\r\n", token + "Origin: null\r\n",
        token + "Origin: https://x\r\n", token + "Origin: http://x.evil\r\n", origin + others,
        origin + "X-Kodu-Token: \r\n"}) {
    EXPECT_EQ(browser.send("logout", "", headers).status, 403) << headers;
  }
  EXPECT_EQ(loggedOut().send("logout", "", token + origin).status, 401);
  EXPECT_EQ(loggedOut().send("login", "{}", "Origin: http://evil\r\n").status, 403);
  EXPECT_EQ(browser.post("logout").status, 204);
}

TEST_F(AccessTest, KnowsNoMadeUpCookie) {
  start();
  const Browser browser = login(viewer);
  Browser other = browser;
  other.cookie.back() = other.cookie.back() == '0' ? '1' : '0';
  EXPECT_EQ(other.api("tasks").status, 401);
  other.cookie = "";
  EXPECT_EQ(other.api("tasks").status, 401);
  other.cookie = browser.token;
  EXPECT_EQ(other.api("tasks").status, 401);
}

TEST_F(AccessTest, EndsSessionsWithTheGrant) {
  start();
  const Browser browser = login(viewer);
  EXPECT_EQ(browser.api("tasks").status, 200);
  database.query("SELECT kodu_web_forbid('" + viewer + "')");
  EXPECT_EQ(browser.api("tasks").status, 401);
  allow(viewer);
  EXPECT_EQ(browser.api("tasks").status, 401) << "the session is over";
}

TEST_F(AccessTest, EndsTheStreamOfASessionThatMadeRoom) {
  start();
  const Browser first = login(viewer);
  const HttpClient stream(port);
  stream.send("GET /api/v1/stream HTTP/1.1\r\nHost: x\r\n" + first.headers() + "\r\n");
  EXPECT_THAT(stream.receive("event: alive"), HasSubstr("event: alive"));
  for (int i = 0; i < 50; ++i) {
    login(viewer);
  }
  EXPECT_EQ(first.api("session").status, 401);
  EXPECT_TRUE(waitUntil(
      [&] { return stream.receive("event: alive").find("event: alive") == std::string::npos; },
      kPatience));
}

TEST_F(AccessTest, EndsSessionsOfARoleThatCannotLogIn) {
  start();
  const Browser browser = login(viewer);
  const Browser other = login(admin);
  database.query("ALTER ROLE " + viewer + " NOLOGIN");
  EXPECT_TRUE(waitUntil([&] { return browser.api("session").status == 401; }, kPatience));
  EXPECT_EQ(other.api("session").status, 200);
}

TEST_F(AccessTest, KeepsSessionsOverARestartOfTheDatabase) {
  start();
  const Browser browser = login(viewer);
  EXPECT_EQ(browser.api("tasks").status, 200);
  database.query(
      "SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE datname = "
      "current_database() AND usename = 'kodu_web'");
  EXPECT_EQ(browser.api("tasks").status, 200);
  const std::string limit = "ALTER DATABASE " + database.name() + " CONNECTION LIMIT ";
  database.query(limit + "0");
  database.query(
      "SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE datname = "
      "current_database() AND usename = 'kodu_web'");
  const WebAnswer away = browser.api("tasks");
  const WebAnswer overview = browser.api("overview");
  EXPECT_EQ(browser.api("session").status, 200);
  EXPECT_EQ(tryLogin(viewer, "right").status, 503);
  database.query(limit + "-1");
  EXPECT_EQ(away.status, 503);
  EXPECT_THAT(away.json()["error"].asString(), HasSubstr("The database does not answer: "));
  EXPECT_EQ(overview.status, 503);
  EXPECT_TRUE(waitUntil([&] { return browser.api("tasks").status == 200; }));
  EXPECT_TRUE(waitUntil([&] { return browser.api("overview").status == 200; }));
}

TEST_F(AccessTest, ShowsTasksToEverybodyWhereThatIsWanted) {
  database.insertTask(makeTask(1, "echo"));
  start({"--anonymous", viewer});
  ASSERT_TRUE(waitUntil([&] { return loggedOut().api("session").status == 200; }));
  const Json::Value session = loggedOut().api("session").json();
  EXPECT_EQ(session["role"], viewer);
  EXPECT_TRUE(session["anonymous"].asBool());
  EXPECT_FALSE(session["may_change"].asBool());
  EXPECT_EQ(loggedOut().api("tasks").json()["tasks"].size(), 1U);
  EXPECT_EQ(loggedOut().post("tasks/1/run").status, 401);
  EXPECT_TRUE(login(admin).api("session").json()["may_change"].asBool());
}

TEST_F(AccessTest, TakesAddressAndEncryptionFromATrustedProxyAlone) {
  start({"--trusted-proxy", "127.0.0.1"});
  const auto tryFrom = [&](const std::string& address, const std::string& password) {
    return loggedOut().send("login",
                            R"({"role":")" + admin + R"(","password":")" + password + R"("})",
                            "X-Forwarded-For: 10.0.0.1, " + address +
                                "\r\nX-Forwarded-Proto: https\r\nOrigin: https://x\r\n");
  };
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(tryFrom("10.0.0.7", "wrong").status, 401);
  }
  EXPECT_EQ(tryFrom("10.0.0.7", "right").status, 429);
  const WebAnswer answer = tryFrom("10.0.0.8", "right");
  EXPECT_EQ(answer.status, 200);
  EXPECT_THAT(answer.header("Set-Cookie"), HasSubstr("; Secure"));
  EXPECT_EQ(tryFrom("10.0.0.9\r\nX-Forwarded-For: 10.0.0.7", "right").status, 400)
      << "the client's own, or the proxy's?";
}

TEST_F(AccessTest, SpeaksHttps) {
  const std::string key = daemon.directory / "key.pem";
  const std::string certificate = daemon.directory / "certificate.pem";
  // NOLINTNEXTLINE(cert-env33-c,concurrency-mt-unsafe)
  ASSERT_EQ(std::system(("openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=localhost "
                         "-addext subjectAltName=IP:127.0.0.1 -keyout " +
                         key + " -out " + certificate + " 2>/dev/null")
                            .c_str()),
            0);
  start({"--tls-certificate", certificate, "--tls-key", key});
  const std::string out = daemon.directory / "out";
  const auto connect = [&](const std::string& options) {
    // NOLINTNEXTLINE(cert-env33-c,concurrency-mt-unsafe)
    return std::system(
        ("printf 'GET /healthz HTTP/1.1\\r\\nHost: x\\r\\nConnection: close\\r\\n\\r\\n'"
         " | timeout 20 openssl s_client -quiet -connect 127.0.0.1:" +
         std::to_string(port) + " -CAfile " + certificate + " -verify_return_error " + options +
         " >" + out + " 2>&1")
            .c_str());
  };
  connect("");
  EXPECT_THAT(readFile(out), HasSubstr("koduweb is running."));
  connect("-tls1_1");
  EXPECT_THAT(readFile(out), Not(HasSubstr("koduweb is running.")));
  EXPECT_THAT(WebAnswer(HttpClient::get(port, "/healthz")).text, Not(HasSubstr("200 OK")));
}

}  // namespace
