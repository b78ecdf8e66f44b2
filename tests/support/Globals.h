#pragma once

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/Database.h"
#include "tests/support/Files.h"

class serviceCron;

/// The daemon's globals as `main` leaves them, for a test that calls a part of it in its own
/// process: log at threshold 0, an output directory, both queues; afterwards everything is as
/// before. Threads that a test starts end before TearDown: set die_kodu, wake the workers, join.
class GlobalsTest : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  /// The log's messages in order, each as "LEVEL#message".
  std::vector<std::string> log() const;
  /// The number of lines `line` ("LEVEL#message") in the log.
  long logged(const std::string& line) const;

  /// A loaded task that is in no queue: id, name, path, a file name, due at `execTime`.
  static std::shared_ptr<serviceCron> makeTask(int id, const std::string& path, long execTime = 0);

  TempDir directory;

 private:
  std::string savedLogDirectory;
};

/// The same with a database and the connection pgSQL, on which the named statements are prepared.
class DatabaseGlobalsTest : public GlobalsTest {
 protected:
  void SetUp() override;
  void TearDown() override;

  Database database;
};
