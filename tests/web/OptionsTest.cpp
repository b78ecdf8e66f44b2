#include "web/options.h"

#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/outputOf.h"

namespace {

using testing::ElementsAre;

WebRequest parse(std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "koduweb");
  return parseWebOptions(static_cast<int>(arguments.size()), arguments.data());
}

TEST(WebOptionsTest, ListenOnTheLoopbackInterfaceByDefault) {
  const WebRequest request = parse({});
  EXPECT_TRUE(request.isToRun);
  EXPECT_EQ(request.options.listen.host, "127.0.0.1");
  EXPECT_EQ(request.options.session.user, "kodu_web");
  EXPECT_FALSE(request.options.isReadOnly);
  EXPECT_FALSE(request.options.tls);
}

TEST(WebOptionsTest, AreTakenOver) {
  const WebRequest request =
      parse({"-f", "c", "--listen", "0.0.0.0:80", "--tls-certificate", "a", "--tls-key", "b",
             "--read-only", "--anonymous", "wall", "--trusted-proxy", "10.0.0.1", "--trusted-proxy",
             "::1", "--page", "p"});
  EXPECT_TRUE(request.isToRun);
  EXPECT_EQ(request.options.tls->keyFile, "b");
  EXPECT_TRUE(request.options.isReadOnly);
  EXPECT_EQ(request.options.anonymous, "wall");
  EXPECT_EQ(request.options.pageDirectory, "p");
  EXPECT_THAT(request.options.trustedProxies, ElementsAre("10.0.0.1", "::1"));
}

TEST(WebOptionsTest, SendNoPasswordsThroughANetworkInClearText) {
  EXPECT_EQ(parse({"--listen", "0.0.0.0:80"}).exitCode, 64);
  EXPECT_EQ(parse({"--listen", "[::]:80"}).exitCode, 64);
  EXPECT_TRUE(parse({"--listen", "[::1]:80"}).isToRun);
  EXPECT_TRUE(parse({"--listen", "0.0.0.0:80", "--trusted-proxy", "10.0.0.1"}).isToRun);
}

TEST(WebOptionsTest, AreRefusedWhenTheyAreWrong) {
  for (const std::vector<const char*>& wrong : std::vector<std::vector<const char*>>{
           {"--listen", "80"}, {"--tls-key", "a"}, {"--trusted-proxy", "proxy"}, {"--none"}}) {
    const WebRequest request = parse(wrong);
    EXPECT_FALSE(request.isToRun) << wrong.front();
    EXPECT_EQ(request.exitCode, 64) << wrong.front();
  }
}

}  // namespace
