#pragma once

#include <exception>
#include <string>
#include <utility>

/// A file that could not be opened. Start-up reports it and ends with status 1.
class FileException : public std::exception {
 public:
  explicit FileException(std::string text) : message(std::move(text)) {}
  const char* what() const noexcept override { return message.c_str(); }

 private:
  std::string message;
};
