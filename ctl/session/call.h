#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ctl/session/session.h"

/// A call of one of the functions in sql/functions.sql with named arguments. Arguments that are not
/// given have the function's default.
class Call {
 public:
  explicit Call(std::string functionName) : function(std::move(functionName)) {}

  /// Adds an argument of an SQL type if there is a value.
  Call& with(const std::string& name, const std::string& type,
             const std::optional<std::string>& value);
  Call& with(const std::string& name, std::optional<int> value);

  bool hasArguments() const { return !arguments.empty(); }

  /// Runs it and returns its rows; a single value is the column "result". Throws Failure:
  /// kNotPermitted when the session's role may not call it, kRefused when the function raises an
  /// error.
  Rows run(Session& session) const;

  /// Throws Failure (kNotPermitted, kRefused) when run() could not call it.
  void requireRight(Session& session) const;

  /// Runs it once for each id, in the order of the ids, as its argument "task". Throws as run(); in
  /// a transaction that is to be rolled back then.
  void runForEach(Session& session, const std::vector<int>& ids) const;

 private:
  std::string function;
  std::string arguments;
  std::vector<std::string> values;
};
