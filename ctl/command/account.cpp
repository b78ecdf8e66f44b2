// koductl account: what became of each period of the tasks.

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <map>
#include <string>
#include <vector>

#include "ctl/command/commands.h"
#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/session/moment.h"
#include "ctl/session/session.h"
#include "ctl/task/ledger.h"
#include "ctl/task/selection.h"
#include "ctl/terminal/print.h"
#include "ctl/terminal/table.h"
#include "ctl/terminal/text.h"

namespace {

enum AccountExit { kComplete = 0, kIncomplete = 1 };

constexpr const char* kAccounts = R"(
SELECT account.*, plugin_name AS name
FROM kodu_account(NULLIF($1, '')::timestamptz) AS account
LEFT JOIN kodu_cron_plugin ON cron_id = account.id
LEFT JOIN kodu_plugins ON plugin_id = cron_plugin_id
WHERE ($2::int[] = '{}' OR account.id = ANY ($2::int[]))
  AND ($3 = '' OR plugin_name LIKE $3) AND ($4 = '' OR plugin_path LIKE $4)
ORDER BY account.id)";

constexpr std::array kCounts = {"periods", "runs",    "failed",
                                "retried", "skipped", "interrupted_attempts"};
constexpr std::array kReasons = {"overrun",  "late",        "interrupted", "daemon",
                                 "database", "reload",      "paused",      "changed",
                                 "moved",    "maintenance", "unrecorded"};

/// A task and its counts by the names of the columns.
struct Account {
  long id = 0;
  std::string name;  // "" when the task is gone
  std::map<std::string, long> counts;
};

std::vector<Account> readAccounts(Session& session, const Options& options) {
  const std::string since =
      momentOf(session, options.since, MomentRule::kLastOrDuration).value_or("");
  const Selection& chosen = options.selection;
  const Rows rows = session.query(
      kAccounts, {since, fmt::format("{{{}}}", fmt::join(chosen.ids, ",")),
                  likePattern(chosen.name.value_or("")), likePattern(chosen.plugin.value_or(""))});
  std::vector<Account> accounts;
  for (int row = 0; row < rows.count(); ++row) {
    Account account{rows.number(row, "id"), rows.text(row, "name"), {}};
    for (const char* column : kCounts) {
      account.counts[column] = rows.number(row, column);
    }
    for (const char* column : kReasons) {
      account.counts[column] = rows.number(row, column);
    }
    account.counts["difference"] = rows.number(row, "difference");
    accounts.push_back(account);
  }
  return accounts;
}

Account totalOf(const std::vector<Account>& accounts) {
  Account total{0, counted(static_cast<long>(accounts.size()), "task"), {}};
  for (const Account& account : accounts) {
    for (const auto& [column, count] : account.counts) {
      total.counts[column] += count;
    }
  }
  return total;
}

/// The columns with a count: the reasons that did not occur are left out.
std::vector<std::string> shownColumns(const Account& total) {
  std::vector<std::string> columns = {"periods", "runs", "failed", "retried", "skipped"};
  for (const char* reason : kReasons) {
    if (total.counts.at(reason) > 0) {
      columns.emplace_back(reason);
    }
  }
  return columns;
}

void addLine(Table& table, const Account& account, const std::vector<std::string>& columns) {
  std::vector<Table::Cell> cells = {account.id > 0 ? std::to_string(account.id) : "",
                                    account.name.empty() ? "(deleted)" : account.name};
  for (const std::string& column : columns) {
    cells.emplace_back(std::to_string(account.counts.at(column)));
  }
  table.add(cells);
}

void printForPeople(const std::vector<Account>& accounts, const Account& total) {
  if (accounts.empty()) {
    print("The ledger has no row of such a task.\n");
    return;
  }
  const std::vector<std::string> columns = shownColumns(total);
  std::vector<Table::Column> heads = {{"ID", Table::Align::kRight}, {"NAME"}};
  for (std::string head : columns) {
    std::transform(head.begin(), head.end(), head.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    heads.push_back({head, Table::Align::kRight});
  }
  Table table(heads);
  for (const Account& account : accounts) {
    addLine(table, account, columns);
  }
  if (accounts.size() > 1) {
    addLine(table, total, columns);
  }
  table.print();
  const long difference = total.counts.at("difference");
  print("\n{} = {} + {} skipped{}\n", counted(total.counts.at("periods"), "period"),
        counted(total.counts.at("runs"), "run"), total.counts.at("skipped"),
        difference == 0 ? ""
                        : fmt::format(" + {} that are not accounted for: SELECT * FROM "
                                      "kodu_ledger_gap shows where",
                                      difference));
}

Json::Value toJson(const Account& account) {
  Json::Value json;
  json["id"] = Json::Int64{account.id};
  json["name"] = account.name.empty() ? Json::Value() : Json::Value(account.name);
  for (const char* column : kCounts) {
    json[column] = Json::Int64{account.counts.at(column)};
  }
  for (const char* reason : kReasons) {
    json["skipped_by_reason"][reason] = Json::Int64{account.counts.at(reason)};
  }
  json["difference"] = Json::Int64{account.counts.at("difference")};
  return json;
}

}  // namespace

int runAccount(const Options& options) {
  Session session(options);
  session.makeReadOnly();
  requireLedger(session);
  const std::vector<Account> accounts = readAccounts(session, options);
  if (options.asJson) {
    Json::Value list(Json::arrayValue);
    for (const Account& account : accounts) {
      list.append(toJson(account));
    }
    printJson(list);
  } else {
    printForPeople(accounts, totalOf(accounts));
  }
  const bool isComplete = std::all_of(accounts.begin(), accounts.end(), [](const Account& account) {
    return account.counts.at("difference") == 0;
  });
  return isComplete ? kComplete : kIncomplete;
}
