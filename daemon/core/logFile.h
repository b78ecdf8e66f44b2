#pragma once

#include <sys/types.h>

#include <concepts>
#include <ctime>
#include <initializer_list>
#include <mutex>
#include <string>
#include <string_view>

/// The daemon's log: one line a call, flushed at once, never rotated, no size limit. Any thread
/// may call any member; lines of different threads never mix.
///
/// A line is the local time, "#", the level's word, "#", the message:
/// "Sun Nov 15 12:16:44 2026#NOTICE#Load cron task". Levels: 0 DEBUG, 1 INFO, 2 NOTICE, 3 WARNING,
/// 4 ERRORS, 5 CRITICAL, 6 ALERT, 7 ERMERGENCY; any other level is written as INFO. Readers of the
/// log depend on the words' spelling.
///
/// When the disk is full, a line or its end is lost. The next line that fits starts on a new line,
/// also after a partial line of an earlier daemon process.
///
/// HandlerQuit writes too, on the thread that receives SIGTERM. A thread that holds the log's mutex
/// therefore blocks SIGTERM, waits only for the disk and allocates nothing.
class logFile {
 public:
  /// Opens `path` for appending, creating it when missing, with threshold 1. Throws FileException
  /// when the file cannot be opened.
  explicit logFile(std::string path);

  /// The same with `threshold`: lines of a lower level are dropped.
  logFile(char threshold, std::string path);

  ~logFile();
  logFile(const logFile&) = delete;
  logFile& operator=(const logFile&) = delete;

  /// Writes a line unless `lineLevel` is below the threshold, which is tested without the lock.
  /// Opens the file again if it was closed; throws FileException when that fails.
  void write(char lineLevel, std::string_view message);

  /// The same with the result of `message`, which is called only for lines that are written. It is
  /// called before the lock is taken, so it may take other locks. Building texts that are not
  /// written would slow down every run. Exceptions of `message` propagate; nothing is written then.
  template <std::invocable Message>
  void write(char lineLevel, const Message& message) {
    if (writes(lineLevel)) {
      write(lineLevel, std::string_view(message()));
    }
  }

  /// Writes HandlerQuit's line, unless its level is below the threshold: as above, but without the
  /// heap and with the time zone that was read last.
  void writeInHandler(char lineLevel, std::string_view message);

  /// Writes a line with `tag` in place of the level's word, whatever the threshold. Throws as
  /// above.
  void write(std::string_view tag, std::string_view message);

  /// Writes `message` and a newline, without a time and whatever the threshold. Throws as above.
  void write(std::string_view message);

  /// The file's size in bytes. Throws std::filesystem::filesystem_error when the file is missing.
  std::size_t size();

  /// The path from its last "/" on, the slash included. Throws std::out_of_range without a "/".
  std::string getFileName() const;

  /// The path before its last "/"; the whole path without one.
  std::string getDirectory() const;

 private:
  bool writes(char lineLevel) const { return level <= static_cast<signed char>(lineLevel); }

  /// Opens the file, close-on-exec. Throws FileException when that fails. Caller holds mutex, or
  /// constructs.
  void open();
  /// Writes a line whose time is `offset` seconds ahead of UTC.
  void writeLine(long offset, std::string_view tag, std::string_view message);
  /// Writes `parts` and a newline, all at once. Caller holds mutex.
  void append(std::initializer_list<std::string_view> parts);
  /// True when the file ends in the middle of a line. Caller holds mutex.
  bool endsInsideLine() const;

  const signed char level;       // constant after construction
  const std::string fileName;    // constant after construction
  int file = -1;                 // guarded by mutex
  bool isLastLineWhole = false;  // guarded by mutex; false also when it is not known
  std::mutex mutex;
};
