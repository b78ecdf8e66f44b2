#pragma once

#include <string>

class Session;

/// Settings for a transaction that changes tasks. The daemon waits for the changed rows until the
/// end: a koductl that was stopped must not keep them.
constexpr const char* kEndWithoutKoductl = "SET LOCAL idle_in_transaction_session_timeout = '5s'";

/// A transaction that is rolled back unless it is committed. Owned by one thread.
class Transaction {
 public:
  /// Begins it; `settings` are statements, as SET LOCAL. Throws as Session::execute().
  Transaction(Session& owner, const std::string& settings);
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  /// Throws Failure when the server refuses; then nothing has been changed.
  void commit();

 private:
  Session& session;
  bool isOver = false;
};
