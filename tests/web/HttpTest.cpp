#include <chrono>
#include <memory>
#include <vector>

#include "tests/web/WebTest.h"

namespace {

using testing::HasSubstr;
using testing::Not;

/// The files of the page, and requests that no browser sends.
using WebHttpTest = WebTest;

TEST_F(WebHttpTest, ServesThePageWithAPolicy) {
  start();
  const WebAnswer answer = loggedOut().get("/");
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.header("Content-Type"), "text/html; charset=utf-8");
  EXPECT_THAT(answer.body, HasSubstr("<title>koducron</title>"));
  for (const WebAnswer& each : {answer, loggedOut().get("/none"), loggedOut().api("tasks")}) {
    EXPECT_THAT(each.header("Content-Security-Policy"), HasSubstr("default-src 'none'; script-src "
                                                                  "'self';"));
    EXPECT_THAT(each.header("Content-Security-Policy"), Not(HasSubstr("unsafe")));
    EXPECT_EQ(each.header("X-Content-Type-Options"), "nosniff");
  }
  EXPECT_EQ(loggedOut().get("/app/main.js").header("Content-Type"),
            "text/javascript; charset=utf-8");
  const std::string tag = answer.header("ETag");
  EXPECT_EQ(WebAnswer(HttpClient::get(port, "/", "If-None-Match: " + tag + "\r\n")).status, 304);
}

TEST_F(WebHttpTest, ServesNothingElse) {
  start();
  for (const char* path :
       {"/secret.html", "/app/notes.txt", "/app/", "/app", "/app/../index.html",
        "/../page/index.html", "/app/..%2fsecret.html", "/%2e%2e/%2e%2e/etc/passwd",
        "/app/%2e%2e/secret.html", "//etc/passwd", "/app/main.js/", "/app/main.js%00.html",
        "/app\\..\\secret.html", "/./index.html", "/app/./main.js", "/APP/main.js"}) {
    EXPECT_EQ(loggedOut().get(path).status, 404) << path;
  }
  for (const char* path :
       {"", "tasks/../session", "tasks/1/../../session", "tasks/1/", "tasks//1", "tasks/1/none",
        "tasks/99999999999", "tasks/-1", "tasks/0", "tasks/1e3", "none", "../v1/session"}) {
    EXPECT_EQ(login(viewer).api(path).status, 404) << path;
  }
  EXPECT_EQ(WebAnswer(HttpClient::get(port, "/", "", "DELETE")).status, 405);
  EXPECT_EQ(WebAnswer(HttpClient::get(port, "/api/v1/login")).status, 405);
}

TEST_F(WebHttpTest, RefusesWhatIsTooLargeOrWrong) {
  start();
  EXPECT_EQ(
      WebAnswer(HttpClient::get(port, "/", "X-A: " + std::string(17000, 'a') + "\r\n")).status,
      431);
  EXPECT_EQ(WebAnswer(HttpClient::get(port, "/" + std::string(17000, 'a'))).status, 431);
  EXPECT_EQ(WebAnswer(HttpClient::get(port, "/", "Content-Length: 65537\r\n", "POST")).status, 413);
  EXPECT_EQ(WebAnswer(HttpClient::get(port, "/", "Host: y\r\n")).status, 400) << "two hosts";
  for (const char* query : {"%zz", "a=%", "a=%0", "name=%00", "a=%+1"}) {
    EXPECT_EQ(login(viewer).api(std::string("tasks?") + query).status, 400) << query;
  }
  const HttpClient client(port);
  client.send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(WebAnswer(client.receive("}\n")).status, 400) << "no host";
  const HttpClient other(port);
  other.send(
      "POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 4\r\nTransfer-Encoding: chunked\r\n\r\n");
  EXPECT_NE(WebAnswer(other.receive()).status, 200) << "two lengths";
}

TEST_F(WebHttpTest, DropsSlowClientsAfterTenSeconds) {
  start();
  const HttpClient slow(port);
  slow.send("GET / HTTP/1.1\r\nHost: x\r\nX-Slow: ");
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(slow.receive(), "");
  const auto seconds = std::chrono::steady_clock::now() - begin;
  EXPECT_GE(seconds, std::chrono::seconds(9));
  EXPECT_LE(seconds, std::chrono::seconds(15));
}

TEST_F(WebHttpTest, ServesAgainAfterConnectionsThatSayNothing) {
  start();
  std::vector<std::unique_ptr<HttpClient>> silent;
  for (int i = 0; i < 1000; ++i) {
    silent.push_back(std::make_unique<HttpClient>(port));
  }
  EXPECT_EQ(loggedOut().get("/healthz").text, "") << "as many as the limit are connected";
  EXPECT_TRUE(waitUntil([&] { return loggedOut().get("/healthz").status == 200; },
                        std::chrono::seconds(30)));
}

TEST_F(WebHttpTest, ReportsAboutItself) {
  start();
  const Browser browser = login(viewer);
  tryLogin(viewer, "wrong");
  EXPECT_THAT(loggedOut().get("/healthz").body, "koduweb is running.\n");
  EXPECT_TRUE(waitUntil([&] {
    return loggedOut().get("/metrics").body.find("\nkoduweb_database_up 1\n") != std::string::npos;
  }));
  const std::string metrics = loggedOut().get("/metrics").body;
  EXPECT_THAT(metrics, HasSubstr("\nkoduweb_sessions 1\n"));
  EXPECT_THAT(metrics, HasSubstr("\nkoduweb_refused_logins_total 1\n"));
  EXPECT_EQ(exitStatusOf(end(SIGTERM)), 0);
}

}  // namespace
