#pragma once

#include <exception>
#include <string>
#include <utility>

/// A plugin run that could not be brought to its end, or an output file that could not be opened.
class serviceSafeException : public std::exception {
 public:
  explicit serviceSafeException(std::string text) : message(std::move(text)) {}
  const char* what() const noexcept override { return message.c_str(); }

 private:
  std::string message;
};
