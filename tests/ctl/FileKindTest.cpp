#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <csignal>
#include <string>

#include "tests/ctl/CtlTest.h"

namespace {

using testing::HasSubstr;

/// Every command that opens an output file, when that is a FIFO, a socket or a device.
class FileKindTest : public CtlTest {
 protected:
  void SetUp() override {
    CtlTest::SetUp();
    database.insertTask(quietTask(1));
    setStatus(1, "FAILED");
    addFailure(1, 30, "x", "");
    std::filesystem::remove(archive(1) + "/x");
    ::unlink(output().c_str());
    std::filesystem::create_directories(daemon.outputDirectory());
  }
  std::string output() const { return daemon.outputDirectory() + "/out_1_last.txt"; }

  /// Runs koductl with a time limit; -1 when it did not end in time.
  CtlResult runOrKill(std::vector<std::string> arguments) const {
    if (arguments.front() != "-f") {
      arguments.insert(arguments.begin(), {"-f", daemon.mainConfig()});
    }
    const pid_t pid = start(arguments);
    int status = 0;
    const bool hasEnded = waitUntil([&] { return waitpid(pid, &status, WNOHANG) == pid; });
    if (!hasEnded) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
    }
    return {exitStatusOf(status), readFile(outPath()), readFile(errPath())};
  }
  /// Expects each command that reads outputs to end with a message.
  void expectNoneWaits(const std::string& kind) const {
    for (const auto& command : std::vector<std::vector<std::string>>{{"status", "--output"},
                                                                     {"show", "1"},
                                                                     {"explain", "1"},
                                                                     {"check"},
                                                                     {"history", "1"},
                                                                     {"test", "1"}}) {
      EXPECT_NE(runOrKill(command).exitCode, -1) << testing::PrintToString(command);
    }
    const CtlResult last = runOrKill({"output", "1"});
    EXPECT_EQ(last.exitCode, 66);
    EXPECT_EQ(last.err, "koductl: cannot read " + output() + ": it is " + kind + "\n");
    EXPECT_EQ(runOrKill({"output", "1", "1"}).exitCode, 66);
    EXPECT_EQ(runOrKill({"logs", "1", "-n", "1"}).exitCode, 66);
    EXPECT_THAT(runOrKill({"logs", "1"}).out, HasSubstr(": it is " + kind + ")\n"));
  }
};

TEST_F(FileKindTest, DoesNotWaitForTheWriterOfAFifo) {
  ASSERT_EQ(mkfifo(output().c_str(), 0666), 0);
  ASSERT_EQ(mkfifo((archive(1) + "/x").c_str(), 0666), 0);
  expectNoneWaits("a FIFO");
  EXPECT_THAT(run({"check"}).out, HasSubstr("output file cannot be written: it is a FIFO"));
  EXPECT_THAT(run({"explain", "1"}).out, HasSubstr("it is a FIFO"));
}

TEST_F(FileKindTest, DoesNotWaitForAFifoBehindALink) {
  const std::string fifo = daemon.directory / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0666), 0);
  std::filesystem::create_symlink(fifo, output());
  std::filesystem::create_symlink(fifo, archive(1) + "/x");
  expectNoneWaits("a FIFO");
}

TEST_F(FileKindTest, DoesNotReadASocket) {
  for (const std::string& path : {output(), archive(1) + "/x"}) {
    const int file = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    // A short path: a socket's address has room for 107 bytes.
    const std::string folder = std::filesystem::path(path).parent_path();
    ASSERT_EQ(chdir(folder.c_str()), 0);
    sockaddr_un address{AF_UNIX, {}};
    std::filesystem::path(path).filename().string().copy(&address.sun_path[0], 100);
    ASSERT_EQ(bind(file, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    close(file);
  }
  ASSERT_EQ(chdir("/"), 0);
  expectNoneWaits("a socket");
}

TEST_F(FileKindTest, DoesNotReadADevice) {
  std::filesystem::create_symlink("/dev/zero", output());
  std::filesystem::create_symlink("/dev/zero", archive(1) + "/x");
  expectNoneWaits("not a regular file");
}

TEST_F(FileKindTest, RefusesAFifoAsAnIniFile) {
  const std::string fifo = daemon.directory / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0666), 0);
  const CtlResult result = runOrKill({"-f", fifo, "status"});
  EXPECT_EQ(result.exitCode, 78);
  EXPECT_THAT(result.err, HasSubstr("cannot read " + fifo + ": it is a FIFO"));
}

}  // namespace
