#pragma once

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include "tests/support/DaemonTest.h"
#include "tests/support/Files.h"
#include "tests/support/HttpClient.h"
#include "tests/support/Ledger.h"
#include "tests/support/Process.h"
#include "tests/support/builtProgram.h"

/// An answer of the console.
struct WebAnswer {
  explicit WebAnswer(const std::string& received) : text(received) {
    if (text.starts_with("HTTP/1.1 ")) {
      status = std::atoi(text.c_str() + 9);
    }
    const auto end = text.find("\r\n\r\n");
    head = text.substr(0, end);
    body = end == std::string::npos ? "" : text.substr(end + 4);
  }
  Json::Value json() const {
    Json::Value value;
    std::istringstream stream(body);
    stream >> value;
    return value;
  }
  std::string header(const std::string& name) const {
    const auto found = head.find("\r\n" + name + ": ");
    if (found == std::string::npos) {
      return "";
    }
    const auto begin = found + name.size() + 4;
    return head.substr(begin, head.find("\r\n", begin) - begin);
  }

  std::string text, head, body;
  int status = 0;  // 0: none
};

/// koduweb as a child process, on a database with an administrator and a viewer. Their roles are
/// the test's own, because roles belong to the whole cluster.
class WebTest : public DaemonTest {
 protected:
  WebTest() {
    for (const std::string& role : {admin, viewer}) {
      database.query("CREATE ROLE " + role + " LOGIN PASSWORD 'right'");
    }
    ledger.load();
    database.query(readFile(projectFile("sql/console.sql")));
    database.query("GRANT kodu_admin TO " + admin);
    allow(admin);
    allow(viewer);
    // Roles are not locked for this: another test's change at the same time fails one of the two.
    EXPECT_TRUE(waitUntil([&] {
      try {
        database.query("ALTER ROLE kodu_web PASSWORD 'web'");
        return true;
      } catch (const std::runtime_error&) {
        return false;
      }
    }));
    std::filesystem::create_directories(page() + "/app");
    writeFile(page() + "/index.html", "<!doctype html><title>koducron</title>");
    writeFile(page() + "/app/main.js", "export {};");
    writeFile(page() + "/app/notes.txt", "not served");
    writeFile(page() + "/secret.html", "not served");
  }
  ~WebTest() override {
    end(SIGKILL);
    for (const std::string& role : {admin, viewer}) {
      database.query("DROP ROLE " + role);
    }
  }

  void allow(const std::string& role) const {
    database.query("SELECT kodu_web_allow('" + role + "')");
  }
  std::string page() const { return daemon.directory / "page"; }

  void start(const std::vector<std::string>& options = {}) {
    std::vector<std::string> all = {builtProgram("KODU_TEST_WEB"),
                                    "-f",
                                    daemon.mainConfig(),
                                    "--listen",
                                    "127.0.0.1:0",
                                    "--page",
                                    page()};
    all.insert(all.end(), options.begin(), options.end());
    std::vector<char*> pointers;
    for (std::string& text : all) {
      pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    writeFile(saidPath(), "");
    process = fork();
    if (process == 0) {
      setenv("PGPASSWORD", "web", 1);  // NOLINT(concurrency-mt-unsafe): there is one thread
      if (std::freopen(saidPath().c_str(), "a", stderr) == nullptr) {
        _exit(126);
      }
      execv(pointers[0], pointers.data());
      _exit(127);
    }
    ASSERT_TRUE(waitUntil([&] { return said().find(" port ") != std::string::npos; })) << said();
    const std::string text = said();
    port = std::atoi(text.c_str() + text.find(" port ") + 6);
  }
  int end(int signal) {
    int status = -1;
    if (process > 1) {
      ::kill(process, signal);
      waitpid(process, &status, 0);
      process = -1;
    }
    return status;
  }
  std::string said() const { return readFile(saidPath()); }
  std::string saidPath() const { return daemon.directory / "web.err"; }

  /// A browser that a person uses.
  struct Browser {
    int port = 0;
    std::string cookie, token;

    std::string headers() const {
      return cookie.empty() ? "" : "Cookie: theme=dark; kodu_session=" + cookie + "\r\n";
    }
    WebAnswer get(const std::string& path) const {
      return WebAnswer(HttpClient::get(port, path, headers()));
    }
    WebAnswer api(const std::string& path) const { return get("/api/v1/" + path); }
    /// With the session's token and the right origin.
    WebAnswer post(const std::string& path, const std::string& body = "{}") const {
      return send(path, body, "Origin: http://x\r\nX-Kodu-Token: " + token + "\r\n");
    }
    WebAnswer send(const std::string& path, const std::string& body,
                   const std::string& more) const {
      const std::string length = std::to_string(body.size());
      return WebAnswer(HttpClient::get(
          port, "/api/v1/" + path,
          headers() + more + "Content-Type: application/json\r\nContent-Length: " + length +
              "\r\n\r\n" + body,
          "POST"));
    }
  };
  Browser loggedOut() const { return {port, "", ""}; }
  WebAnswer tryLogin(const std::string& role, const std::string& password) const {
    return loggedOut().send("login",
                            R"({"role":")" + role + R"(","password":")" + password + R"("})", "");
  }
  Browser login(const std::string& role) const {
    const WebAnswer answer = tryLogin(role, "right");
    EXPECT_EQ(answer.status, 200) << answer.text << said();
    const std::string cookie = answer.header("Set-Cookie");
    return {port, cookie.substr(13, cookie.find(';') - 13), answer.json()["token"].asString()};
  }

  const std::string admin = "web_admin_" + std::to_string(getpid());
  const std::string viewer = "web_viewer_" + std::to_string(getpid());
  Ledger ledger{database};
  pid_t process = -1;
  int port = 0;
};
