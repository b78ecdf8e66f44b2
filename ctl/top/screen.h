#pragma once

#include <vector>

struct TopLine;

/// The terminal as a screen of lines, by ncurses. The terminal is as before once it is destroyed.
/// Owned by one thread; only one object at a time.
class Screen {
 public:
  /// Throws Failure (kWrongUsage) when the terminal is not known.
  Screen();
  ~Screen();
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;

  /// Makes the terminal what it was before, for a handler of signals that then ends the process.
  static void leave();

  int width() const;
  int height() const;

  /// Shows the lines from the first line on. Only what differs is sent.
  void draw(const std::vector<TopLine>& lines);

  /// Waits for a key: a byte of a character, one of TopKey, or 0 after this time, a change of size
  /// or a signal.
  int key(int milliseconds);

 private:
  void* terminal;  // of ncurses
};
