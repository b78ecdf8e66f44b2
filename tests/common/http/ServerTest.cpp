#include "common/http/server.h"

#include <csignal>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/HttpClient.h"
#include "tests/support/waitUntil.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

HttpLimits smallLimits() {
  HttpLimits limits;
  limits.connections = 3;
  limits.headerBytes = 1000;
  limits.bodyBytes = 100;
  limits.idle = std::chrono::seconds(1);
  limits.handlers = 2;
  return limits;
}

/// A server that says what it was asked.
class HttpServerTest : public testing::Test {
 protected:
  ~HttpServerTest() override {
    server.stop();
    thread.join();
  }
  static HttpResponse answer(const HttpRequest& request) {
    if (request.path == "/fails") {
      throw std::runtime_error("no luck");
    }
    HttpResponse response{200, request.method + " " + request.path + " " + request.query + " " +
                                   request.body + " " + request.header("x-TEST")};
    response.headers.emplace_back("X-More", "1");
    return response;
  }
  std::string get(const std::string& path, const std::string& headers = "",
                  const std::string& method = "GET") const {
    return HttpClient::get(server.port(), path, headers, method);
  }

  HttpServer server{{"127.0.0.1", 0}, answer, smallLimits()};
  std::thread thread{[this] { server.run(); }};
};

TEST_F(HttpServerTest, AnswersARequest) {
  const std::string answer = get("/a?b=c", "X-Test: yes\r\n");
  EXPECT_THAT(answer, StartsWith("HTTP/1.1 200 OK\r\n"));
  EXPECT_THAT(answer, HasSubstr("\r\nContent-Type: text/plain; charset=utf-8\r\n"));
  EXPECT_THAT(answer, HasSubstr("\r\nX-More: 1\r\n"));
  EXPECT_THAT(answer, HasSubstr("\r\nContent-Length: 15\r\n"));
  EXPECT_THAT(answer, EndsWith("\r\n\r\nGET /a b=c  yes"));
}

TEST_F(HttpServerTest, ReadsABody) {
  EXPECT_THAT(get("/", "Content-Length: 3\r\n\r\nabc", "POST"), EndsWith("POST /  abc "));
}

TEST_F(HttpServerTest, LeavesTheBodyOutForHead) {
  const std::string answer = get("/a", "", "HEAD");
  EXPECT_THAT(answer, HasSubstr("\r\nContent-Length: 10\r\n"));
  EXPECT_THAT(answer, EndsWith("\r\n\r\n"));
}

TEST_F(HttpServerTest, KeepsTheConnection) {
  const HttpClient client(server.port());
  for (const std::string path : {"/first", "/second"}) {
    client.send("GET " + path + " HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_THAT(client.receive(path + "   "), HasSubstr("200 OK"));
  }
  EXPECT_EQ(client.receive(), "") << "closed after a second without a request";
}

TEST_F(HttpServerTest, ReportsAFailureOfItsHandler) {
  const std::string answer = get("/fails");
  EXPECT_THAT(answer, StartsWith("HTTP/1.1 500 "));
  EXPECT_THAT(answer, EndsWith("The request failed: no luck\n"));
  EXPECT_THAT(get("/"), StartsWith("HTTP/1.1 200 "));
}

TEST_F(HttpServerTest, RefusesWhatIsTooLargeOrNoHttp) {
  EXPECT_THAT(get("/" + std::string(2000, 'a')), StartsWith("HTTP/1.1 431 "));
  EXPECT_THAT(get("/", "Content-Length: 101\r\n", "POST"), StartsWith("HTTP/1.1 413 "));
  const HttpClient client(server.port());
  client.send("hello\r\n\r\n");
  EXPECT_THAT(client.receive(), StartsWith("HTTP/1.1 400 "));
}

TEST_F(HttpServerTest, TakesNoBodyForARequest) {
  for (const char* coding : {"xchunked", "chunked, identity", "identity"}) {
    const HttpClient client(server.port());
    client.send(std::string("POST /a HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: ") + coding +
                "\r\n\r\nGET /hidden HTTP/1.1\r\nHost: x\r\n\r\n");
    const std::string answer = client.receive();
    EXPECT_THAT(answer, StartsWith("HTTP/1.1 501 ")) << coding;
    EXPECT_THAT(answer, Not(HasSubstr("/hidden"))) << coding;
  }
}

TEST_F(HttpServerTest, BoundsWhatComesBesideTheBody) {
  for (const char* part : {"1;", "0\r\nX: "}) {  // a chunk's extension, and a trailer
    const HttpClient client(server.port());
    client.send(std::string("POST /a HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n") +
                part + std::string(67000, 'a'));
    EXPECT_THAT(client.receive(), StartsWith("HTTP/1.1 431 ")) << part;
  }
}

TEST(HttpServerPeerTest, IsAnAddressOfVersionFourWhereItIsOne) {
  HttpServer server({"::", 0}, [](const HttpRequest& request) {
    return HttpResponse{200, "from " + request.peer};
  });
  std::thread thread([&] { server.run(); });
  EXPECT_THAT(HttpClient::get(server.port(), "/"), EndsWith("from 127.0.0.1"));
  server.stop();
  thread.join();
}

TEST_F(HttpServerTest, EndsSlowAndSurplusClients) {
  std::vector<std::unique_ptr<HttpClient>> slow;
  for (int i = 0; i < 3; ++i) {
    slow.push_back(std::make_unique<HttpClient>(server.port()));
    slow.back()->send("GET / HTTP");
  }
  EXPECT_EQ(get("/"), "") << "as many as the limit are connected";
  for (const auto& client : slow) {
    EXPECT_EQ(client->receive(), "") << "after a second";
  }
  EXPECT_TRUE(waitUntil([&] { return get("/").starts_with("HTTP/1.1 200 "); }));
}

/// A server whose answers a feed continues.
class HttpFeedTest : public testing::Test {
 protected:
  HttpFeedTest() {
    limits.feedBytes = 100000;
    server.emplace(
        HttpAddress{"127.0.0.1", 0},
        [this](const HttpRequest& request) {
          HttpResponse response{200, "begin\n"};
          response.feed = feed;
          response.feedKey = request.path;
          return response;
        },
        limits);
    thread = std::thread([this] { server->run(); });
  }
  ~HttpFeedTest() override {
    server->stop();
    thread.join();
  }
  std::unique_ptr<HttpClient> follow(const std::string& path) {
    const std::size_t before = feed->count();
    auto client = std::make_unique<HttpClient>(server->port());
    client->send("GET " + path + " HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_TRUE(waitUntil([&] { return feed->count() > before; }));
    return client;
  }

  HttpLimits limits = smallLimits();
  std::shared_ptr<HttpFeed> feed = std::make_shared<HttpFeed>();
  std::optional<HttpServer> server;
  std::thread thread;
};

TEST_F(HttpFeedTest, SendsMessagesToAllWhoFollow) {
  feed->greet("hello\n");
  const auto one = follow("/one");
  const auto two = follow("/two");
  feed->publish("news\n");
  for (const auto& client : {one.get(), two.get()}) {
    EXPECT_THAT(client->receive("news\n"), EndsWith("\r\n\r\nbegin\nhello\nnews\n"));
  }
  feed->end("/one");
  EXPECT_EQ(one->receive(), "");
  EXPECT_TRUE(waitUntil([&] { return feed->count() == 1; }));
  feed->publish("more\n");
  EXPECT_EQ(two->receive("more\n"), "more\n");
}

TEST_F(HttpFeedTest, ForgetsWhoHasGone) {
  auto client = follow("/one");
  client.reset();
  EXPECT_TRUE(waitUntil([&] { return feed->count() == 0; }));
}

TEST_F(HttpFeedTest, DropsAFollowerThatDoesNotRead) {
  const auto client = follow("/one");
  const std::string large(50000, 'x');
  EXPECT_TRUE(waitUntil([&] {
    feed->publish(large);
    return feed->count() == 0;
  }));
}

TEST(HttpServerStopTest, EndsAtSigterm) {
  HttpServer server({"127.0.0.1", 0}, [](const HttpRequest&) { return HttpResponse(); });
  std::thread thread([&] { server.run(); });
  EXPECT_THAT(HttpClient::get(server.port(), "/"), StartsWith("HTTP/1.1 200 "));
  std::raise(SIGTERM);
  thread.join();
}

TEST(HttpServerStopTest, EndsAtASigtermThatCameBeforeItRan) {
  HttpServer server({"127.0.0.1", 0}, [](const HttpRequest&) { return HttpResponse(); });
  std::raise(SIGTERM);
  server.run();
}

TEST(HttpServerStopTest, NamesTheAddressThatItCannotBind) {
  const auto handler = [](const HttpRequest&) { return HttpResponse(); };
  const HttpServer first({"127.0.0.1", 0}, handler);
  try {
    const HttpServer second({"127.0.0.1", first.port()}, handler);
    FAIL();
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(e.what(), "cannot listen on 127.0.0.1 port " + std::to_string(first.port()) +
                            ": Address already in use");
  }
}

TEST(ParseHttpAddressTest, ReadsAddressAndPort) {
  const HttpAddress four = parseHttpAddress("127.0.0.1:9464");
  EXPECT_EQ(four.host, "127.0.0.1");
  EXPECT_EQ(four.port, 9464);
  const HttpAddress six = parseHttpAddress("[::1]:0");
  EXPECT_EQ(six.host, "::1");
  EXPECT_EQ(six.port, 0);
}

TEST(ParseHttpAddressTest, RefusesOtherTexts) {
  for (const char* text : {"", ":", "127.0.0.1", "9464", "localhost:9464", "127.0.0.1:",
                           "127.0.0.1:x", "127.0.0.1:65536", "127.0.0.1:-1", "127.0.0.1:1 "}) {
    EXPECT_THROW(parseHttpAddress(text), std::invalid_argument) << text;
  }
}

}  // namespace
