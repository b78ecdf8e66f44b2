#include "guard/names.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

namespace {

TEST(DescribeTest, UsesTheTextOfTheCLibrary) {
  for (const int error :
       {EPERM, ENOENT, EIO, E2BIG, ENOEXEC, EAGAIN, ENOMEM, EACCES, EFAULT, ENOTDIR, EISDIR, EINVAL,
        ENFILE, EMFILE, ETXTBSY, ENAMETOOLONG, ELOOP, ELIBBAD, ESTALE}) {
    EXPECT_EQ(describe(error), std::strerror(error)) << error;
  }
}

/// Every error that execve, clone, pipe2, mmap and signalfd4 can return by their manual pages.
TEST(DescribeTest, KnowsTheErrorsOfTheSystemCallsThatCanFail) {
  for (const int error :
       {E2BIG, EACCES, EAGAIN, EFAULT, EINVAL, EIO, EISDIR, ELIBBAD, ELOOP, EMFILE, ENAMETOOLONG,
        ENFILE, ENOENT, ENOEXEC, ENOMEM, ENOTDIR, EPERM, ETXTBSY}) {
    EXPECT_FALSE(describe(error).empty()) << std::strerror(error);
  }
}

TEST(DescribeTest, IsEmptyForOtherNumbers) {
  for (const int error : {0, -1, EADDRINUSE, 4096}) {
    EXPECT_EQ(describe(error), "") << error;
  }
}

TEST(SignalNameTest, UsesTheNamesOfTheCLibrary) {
  for (int signal = 1; signal < 32; ++signal) {
    EXPECT_EQ(signalName(signal), sigabbrev_np(signal)) << signal;
  }
}

TEST(SignalNameTest, CallsTheOthersRealTimeSignals) {
  EXPECT_EQ(signalName(32), "RT");
  EXPECT_EQ(signalName(SIGRTMIN), "RT");
  EXPECT_EQ(signalName(SIGRTMAX), "RT");
  EXPECT_EQ(signalName(0), "RT");
}

}  // namespace
