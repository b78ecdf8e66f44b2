#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/Database.h"
#include "tests/support/Files.h"

/// The ledger's files, and its rows as short texts.
class Ledger {
 public:
  /// Loads sql/functions.sql and sql/ledger.sql.
  explicit Ledger(const Database& testDatabase) : database(testDatabase) {
    database.query(readFile(projectFile("sql/functions.sql")));
    load();
  }
  void load() const { database.query(readFile(projectFile("sql/ledger.sql"))); }

  /// The task's rows in order, without where its ledger begins: "ok #1", "retried #1", or the
  /// reason of skipped periods and their number, "overrun 2".
  std::vector<std::string> rows(int id) const {
    std::vector<std::string> texts;
    for (const Database::Row& row : database.query("SELECT CASE WHEN reason IS NULL THEN outcome "
                                                   "|| ' #' || attempt ELSE reason || ' ' || "
                                                   "periods END FROM kodu_run WHERE id = " +
                                                   std::to_string(id) + " ORDER BY ledger_id")) {
      texts.push_back(row[0]);
    }
    return texts;
  }

  /// A column of kodu_account for the task; "" when it has no rows.
  std::string account(int id, const std::string& column) const {
    return database.value("SELECT " + column + " FROM kodu_account(task => " + std::to_string(id) +
                          ")");
  }
  std::string status(const std::string& column) const {
    return database.value("SELECT " + column + " FROM kodu_ledger_status()");
  }

  /// Each period is a run or was skipped for a reason, and the rows of each task are a chain.
  void expectComplete() const {
    EXPECT_EQ(database.query("SELECT * FROM kodu_ledger_gap"), std::vector<Database::Row>());
    EXPECT_EQ(database.query("SELECT * FROM kodu_account() WHERE difference <> 0"),
              std::vector<Database::Row>());
  }

 private:
  const Database& database;
};
