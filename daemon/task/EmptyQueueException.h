#pragma once

#include <exception>
#include <string>
#include <utility>

/// An element was asked of an execution queue that holds none; another thread took it first.
class EmptyQueueException : public std::exception {
 public:
  explicit EmptyQueueException(std::string text) : message(std::move(text)) {}
  const char* what() const noexcept override { return message.c_str(); }

 private:
  std::string message;
};
