#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "tests/ctl/CtlTest.h"

namespace {

using testing::HasSubstr;

/// koductl run by a user who may not read the daemon's password, with a role of the user's own.
class OwnRoleTest : public CtlTest {
 protected:
  void SetUp() override {
    if (geteuid() != 0) {
      GTEST_SKIP() << "only root can become another user";
    }
    CtlTest::SetUp();
    chmod(daemon.directory.path().c_str(), 0755);
    chmod(daemon.databaseConfig().c_str(), 0600);
    std::filesystem::copy_file(program(), copy());  // from a folder that others may not enter
    database.insertTask(quietTask(1));
    place = "PGHOST=" + database.host() + " PGPORT=" + std::to_string(database.port()) +
            " PGDATABASE=" + database.name();
  }
  void TearDown() override {
    if (geteuid() == 0) {
      CtlTest::TearDown();
    }
  }

  std::string copy() const { return daemon.directory / "koductl"; }

  /// koductl as the user "nobody", with the admin's password and `variables` as its environment.
  CtlResult runAsNobody(const std::string& variables, const std::string& arguments) const {
    const std::string command = "setpriv --reuid=nobody --regid=nogroup --clear-groups env -i " +
                                variables + " PGPASSWORD=secret " + copy() + " -f " +
                                daemon.mainConfig() + " " + arguments + " >" + outPath() + " 2>" +
                                errPath() + " </dev/null";
    const int status = std::system(command.c_str());  // NOLINT(cert-env33-c,concurrency-mt-unsafe)
    return {exitStatusOf(status), readFile(outPath()), readFile(errPath())};
  }

  std::string place;  // of the database, as variables
};

TEST_F(OwnRoleTest, WorksWithoutTheRightToReadTheDaemonsPassword) {
  const CtlResult paused = runAsNobody(place, "--user " + admin() + " pause 1");
  EXPECT_EQ(paused.exitCode, 0) << paused.err;
  EXPECT_EQ(paused.out, "task 1 (task1) paused\n");
  ASSERT_TRUE(daemon.startAndWait());
  EXPECT_EQ(runAsNobody(place, "--user " + admin() + " status").exitCode, 0);
}

TEST_F(OwnRoleTest, ChecksTheFilesThatItMayRead) {
  const CtlResult result = runAsNobody(place, "--user " + admin() + " check");
  EXPECT_THAT(result.out,
              HasSubstr("not checked, because you may not read it: " + daemon.databaseConfig()));
  EXPECT_THAT(result.out, HasSubstr("DUE NEXT (UTC)"));
}

TEST_F(OwnRoleTest, ExplainsHowToNameTheDatabase) {
  const CtlResult result = runAsNobody("PGHOST=127.0.0.1", "--user " + admin() + " status");
  EXPECT_EQ(result.exitCode, 77);
  EXPECT_EQ(result.err, "koductl: cannot read " + daemon.databaseConfig() +
                            ": Permission denied; with --user, name the database by PGHOST, PGPORT "
                            "and PGDATABASE, or by PGSERVICE\n");
}

TEST_F(OwnRoleTest, NeedsTheFileForTheDaemonsRole) {
  const CtlResult result = runAsNobody(place, "status");
  EXPECT_EQ(result.exitCode, 77);
  EXPECT_THAT(result.err, HasSubstr("as root, or use --user ROLE"));
}

}  // namespace
