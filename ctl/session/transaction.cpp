#include "ctl/session/transaction.h"

#include "ctl/failure.h"
#include "ctl/session/session.h"

Transaction::Transaction(Session& owner, const std::string& settings) : session(owner) {
  session.execute("BEGIN;" + settings);
}

Transaction::~Transaction() {
  if (!isOver) {
    try {
      session.execute("ROLLBACK");
    } catch (const Failure&) {
      // The connection is lost, and the transaction with it.
      isOver = true;
    }
  }
}

void Transaction::commit() {
  session.execute("COMMIT");
  isOver = true;
}
