#pragma once

#include <exception>
#include <string>
#include <utility>

/// A failed connection or statement. Carries the message alone: no SQL state, no error code.
class PostgresqlException : public std::exception {
 public:
  explicit PostgresqlException(std::string text) : message(std::move(text)) {}
  const char* what() const noexcept override { return message.c_str(); }

 private:
  std::string message;
};
