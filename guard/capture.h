#pragma once

#include <cstddef>
#include <string_view>

/// One output stream of the plugin: a pipe, of which the first bytes are kept and the others
/// counted. Nothing is released; the program ends soon after.
class Capture {
 public:
  /// Opens the pipe, close-on-exec, and reserves memory for `mostBytes`. Returns 0 or an errno
  /// value.
  int open(std::size_t mostBytes);
  void closeWriteEnd();

  /// -1 before open() and once the stream has ended.
  int readEnd() const { return reader; }
  int writeEnd() const { return writer; }
  bool isOpen() const { return reader >= 0; }

  /// Reads what is in the pipe without waiting for more; closes it at its end. Returns even if a
  /// plugin writes faster than it reads.
  void drain();

  std::string_view kept() const { return {buffer, length}; }
  /// Bytes that arrived when the memory was full.
  std::size_t dropped() const { return droppedBytes; }

 private:
  bool isFull() const { return length == limit; }

  int reader = -1;
  int writer = -1;
  char* buffer = nullptr;
  std::size_t limit = 0;
  std::size_t length = 0;
  std::size_t droppedBytes = 0;
};
