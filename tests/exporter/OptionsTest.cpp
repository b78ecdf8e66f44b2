#include "exporter/options.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/outputOf.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

ExporterRequest parse(std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "koduexporter");
  return parseExporterOptions(static_cast<int>(arguments.size()), arguments.data());
}

TEST(ExporterOptionsTest, HasDefaults) {
  const ExporterRequest request = parse({});
  EXPECT_TRUE(request.isToRun);
  EXPECT_EQ(request.options.session.configFile, "/etc/kodu/cron.conf");
  EXPECT_EQ(request.options.listen.host, "127.0.0.1");
  EXPECT_EQ(request.options.listen.port, 9464);
  EXPECT_EQ(request.options.timeout.count(), 4000);
  EXPECT_EQ(request.options.countEvery.count(), 15000);
}

TEST(ExporterOptionsTest, TakesValues) {
  const ExporterRequest request = parse({"-f", "x.conf", "--user", "m", "--listen", "[::1]:1",
                                         "--timeout", "2", "--count-every", "3"});
  EXPECT_TRUE(request.isToRun);
  EXPECT_EQ(request.options.session.configFile, "x.conf");
  EXPECT_EQ(request.options.session.user, "m");
  EXPECT_EQ(request.options.listen.host, "::1");
  EXPECT_EQ(request.options.timeout.count(), 2000);
  EXPECT_EQ(request.options.countEvery.count(), 3000);
}

TEST(ExporterOptionsTest, RefusesWrongOnes) {
  for (const std::vector<const char*>& wrong :
       std::vector<std::vector<const char*>>{{"--listen", "here"},
                                             {"--timeout", "0"},
                                             {"--count-every", "x"},
                                             {"--other"},
                                             {"word"}}) {
    ExporterRequest request;
    const std::string said = outputOf([&] { request = parse(wrong); }, STDERR_FILENO);
    EXPECT_FALSE(request.isToRun);
    EXPECT_EQ(request.exitCode, 64) << said;
    EXPECT_THAT(said, StartsWith("koduexporter: "));
  }
}

TEST(ExporterOptionsTest, PrintsHelpAndVersion) {
  ExporterRequest request;
  EXPECT_THAT(outputOf([&] { request = parse({"--help"}); }), HasSubstr("--listen"));
  EXPECT_FALSE(request.isToRun);
  EXPECT_EQ(request.exitCode, 0);
  EXPECT_THAT(outputOf([&] { parse({"--version"}); }),
              testing::MatchesRegex("koduexporter [0-9.]+\n"));
}

}  // namespace
